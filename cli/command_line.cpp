#include "cli/command_line.h"

#include "cli/command_text.h"
#include "cli/commands.h"
#include "cli/interrupt.h"
#include "cli/options.h"
#include "cli/serve.h"
#include "cli/terminal.h"
#include "client/real_devices.h"
#include "client/server.h"

#include <CLI/Config.hpp>
#include <CLI/Formatter.hpp>
#include <fmt/format.h>

#include <algorithm>
#include <charconv>
#include <functional>
#include <memory>
#include <optional>
#include <vector>

namespace kelvane::cli {
namespace {

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

void addVendor(CLI::App& command, std::optional<std::uint16_t>& vendor) {
    command
        .add_option_function<std::string>(
            "--as-vendor", [&vendor](const std::string& text) { vendor = parseVendor(text); },
            "Present the device under this vendor ID, four hexadecimal digits")
        ->type_name("VID");
}

void addMidiOnly(CLI::App& command, bool& midiOnly) {
    command.add_flag("--midi-only", midiOnly,
                     "With --usb: the MIDI ports of a device that has no USB Audio 2.0, such as a "
                     "keyboard");
}

// `take` gets the name of a real device.
void addUsb(CLI::App& command, const std::function<void(const std::string&)>& take) {
    command
        .add_option_function<std::string>(
            "--usb", take,
            "A real interface of this computer in place of a simulated one, by its vendor and "
            "product ID or its bus and address; see 'kelvane devices'")
        ->type_name("VID:PID[:SERIAL]|BUS-ADDRESS")
        ->check(readBy(client::checkUsbName));
}

} // namespace

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

void addSimulatedDevice(CLI::App& command, client::SystemOptions& options, bool positional) {
    command
        .add_option(positional ? "device,--device" : "--device", options.device,
                    "Built-in interface (see 'kelvane devices'), or the file of a descriptor dump")
        ->type_name("MODEL|DUMP.bin")
        ->capture_default_str();
    addVendor(command, options.asVendor);
    command
        .add_option("--ppm", options.drift,
                    "How far the device's sample clock is off bus time, in parts per million; or "
                    "a swing, as in -300..300/20s")
        ->type_name("PPM")
        ->check(readBy(client::checkDrift));
}

void addDeviceOptions(CLI::App& command, client::SystemOptions& options, bool positional) {
    addSimulatedDevice(command, options, positional);
    addUsb(command, [&options](const std::string& name) {
        options.device = name;
        options.usb = true;
        options.note = printNote;
    });
    addMidiOnly(command, options.midiOnly);
    command
        .add_option("--driver", options.driver,
                    "Run this image of the driver, a kelvane.sys, in place of the driver that is "
                    "built in (default: what KELVANE_DRIVER in the environment names)")
        ->type_name("PATH");
}

bool namesRealDevice(const CLI::App& command) {
    const CLI::Option* usb = command.get_option_no_throw("--usb");
    return usb != nullptr && !usb->empty();
}

// Whether a subcommand that was typed, however deep, runs on one.
bool usesRealDevice(const CLI::App& app) {
    return std::ranges::any_of(app.get_subcommands(), [](const CLI::App* command) {
        return namesRealDevice(*command) || usesRealDevice(*command);
    });
}

// What only a simulated interface can be told goes with none that is real.
void refuseSimulatedOptions(const CLI::App& app) {
    for (const CLI::App* command : app.get_subcommands()) {
        refuseSimulatedOptions(*command);
        if (!namesRealDevice(*command)) {
            continue;
        }
        for (const char* name : {"--device", "--ppm", "--lock", "--input", "--device-output",
                                 "--inputs", "--outputs", "--packet", "--pace", "--stuck"}) {
            const CLI::Option* option = command->get_option_no_throw(name);
            if (option != nullptr && !option->empty()) {
                throw CLI::ValidationError(
                    name, std::string(option == command->get_option_no_throw("--device")
                                          ? "goes without --usb, which names an interface, too"
                                          : "is for a simulated interface; it goes without --usb"));
            }
        }
    }
}

// And what only a real one can be told goes with none that is simulated.
void refuseRealOptions(const CLI::App& app) {
    for (const CLI::App* command : app.get_subcommands()) {
        refuseRealOptions(*command);
        const CLI::Option* midiOnly = command->get_option_no_throw("--midi-only");
        if (midiOnly != nullptr && !midiOnly->empty() && !namesRealDevice(*command)) {
            throw CLI::ValidationError("--midi-only",
                                       "is for a real device; it goes with --usb, which names one");
        }
    }
}

void addServed(CLI::App& command, client::SystemOptions& options) {
    auto* socket = command.add_option("--socket", options.socket,
                                      "Use the device that 'kelvane serve' runs behind this socket "
                                      "(default: the one in XDG_RUNTIME_DIR, if there is one)");
    socket->type_name("PATH");
    std::vector<CLI::Option*> own;
    for (const char* name : {"--device", "--usb", "--as-vendor", "--midi-only", "--ppm", "--driver",
                             "--input", "--lock", "--device-output", "--trace", "--pcap"}) {
        if (CLI::Option* option = command.get_option_no_throw(name)) {
            socket->excludes(option);
            own.push_back(option);
        }
    }
    if (CLI::App* app = command.get_parent()) { // where it may stand as well
        if (CLI::Option* option = app->get_option_no_throw("--driver")) {
            own.push_back(option);
        }
    }
    command.parse_complete_callback([&options, socket, own] {
        const auto given = [](const CLI::Option* option) {
            return option->count() != 0;
        };
        const std::string usual = client::defaultServerSocket();
        if (!given(socket) && std::none_of(own.begin(), own.end(), given) && !usual.empty() &&
            client::isServed(usual)) {
            options.socket = usual;
        }
    });
}

// To the subcommands that were typed, however deep.
void giveDriver(const CLI::App& app, const std::string& path) {
    for (CLI::App* command : app.get_subcommands()) {
        CLI::Option* option = command->get_option_no_throw("--driver");
        if (option != nullptr && option->empty()) {
            option->add_result(path);
        }
        giveDriver(*command, path);
    }
}

// Before the subcommand it is the same option as behind it.
void addCommonDriver(CLI::App& app) {
    app.add_option_function<std::string>(
           "--driver", [&app](const std::string& path) { giveDriver(app, path); },
           "Run this image of the driver, a kelvane.sys, in any subcommand")
        ->type_name("PATH");
}

void addDeviceOutput(CLI::App& command, client::SystemOptions& options) {
    command
        .add_option("--device-output", options.outputFile,
                    "Write what the interface's converter played to this WAV file")
        ->type_name("OUT.wav");
}

void addInput(CLI::App& command, client::SystemOptions& options) {
    command
        .add_option("--input", options.input,
                    "What the interface's input hears: silence, tone:HZ, loopback (its own "
                    "output), an audio file, loop:FILE, or counter")
        ->type_name("SOURCE")
        ->capture_default_str();
}

void addPcap(CLI::App& command, std::string& pcap) {
    command
        .add_option("--pcap", pcap,
                    "Write what goes over the bus to this file, for Wireshark or tshark")
        ->type_name("OUT.pcap");
}

void addLog(CLI::App& command, LogOptions& options) {
    command
        .add_flag("--trace{-}", options.trace,
                  "Show the driver's trace on standard error, or write it to a file: "
                  "--trace=FILE")
        ->type_name("[=FILE]");
    addPcap(command, options.pcap);
}

namespace {

// What the subcommands that stream have in common.
void addStreamOptions(CLI::App& command, StreamOptions& options) {
    addDeviceOptions(command, options.system, false);
    addLog(command, options);
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
    addDeviceOutput(*command, options->system);
    addRate(*command, *options, kPlayRate);
    addBuffer(*command, *options);
    addServed(*command, options->system);
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
    addInput(*command, options->system);
    addBits(*command, options->bits, kRecordBits);
    addRate(*command, *options, kRecordRate);
    addBuffer(*command, *options);
    addServed(*command, options->system);
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
    addInput(*command, options->system);
    addDeviceOutput(*command, options->system);
    addBits(*command, options->bits, kRecordBits);
    addRate(*command, *options, kPlayRate);
    addBuffer(*command, *options);
    addServed(*command, options->system);
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
    addInput(*command, options->system);
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
    addLog(*command, *options);
    addServed(*command, options->system);
    command->footer("Example:\n  kelvane show dump.bin --as-vendor 20b1");
    command->callback([&action, options] {
        action = [options] {
            return show(*options);
        };
    });
}

void addInspect(CLI::App& app, Action& action) {
    CLI::App* command = app.add_subcommand(
        "inspect", "Say what the driver will make of an interface, and what is wrong with its "
                   "descriptors");
    auto options = std::make_shared<InspectOptions>();
    command
        ->add_option("device,--device", options->device,
                     "The file of a descriptor dump, or a built-in interface")
        ->type_name("DUMP.bin|MODEL");
    addUsb(*command, [options = options.get()](const std::string& name) {
        options->device = name;
        options->usb = true;
    });
    addVendor(*command, options->asVendor);
    addMidiOnly(*command, options->midiOnly);
    command->add_flag("--json", options->json, "Print JSON, with every descriptor by its fields");
    command->add_flag("--check", options->check,
                      "Exit with 1 when the driver refuses it or there are errors");
    command->footer("Example:\n  kelvane inspect dump.bin --as-vendor 20b1");
    command->callback([&action, options] {
        if (options->device.empty()) {
            throw CLI::RequiredError("device");
        }
        action = [options] {
            return inspect(*options);
        };
    });
}

void addDevices(CLI::App& app, Action& action) {
    CLI::App* command = app.add_subcommand(
        "devices", "List the built-in simulated interfaces, and the real ones of this "
                   "computer");
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

void addServe(CLI::App& app, Action& action) {
    CLI::App* command = app.add_subcommand(
        "serve", "Keep an interface and its driver running, for the commands of other terminals");
    auto options = std::make_shared<ServeOptions>();
    options->system.device = kDuplexDevice;
    addStreamOptions(*command, *options);
    addInput(*command, options->system);
    addDeviceOutput(*command, options->system);
    addBuffer(*command, *options);
    command
        ->add_option("--lock", options->system.lock,
                     "When an external clock has no signal, in seconds: 5..8")
        ->type_name("TIMES");
    command
        ->add_option("--socket", options->socket,
                     "The socket to listen on (default: kelvane.socket in XDG_RUNTIME_DIR)")
        ->type_name("PATH");
    command->footer("Example, in two terminals:\n  kelvane serve --ppm 120\n"
                    "  kelvane play song.wav & kelvane status --watch");
    command->callback([&action, options] {
        action = [options] {
            return serve(*options);
        };
    });
}

// What is printed of the command line itself: scripts to install, and the manual page.
void addTexts(CLI::App& app, Action& action) {
    CLI::App* command = app.add_subcommand("completion", "Print the completion script of a shell");
    auto shell = std::make_shared<std::string>();
    command->add_option("shell", *shell, "The shell")
        ->required()
        ->type_name("SHELL")
        ->check(CLI::IsMember({"bash", "zsh"}));
    command->footer("Example:\n  source <(kelvane completion bash)");
    command->callback([&app, &action, shell] {
        action = [&app, shell] {
            const CommandText text = describe(app);
            fmt::print("{}", *shell == "bash" ? bashCompletion(text) : zshCompletion(text));
            return 0;
        };
    });
    CLI::App* manual = app.add_subcommand("manual", "Print the manual page")->group("");
    manual->callback([&app, &action] {
        action = [&app] {
            fmt::print("{}", manualPage(describe(app), KELVANE_VERSION));
            return 0;
        };
    });
}

// "midi send" of the subcommand of a subcommand.
std::string typedName(const CLI::App& command) {
    const auto inner = command.get_subcommands();
    return command.get_name() + (inner.empty() ? "" : " " + typedName(*inner.front()));
}

constexpr const char* kExamples =
    "Examples:\n"
    "  kelvane play song.wav                                   play into the simulated "
    "interface\n"
    "  kelvane play song.flac --rate 96000 --device-output heard.wav\n"
    "  kelvane record tone.wav --seconds 10 --input tone:440\n"
    "  kelvane duplex song.wav mic.wav                         play and record at once\n"
    "  kelvane loopback --plot roundtrip.svg                   measure the round trip\n"
    "  kelvane midi play 1 song.mid                            play a MIDI file\n"
    "  kelvane devices                                         list the built-in interfaces\n"
    "  kelvane show --dot | dot -Tsvg > filter.svg             draw what the driver publishes\n"
    "  kelvane rates --device large                            ask a device for its rates\n"
    "  kelvane request cur 41 1                                read a control of an entity\n"
    "  kelvane inspect dump.bin                                what is wrong with descriptors\n"
    "  kelvane export duplex                                   plug it into another system\n"
    "  kelvane serve                                           keep one running for the "
    "others\n"
    "\n'kelvane SUBCOMMAND --help' tells more. Exit status: 0 done, 1 failed, 2 wrong usage.";

} // namespace

int parseAndRun(int argc, char** argv) {
    CLI::App app(
        "A driver for high-speed USB Audio Class 2.0 interfaces, run on a simulated machine "
        "and interface.",
        "kelvane");
    app.set_version_flag("--version", "kelvane " KELVANE_VERSION);
    app.require_subcommand(0, 1);
    app.footer(kExamples);
    Action action;
    addCommonDriver(app);
    addPlay(app, action);
    addRecord(app, action);
    addDuplex(app, action);
    addLoopback(app, action);
    addShow(app, action);
    addInspect(app, action);
    addDevices(app, action);
    addServe(app, action);
    addControlCommands(app, action);
    addMidi(app, action);
    addExport(app, action);
    addTexts(app, action);
    try {
        app.parse(argc, argv);
        refuseSimulatedOptions(app);
        refuseRealOptions(app);
    } catch (const CLI::Success& help) {
        return app.exit(help); // --help, --version
    } catch (const CLI::ParseError& error) {
        const auto chosen = app.get_subcommands();
        printError(error.what());
        fmt::print(stderr, "Try 'kelvane {}--help'.\n",
                   chosen.empty() ? "" : typedName(*chosen.front()) + " ");
        return kExitUsage;
    }
    if (!action) {
        std::string names;
        for (const CLI::App* command : app.get_subcommands({})) {
            names += (names.empty() ? "" : ", ") + command->get_name();
        }
        printError("a subcommand is expected: " + names);
        fmt::print(stderr, "Try 'kelvane --help'.\n");
        return kExitUsage;
    }
    // A real device goes back to the kernel's driver, Ctrl-C or not.
    std::optional<Interrupt> interrupt;
    if (usesRealDevice(app)) {
        interrupt.emplace();
    }
    return action();
}

} // namespace kelvane::cli
