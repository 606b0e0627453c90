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

// What records needs an interface with an input.
constexpr const char* kDuplexDevice = "duplex";

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

// A value that the client can read, or its reason why not.
CLI::Validator readBy(void (*check)(const std::string&)) {
    return {[check](const std::string& text) {
                try {
                    check(text);
                } catch (const client::InputError& error) {
                    return std::string(error.what());
                }
                return std::string();
            },
            ""};
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
        .add_option("--ppm", options.drift,
                    "How far the device's sample clock is off bus time, in parts per million; or "
                    "a swing, as in -300..300/20s")
        ->type_name("PPM")
        ->check(readBy(client::checkDrift));
}

CLI::Option* addTrace(CLI::App& command, std::string& trace) {
    return command.add_flag("--trace{-}", trace,
                            "Show the driver's trace on standard error, or write it to a file: "
                            "--trace=FILE");
}

// What the subcommands that stream have in common.
void addStreamOptions(CLI::App& command, StreamOptions& options) {
    addDeviceOptions(command, options.system, false);
    addTrace(command, options.trace)->type_name("[=FILE]");
    command.add_flag("--json", options.json, "Print the report as JSON");
}

void addRate(CLI::App& command, StreamOptions& options, const char* text) {
    command.add_option("--rate", options.rate, text)->type_name("HZ");
}

void addBuffer(CLI::App& command, StreamOptions& options) {
    command
        .add_option("--buffer", options.transfer,
                    "Transfer size in bus frames of 1 ms (default: the driver's, 10)")
        ->type_name("FRAMES");
}

void addDeviceOutput(CLI::App& command, StreamOptions& options) {
    command
        .add_option("--device-output", options.system.outputFile,
                    "Write what the interface's converter played to this WAV file")
        ->type_name("OUT.wav");
}

void addInput(CLI::App& command, StreamOptions& options) {
    command
        .add_option("--input", options.system.input,
                    "What the interface's input hears: silence, tone:HZ, loopback (its own "
                    "output), an audio file, loop:FILE, or counter")
        ->type_name("SOURCE")
        ->capture_default_str();
}

void addBits(CLI::App& command, std::uint16_t& bits, const char* text) {
    command.add_option("--bits", bits, text)->type_name("BITS")->check(CLI::IsMember({16, 24, 32}));
}

constexpr const char* kAnyFile = "Any file that libsndfile reads: WAV, FLAC, Ogg, ...";
constexpr const char* kPlayRate =
    "Sample rate of the device in Hz; the file is converted when it has another";
constexpr const char* kRecordRate =
    "Sample rate of the device in Hz (default: 48000, or what the device has near it)";
constexpr const char* kRecordBits =
    "Bits of a recorded sample (default: 24, or 16 when the input has no more)";

void addPlay(CLI::App& app, Action& action) {
    CLI::App* command =
        app.add_subcommand("play", "Play an audio file through the driver into an interface");
    auto options = std::make_shared<PlayOptions>();
    command->add_option("file", options->file, kAnyFile)->required()->type_name("FILE");
    addStreamOptions(*command, *options);
    addDeviceOutput(*command, *options);
    addRate(*command, *options, kPlayRate);
    addBuffer(*command, *options);
    command->footer(
        "Example:\n  kelvane play song.wav --rate 96000 --buffer 5 --device-output heard.wav");
    command->callback([&action, options] {
        action = [options] {
            return play(*options);
        };
    });
}

void addRecord(CLI::App& app, Action& action) {
    CLI::App* command =
        app.add_subcommand("record", "Record through the driver what an interface hears");
    auto options = std::make_shared<RecordOptions>();
    options->system.device = kDuplexDevice;
    command->add_option("file", options->file, "The WAV file to write")
        ->required()
        ->type_name("OUT.wav");
    command
        ->add_option("--seconds", options->seconds,
                     "Length of the recording (default: until Ctrl-C, in wall time)")
        ->type_name("N");
    addStreamOptions(*command, *options);
    addInput(*command, *options);
    addBits(*command, options->bits, kRecordBits);
    addRate(*command, *options, kRecordRate);
    addBuffer(*command, *options);
    command->footer("Example:\n  kelvane record tone.wav --seconds 10 --input tone:440 --ppm 150");
    command->callback([&action, options] {
        action = [options] {
            return record(*options);
        };
    });
}

void addDuplex(CLI::App& app, Action& action) {
    CLI::App* command =
        app.add_subcommand("duplex", "Play an audio file and record at the same time");
    auto options = std::make_shared<DuplexOptions>();
    options->system.device = kDuplexDevice;
    command->add_option("file", options->file, kAnyFile)->required()->type_name("IN");
    command->add_option("recording", options->recording, "The WAV file to write")
        ->required()
        ->type_name("OUT.wav");
    addStreamOptions(*command, *options);
    addInput(*command, *options);
    addDeviceOutput(*command, *options);
    addBits(*command, options->bits, kRecordBits);
    addRate(*command, *options, kPlayRate);
    addBuffer(*command, *options);
    command->footer("Example:\n  kelvane duplex song.wav mic.wav --input loopback --ppm -100");
    command->callback([&action, options] {
        action = [options] {
            return duplex(*options);
        };
    });
}

void addLoopback(CLI::App& app, Action& action) {
    CLI::App* command = app.add_subcommand(
        "loopback", "Measure the round trip through output and input, per transfer size");
    auto options = std::make_shared<LoopbackOptions>();
    options->system.device = kDuplexDevice;
    options->system.input = "loopback";
    addStreamOptions(*command, *options);
    addInput(*command, *options);
    addBits(*command, options->bits, "Bits of the samples that travel");
    addRate(*command, *options, kRecordRate);
    command
        ->add_option("--buffer", options->transfers,
                     "Transfer sizes in bus frames of 1 ms (default: a selection)")
        ->type_name("FRAMES,...")
        ->delimiter(',');
    command->add_option("--plot", options->plot, "Draw the chart to this SVG file")
        ->type_name("OUT.svg");
    command->footer("Example:\n  kelvane loopback --buffer 3,5,10 --plot roundtrip.svg");
    command->callback([&action, options] {
        action = [options] {
            return loopback(*options);
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
        "  kelvane record tone.wav --seconds 10 --input tone:440\n"
        "  kelvane duplex song.wav mic.wav                         play and record at once\n"
        "  kelvane loopback --plot roundtrip.svg                   measure the round trip\n"
        "  kelvane devices                                         list the built-in interfaces\n"
        "  kelvane show --dot | dot -Tsvg > filter.svg             draw what the driver publishes\n"
        "\n'kelvane SUBCOMMAND --help' tells more. Exit status: 0 done, 1 failed, 2 wrong usage.");
    Action action;
    addPlay(app, action);
    addRecord(app, action);
    addDuplex(app, action);
    addLoopback(app, action);
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
        printError("a subcommand is expected: play, record, duplex, loopback, show or devices");
        fmt::print(stderr, "Try 'kelvane --help'.\n");
        return kExitUsage;
    }
    return action();
}

} // namespace kelvane::cli
