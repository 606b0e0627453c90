// Completion scripts. Both are tables: which words may follow which subcommand or option.
#include "cli/command_text.h"

#include "client/client.h"

#include <fmt/format.h>
#include <fmt/ranges.h>

#include <string_view>

namespace kelvane::cli {
namespace {

using Value = OptionText::Value;

std::string modelNames() {
    std::vector<std::string> names;
    for (const client::ModelInfo& model : client::builtInModels()) {
        names.push_back(model.name);
    }
    return fmt::format("{}", fmt::join(names, " "));
}

std::string replaced(std::string_view text, std::string_view what, std::string_view with) {
    std::string result;
    for (;;) {
        const std::size_t at = text.find(what);
        result += text.substr(0, at);
        if (at == std::string_view::npos) {
            return result;
        }
        result += with;
        text.remove_prefix(at + what.size());
    }
}

// --- bash ---------------------------------------------------------------------------------------

// A call of the script's helper: words to choose from, and whether files fit as well.
std::string bashOffer(const OptionText& option) {
    switch (option.value) {
    case Value::Choice:
        return fmt::format("_kelvane_offer '{}'", fmt::join(option.choices, " "));
    case Value::File:
        return "_kelvane_offer '' files";
    case Value::Device:
        return fmt::format("_kelvane_offer '{}' files", modelNames());
    case Value::None:
    case Value::Other:
        break;
    }
    return ":";
}

void bashCommand(const CommandText& command, std::string& script) {
    script += fmt::format("    '{}')\n        case $previous in\n", command.path);
    std::vector<std::string> names;
    for (const OptionText& option : command.options) {
        names.insert(names.end(), option.names.begin(), option.names.end());
        if (option.value != Value::None) {
            // Where a value may be missing, it comes behind a "=" only.
            std::vector<std::string> words;
            for (const std::string& name : option.names) {
                words.push_back(name + "=");
                if (!option.mayLackValue) {
                    words.push_back(name);
                }
            }
            script += fmt::format("        {}) {}; return ;;\n", fmt::join(words, " | "),
                                  bashOffer(option));
        }
    }
    script += "        esac\n";
    script += fmt::format("        if [[ $current == -* ]]; then\n"
                          "            _kelvane_offer '{}'\n",
                          fmt::join(names, " "));
    std::vector<std::string> subcommands;
    for (const CommandText& each : command.subcommands) {
        subcommands.push_back(each.name());
    }
    if (!subcommands.empty()) {
        script += fmt::format("        else\n            _kelvane_offer '{}'\n",
                              fmt::join(subcommands, " "));
    } else if (!command.positionals.empty()) {
        // Which of several it is would take counting: what fits any of them is offered.
        const OptionText* best = &command.positionals.front();
        for (const OptionText& positional : command.positionals) {
            best = positional.value > best->value ? &positional : best;
        }
        script += fmt::format("        else\n            {}\n", bashOffer(*best));
    }
    script += "        fi ;;\n";
    for (const CommandText& each : command.subcommands) {
        bashCommand(each, script);
    }
}

void collectPaths(const CommandText& command, std::vector<std::string>& paths) {
    for (const CommandText& each : command.subcommands) {
        paths.push_back(fmt::format("'{}'", each.path));
        collectPaths(each, paths);
    }
}

// --- zsh ----------------------------------------------------------------------------------------

// Inside of single quotes and of a specification of _arguments.
std::string zshText(std::string text) {
    for (const char* special : {"\\", "[", "]", ":"}) {
        text = replaced(text, special, std::string("\\") + special);
    }
    return replaced(text, "'", "'\\''");
}

std::string zshAction(const OptionText& option) {
    switch (option.value) {
    case Value::Choice:
        return fmt::format("({})", fmt::join(option.choices, " "));
    case Value::File:
        return "_files";
    case Value::Device:
        return "__kelvane_device";
    case Value::None:
    case Value::Other:
        break;
    }
    return " ";
}

std::string zshOption(const OptionText& option, const std::string& name) {
    std::string result = "'" + name;
    if (option.value != Value::None) {
        result += option.mayLackValue ? "=-" : name.starts_with("--") ? "=" : "";
    }
    result += fmt::format("[{}]", zshText(option.text));
    if (option.value != Value::None) {
        result += fmt::format("{}{}:{}", option.mayLackValue ? "::" : ":",
                              zshText(option.valueName), zshAction(option));
    }
    return result + "'";
}

std::string zshFunction(const CommandText& command) {
    return "_" + replaced(replaced(command.path, " ", "_"), "-", "_");
}

void zshCommand(const CommandText& command, std::string& script) {
    script += fmt::format("{}() {{\n    local curcontext=$curcontext state line\n"
                          "    local -a commands\n    _arguments -C",
                          zshFunction(command));
    for (const OptionText& option : command.options) {
        for (const std::string& name : option.names) {
            script += " \\\n        " + zshOption(option, name);
        }
    }
    if (command.subcommands.empty()) {
        for (const OptionText& positional : command.positionals) {
            script += fmt::format(" \\\n        '{}:{}:{}'", positional.required ? "" : ":",
                                  zshText(positional.valueName), zshAction(positional));
        }
        script += "\n}\n\n";
        return;
    }
    script += " \\\n        '1: :->command' \\\n        '*:: :->arguments'\n"
              "    case $state in\n    command)\n        commands=(\n";
    for (const CommandText& each : command.subcommands) {
        script += fmt::format("            '{}:{}'\n", each.name(), zshText(each.text));
    }
    script += "        )\n        _describe command commands ;;\n    arguments)\n"
              "        case $words[1] in\n";
    for (const CommandText& each : command.subcommands) {
        script += fmt::format("        {}) {} ;;\n", each.name(), zshFunction(each));
    }
    script += "        esac ;;\n    esac\n}\n\n";
    for (const CommandText& each : command.subcommands) {
        zshCommand(each, script);
    }
}

} // namespace

std::string bashCompletion(const CommandText& root) {
    std::vector<std::string> paths;
    collectPaths(root, paths);
    std::string script =
        "# bash completion for kelvane, made by 'kelvane completion bash'.\n"
        "\n"
        "_kelvane_offer() { # WORDS [files]\n"
        "    local line\n"
        "    COMPREPLY=()\n"
        "    while IFS= read -r line; do COMPREPLY+=(\"$line\"); done < <(\n"
        "        compgen -W \"$1\" -- \"$current\"\n"
        "        [[ ${2-} == files ]] && compgen -f -- \"$current\")\n"
        "    [[ ${2-} != files ]] || compopt -o filenames 2>/dev/null\n"
        "}\n"
        "\n"
        "_kelvane() {\n"
        "    local current=${COMP_WORDS[COMP_CWORD]} previous=${COMP_WORDS[COMP_CWORD - 1]}\n"
        "    local command=kelvane i\n"
        "    COMPREPLY=()\n"
        "    # The shell takes \"--device=large\" for three words.\n"
        "    if [[ $current == = ]]; then\n"
        "        current= previous+=\"=\"\n"
        "    elif [[ $previous == = && $COMP_CWORD -ge 2 ]]; then\n"
        "        previous=\"${COMP_WORDS[COMP_CWORD - 2]}=\"\n"
        "    fi\n"
        "    for ((i = 1; i < COMP_CWORD; ++i)); do\n"
        "        case \"$command ${COMP_WORDS[i]}\" in\n";
    script += fmt::format("        {})\n", fmt::join(paths, " | \\\n        "));
    script += "            command+=\" ${COMP_WORDS[i]}\" ;;\n"
              "        esac\n"
              "    done\n"
              "    case $command in\n";
    bashCommand(root, script);
    return script + "    esac\n}\n\ncomplete -F _kelvane kelvane\n";
}

std::string zshCompletion(const CommandText& root) {
    std::string script = "#compdef kelvane\n"
                         "# zsh completion for kelvane, made by 'kelvane completion zsh'.\n\n";
    script += fmt::format("__kelvane_device() {{\n"
                          "    _alternative 'models:built-in interface:({})' \\\n"
                          "        'dumps:descriptor dump:_files'\n}}\n\n",
                          modelNames());
    zshCommand(root, script);
    // Sourced it declares itself; installed it is the body of the function that zsh loads.
    return script + "if [[ $zsh_eval_context[-1] == loadautofunc ]]; then\n"
                    "    _kelvane \"$@\"\nelse\n    compdef _kelvane kelvane\nfi\n";
}

} // namespace kelvane::cli
