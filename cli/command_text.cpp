#include "cli/command_text.h"

#include <CLI/App.hpp>

#include <array>
#include <string_view>

namespace kelvane::cli {
namespace {

// The library appends the values of a CLI::IsMember: "BITS:{16,24,32}".
std::vector<std::string> choicesOf(const std::string& typeName) {
    std::vector<std::string> choices;
    const std::size_t open = typeName.find(":{");
    const std::size_t close = typeName.find('}', open);
    if (open == std::string::npos || close == std::string::npos) {
        return choices;
    }
    std::size_t from = open + 2;
    while (from < close) {
        const std::size_t to = std::min(typeName.find(',', from), close);
        choices.push_back(typeName.substr(from, to - from));
        from = to + 1;
    }
    return choices;
}

OptionText::Value kindOf(const OptionText& option) {
    const auto names = [&option](std::string_view part) {
        return option.valueName.find(part) != std::string::npos;
    };
    if (option.valueName.empty()) {
        return OptionText::Value::None;
    }
    if (!option.choices.empty()) {
        return OptionText::Value::Choice;
    }
    if (names("MODEL")) {
        return OptionText::Value::Device;
    }
    constexpr std::array kFiles{"FILE", "PATH", "SOURCE", ".wav", ".mid", ".svg", ".txt"};
    const bool file = option.valueName == "IN" || std::ranges::any_of(kFiles, names);
    return file ? OptionText::Value::File : OptionText::Value::Other;
}

OptionText describe(const CLI::Option& option) {
    OptionText result;
    result.text = option.get_description();
    result.required = option.get_required();
    for (const std::string& name : option.get_snames()) {
        result.names.push_back("-" + name);
    }
    for (const std::string& name : option.get_lnames()) {
        result.names.push_back("--" + name);
    }
    const std::string typeName = option.get_type_name();
    result.choices = choicesOf(typeName);
    result.valueName = typeName.substr(0, typeName.find(":{"));
    result.mayLackValue = result.valueName.starts_with("[=");
    if (result.mayLackValue) {
        result.valueName = result.valueName.substr(2, result.valueName.size() - 3);
    } else if (option.get_items_expected_max() == 0) {
        result.valueName.clear(); // a flag, whatever the type behind it
    }
    result.value = kindOf(result);
    return result;
}

CommandText describe(const CLI::App& app, const std::string& parent) {
    CommandText result;
    result.path = parent + app.get_name();
    result.text = app.get_description();
    result.footer = app.get_footer();
    for (const CLI::Option* option : app.get_options()) {
        if (option->get_group().empty()) {
            continue;
        }
        OptionText text = describe(*option);
        if (option->get_positional()) {
            OptionText positional = text;
            positional.positional = true;
            positional.names = {option->get_name(true)};
            result.positionals.push_back(positional);
        }
        if (!text.names.empty()) {
            result.options.push_back(std::move(text));
        }
    }
    for (const CLI::App* subcommand : app.get_subcommands({})) {
        if (!subcommand->get_group().empty()) {
            result.subcommands.push_back(describe(*subcommand, result.path + " "));
        }
    }
    return result;
}

} // namespace

CommandText describe(const CLI::App& app) {
    return describe(app, "");
}

} // namespace kelvane::cli
