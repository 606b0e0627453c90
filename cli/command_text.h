// What the command line offers, as plain data: the completions and the manual page are made of it,
// so that neither can name an option that the command doesn't have.
#pragma once

#include <string>
#include <vector>

namespace CLI {
class App;
} // namespace CLI

namespace kelvane::cli {

struct OptionText {
    enum class Value {
        None,
        Other,  // nothing that a shell could complete
        Choice, // one of `choices`
        File,
        Device, // a built-in model, or the file of a descriptor dump
    };
    std::vector<std::string> names; // "--rate"; of a positional its one name, without dashes
    Value value = Value::None;
    bool mayLackValue = false; // "--trace", "--trace=FILE"
    bool positional = false;
    bool required = false;
    std::string valueName; // "HZ"
    std::vector<std::string> choices;
    std::string text;

    bool operator==(const OptionText&) const = default;
};

struct CommandText {
    std::string path; // "kelvane midi send"
    std::string text;
    std::string footer; // examples and notes
    std::vector<OptionText> options;
    std::vector<OptionText> positionals; // in their order
    std::vector<CommandText> subcommands;

    std::string name() const { return path.substr(path.rfind(' ') + 1); }
};

// Hidden subcommands and options are left out.
CommandText describe(const CLI::App& app);

// Scripts of the shells named, to be sourced or installed; they ask nothing of other packages.
std::string bashCompletion(const CommandText& root);
std::string zshCompletion(const CommandText& root);

// A page of section 1, for man(1).
std::string manualPage(const CommandText& root, const std::string& version);

} // namespace kelvane::cli
