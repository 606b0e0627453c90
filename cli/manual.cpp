// The manual page, in the man(7) macros.
#include "cli/command_text.h"

#include <fmt/format.h>
#include <fmt/ranges.h>

#include <algorithm>
#include <map>
#include <string_view>

namespace kelvane::cli {
namespace {

// Text of a line: no character of it is a request or an escape.
std::string plain(std::string_view text) {
    std::string result;
    for (const char c : text) {
        if (c == '\\') {
            result += "\\e";
        } else if (c == '-') {
            result += "\\-";
        } else if (c == '\n' && result.ends_with('\n')) {
            result += ".PP\n";
        } else {
            const bool first = result.empty() || result.ends_with('\n');
            result += first && (c == '.' || c == '\'') ? std::string("\\&") + c : std::string(1, c);
        }
    }
    return result;
}

// ".TP" with the option in bold and its value in italics, and what it means.
std::string entry(const OptionText& option) {
    std::vector<std::string> names;
    for (const std::string& name : option.names) {
        names.push_back(option.positional ? "" : "\\fB" + plain(name) + "\\fR");
    }
    std::string head = fmt::format("{}", fmt::join(names, ", "));
    if (option.value != OptionText::Value::None) {
        const std::string value = option.choices.empty()
                                      ? "\\fI" + plain(option.valueName) + "\\fR"
                                      : fmt::format("{{{}}}", fmt::join(option.choices, ", "));
        head += option.mayLackValue ? "[=" + value + "]" : (option.positional ? "" : " ") + value;
    }
    return ".TP\n" + head + "\n" + plain(option.text) + "\n";
}

std::string synopsis(const CommandText& command) {
    std::string line = ".B " + plain(command.path) + "\n";
    std::string rest;
    for (const OptionText& positional : command.positionals) {
        const std::string value = "\\fI" + plain(positional.valueName) + "\\fR";
        rest += positional.required ? " " + value : " [" + value + "]";
    }
    if (!command.options.empty()) {
        rest += " [\\fIOPTIONS\\fR]";
    }
    return line + rest.substr(rest.empty() ? 0 : 1) + "\n";
}

using Commands = std::vector<const CommandText*>;

void collect(const CommandText& command, Commands& leaves) {
    if (command.subcommands.empty()) {
        leaves.push_back(&command);
    }
    for (const CommandText& each : command.subcommands) {
        collect(each, leaves);
    }
}

// Options that stand in so many commands, word for word, are told once.
constexpr std::ptrdiff_t kCommon = 5;

std::vector<OptionText> commonOptions(const Commands& commands) {
    std::vector<OptionText> common;
    for (const CommandText* command : commands) {
        for (const OptionText& option : command->options) {
            const auto users = std::ranges::count_if(commands, [&option](const CommandText* other) {
                return std::ranges::count(other->options, option) != 0;
            });
            if (users >= kCommon && std::ranges::count(common, option) == 0) {
                common.push_back(option);
            }
        }
    }
    return common;
}

std::string commandSection(const CommandText& command, const std::vector<OptionText>& common) {
    std::string text = ".SS " + plain(command.path) + "\n" + synopsis(command) + ".PP\n" +
                       plain(command.text) + ".\n";
    for (const OptionText& positional : command.positionals) {
        text += entry(positional);
    }
    std::vector<std::string> shared;
    for (const OptionText& option : command.options) {
        if (std::ranges::count(common, option) == 0) {
            text += entry(option);
        } else {
            shared.push_back("\\fB" + plain(option.names.back()) + "\\fR");
        }
    }
    if (!shared.empty()) {
        text += fmt::format(".PP\nCommon options: {}.\n", fmt::join(shared, ", "));
    }
    if (!command.footer.empty()) {
        text += ".PP\n.EX\n" + plain(command.footer) + "\n.EE\n";
    }
    return text;
}

} // namespace

std::string manualPage(const CommandText& root, const std::string& version) {
    Commands commands;
    collect(root, commands);
    const std::vector<OptionText> common = commonOptions(commands);
    std::string page =
        fmt::format(".TH KELVANE 1 \"\" \"kelvane {}\" \"User Commands\"\n", plain(version));
    page += ".SH NAME\nkelvane \\- a USB Audio Class 2.0 driver, run in user space\n"
            ".SH SYNOPSIS\n.B kelvane\n\\fICOMMAND\\fR [\\fIOPTIONS\\fR]\n"
            ".SH DESCRIPTION\n" +
            plain(root.text) +
            "\n.PP\nEach command loads the driver, plugs an interface in, and unloads the driver "
            "when it is done.\n.SH COMMANDS\n";
    for (const CommandText* command : commands) {
        page += commandSection(*command, common);
    }
    page += ".SH COMMON OPTIONS\n";
    for (const OptionText& option : common) {
        page += entry(option);
    }
    page += ".SH EXIT STATUS\n.TP\n0\nDone.\n.TP\n1\nFailed: bad input, or the driver refused.\n"
            ".TP\n2\nWrong usage.\n"
            ".SH ENVIRONMENT\n.TP\n.B KELVANE_DRIVER\nThe image of the driver to run, as "
            "\\fB\\-\\-driver\\fR names it.\n"
            ".TP\n.B NO_COLOR\nWhen set and not empty, nothing is coloured.\n";
    return page;
}

} // namespace kelvane::cli
