#include "cli/command_line.h"

#include "cli/commands.h"
#include "cli/terminal.h"

#include <CLI/App.hpp>
#include <CLI/Config.hpp>
#include <CLI/Formatter.hpp>
#include <fmt/format.h>

#include <charconv>
#include <functional>
#include <memory>

namespace kelvane::cli {
namespace {

// The subcommand that was typed leaves here what is to be run.
using Action = std::function<int()>;

// A vendor ID is four hexadecimal digits, as lsusb prints it, with or without 0x.
std::uint16_t parseVendor(const std::string& text) {
    std::string_view digits = text;
    if (digits.starts_with("0x") || digits.starts_with("0X")) {
        digits.remove_prefix(2);
    }
    std::uint16_t vendor = 0;
    const char* end = digits.data() + digits.size();
    const auto [stop, error] = std::from_chars(digits.data(), end, vendor, 16);
    if (digits.empty() || error != std::errc() || stop != end) {
        throw CLI::ValidationError(
            "--as-vendor", fmt::format("'{}' is no vendor ID; up to four hexadecimal digits, as in "
                                       "20b1, are expected",
                                       text));
    }
    return vendor;
}

// What --device, --as-vendor and --ppm take and mean is the same in every subcommand.
void addDeviceOptions(CLI::App& command, client::SystemOptions& options, bool positional) {
    command
        .add_option(positional ? "device,--device" : "--device", options.device,
                    "Built-in interface (see 'kelvane devices'), or the file of a descriptor dump")
        ->type_name("MODEL|DUMP.bin")
        ->capture_default_str();
    command
        .add_option_function<std::string>(
            "--as-vendor",
            [&options](const std::string& text) { options.asVendor = parseVendor(text); },
            "Present the device under this vendor ID, four hexadecimal digits")
        ->type_name("VID");
    command
        .add_option("--ppm", options.ppm,
                    "How far the device's sample clock is off bus time, in parts per million")
        ->type_name("PPM")
        ->check(CLI::Range(-10'000.0, 10'000.0));
}

CLI::Option* addTrace(CLI::App& command, std::string& trace) {
    return command.add_flag("--trace{-}", trace,
                            "Show the driver's trace on standard error, or write it to a file: "
                            "--trace=FILE");
}

void addPlay(CLI::App& app, Action& action) {
    CLI::App* command =
        app.add_subcommand("play", "Play an audio file through the driver into an interface");
    auto options = std::make_shared<PlayOptions>();
    command
        ->add_option("file", options->file, "Any file that libsndfile reads: WAV, FLAC, Ogg, ...")
        ->required()
        ->type_name("FILE");
    addDeviceOptions(*command, options->system, false);
    command
        ->add_option("--device-output", options->system.outputFile,
                     "Write what the interface's converter played to this WAV file")
        ->type_name("OUT.wav");
    command
        ->add_option("--rate", options->rate,
                     "Sample rate of the device in Hz; the file is converted when it has another")
        ->type_name("HZ");
    command
        ->add_option("--buffer", options->transfer,
                     "Transfer size in bus frames of 1 ms (default: the driver's, 10)")
        ->type_name("FRAMES");
    addTrace(*command, options->trace)->type_name("[=FILE]");
    command->add_flag("--json", options->json, "Print the report as JSON");
    command->footer(
        "Example:\n  kelvane play song.wav --rate 96000 --buffer 5 --device-output heard.wav");
    command->callback([&action, options] {
        action = [options] {
            return play(*options);
        };
    });
}

void addShow(CLI::App& app, Action& action) {
    CLI::App* command = app.add_subcommand(
        "show", "Show what the driver publishes: pins, formats, nodes, clocks, endpoints");
    auto options = std::make_shared<ShowOptions>();
    addDeviceOptions(*command, options->system, true);
    CLI::Option* json = command->add_flag("--json", options->json, "Print JSON");
    command->add_flag("--dot", options->dot, "Print the filter as a Graphviz graph")
        ->excludes(json);
    addTrace(*command, options->trace)->type_name("[=FILE]");
    command->footer("Example:\n  kelvane show dump.bin --as-vendor 20b1");
    command->callback([&action, options] {
        action = [options] {
            return show(*options);
        };
    });
}

void addDevices(CLI::App& app, Action& action) {
    CLI::App* command = app.add_subcommand("devices", "List the built-in simulated interfaces");
    auto json = std::make_shared<bool>(false);
    command->add_flag("--json", *json, "Print JSON");
    command->footer(
        "Example:\n  kelvane devices\n\nA descriptor dump serves as well: a file of the "
        "18-byte device descriptor followed by\nthe whole configuration descriptor.");
    command->callback([&action, json] {
        action = [json] {
            return devices(*json);
        };
    });
}

} // namespace

int parseAndRun(int argc, char** argv) {
    CLI::App app(
        "A driver for high-speed USB Audio Class 2.0 interfaces, run on a simulated machine "
        "and interface.",
        "kelvane");
    app.set_version_flag("--version", "kelvane " KELVANE_VERSION);
    app.require_subcommand(0, 1);
    app.footer(
        "Examples:\n"
        "  kelvane play song.wav                                   play into the simulated "
        "interface\n"
        "  kelvane play song.flac --rate 96000 --device-output heard.wav\n"
        "  kelvane devices                                         list the built-in interfaces\n"
        "  kelvane show --dot | dot -Tsvg > filter.svg             draw what the driver publishes\n"
        "\n'kelvane SUBCOMMAND --help' tells more. Exit status: 0 done, 1 failed, 2 wrong usage.");
    Action action;
    addPlay(app, action);
    addShow(app, action);
    addDevices(app, action);
    try {
        app.parse(argc, argv);
    } catch (const CLI::Success& help) {
        return app.exit(help); // --help, --version
    } catch (const CLI::ParseError& error) {
        const auto chosen = app.get_subcommands();
        printError(error.what());
        fmt::print(stderr, "Try 'kelvane {}--help'.\n",
                   chosen.empty() ? "" : chosen.front()->get_name() + " ");
        return kExitUsage;
    }
    if (!action) {
        printError("a subcommand is expected: play, show or devices");
        fmt::print(stderr, "Try 'kelvane --help'.\n");
        return kExitUsage;
    }
    return action();
}

} // namespace kelvane::cli
