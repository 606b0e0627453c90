// The command line of the control commands.
#include "cli/bytes.h"
#include "cli/control.h"
#include "cli/options.h"

#include <fmt/format.h>

#include <array>
#include <limits>
#include <memory>

namespace kelvane::cli {
namespace {

// What was typed, read by `parse`; what can't be read is wrong usage.
template <class Parse>
CLI::Option* addParsed(CLI::App& command, const std::string& name, Parse parse,
                       const std::string& text) {
    return command.add_option_function<std::string>(
        name,
        [parse](const std::string& typed) {
            try {
                parse(typed);
            } catch (const client::InputError& error) {
                throw CLI::ValidationError(error.what());
            }
        },
        text);
}

// As many bits as `target` has.
template <class Number>
CLI::Option* addNumber(CLI::App& command, const std::string& name, Number& target,
                       const std::string& text) {
    return addParsed(
        command, name,
        [&target, name](const std::string& typed) {
            constexpr std::uint32_t kMost = std::numeric_limits<Number>::max();
            target = static_cast<Number>(parseNumber(typed, kMost, name));
        },
        text);
}

CLI::Option* addBytes(CLI::App& command, const std::string& name, std::vector<std::byte>& target,
                      const std::string& text) {
    return addParsed(
               command, name,
               [&target, name](const std::string& typed) {
                   target = parseBytes(typed, name);
                   if (target.empty()) {
                       throw client::InputError(name + ": at least one byte is expected");
                   }
               },
               text)
        ->type_name("BYTES");
}

template <class Options>
std::shared_ptr<Options> addControl(CLI::App& app, Action& action, const std::string& name,
                                    const std::string& text, const std::string& example,
                                    int (*run)(const Options&), CLI::App*& command) {
    command = app.add_subcommand(name, text);
    auto options = std::make_shared<Options>();
    options->system.device = kDuplexDevice;
    command->footer("Example:\n  " + example);
    command->callback([&action, options, run] {
        action = [options, run] {
            return run(*options);
        };
    });
    return options;
}

// Behind the options of the command's own.
void addCommonOptions(CLI::App& command, ControlOptions& options) {
    addDeviceOptions(command, options.system, false);
    command.add_flag("--streaming", options.streaming, "Ask while both pins run, with silence");
    addLog(command, options);
    command.add_flag("--json", options.json, "Print JSON");
    addServed(command, options.system);
}

void addValues(CLI::App& app, Action& action) {
    CLI::App* command = nullptr;
    auto rateOptions =
        addControl<RateOptions>(app, action, "rate", "Show the sample rate, or set it",
                                "kelvane rate 96000 --device stereo-out", rate, command);
    command->add_option("rate", rateOptions->rate, "Hz to set")->type_name("HZ");
    addCommonOptions(*command, *rateOptions);

    auto ratesOptions =
        addControl<ControlOptions>(app, action, "rates", "List the sample rates",
                                   "kelvane rates --device large --json", rates, command);
    addCommonOptions(*command, *ratesOptions);

    auto bufferOptions =
        addControl<BufferOptions>(app, action, "buffer", "Show the transfer size, or set it",
                                  "kelvane buffer 5 --streaming", buffer, command);
    command->add_option("frames", bufferOptions->frames, "Bus frames of 1 ms to set")
        ->type_name("FRAMES");
    addCommonOptions(*command, *bufferOptions);

    auto clockOptions =
        addControl<ClockOptions>(app, action, "clock", "Show the clock sources, or select one",
                                 "kelvane clock 1", clock, command);
    command->add_option("index", clockOptions->index, "Clock source to select, counted from 0")
        ->type_name("INDEX");
    addCommonOptions(*command, *clockOptions);

    auto clientsOptions =
        addControl<ControlOptions>(app, action, "clients", "List the processes that play",
                                   "kelvane clients --streaming", clients, command);
    addCommonOptions(*command, *clientsOptions);
}

void addRequest(CLI::App& app, Action& action) {
    CLI::App* command = nullptr;
    auto options = addControl<RequestOptions>(
        app, action, "request", "Send a class request to an entity of the AudioControl interface",
        "kelvane request range 41 1\n  kelvane request cur 41 1 --set '80 bb 00 00'", request,
        command);
    client::AudioRequest& target = options->target;
    addParsed(
        *command, "request",
        [&target](const std::string& typed) {
            target.request =
                typed == "cur" ? client::AudioRequest::kCurrent
                : typed == "range"
                    ? client::AudioRequest::kRange
                    : static_cast<std::uint8_t>(parseNumber(typed, 0xFF, "request (cur, range)"));
        },
        "cur, range, or a number: bRequest")
        ->required()
        ->type_name("REQUEST");
    addNumber(*command, "entity", target.entity, "Entity ID")->required()->type_name("ENTITY");
    addNumber(*command, "selector", target.selector, "Control selector")
        ->required()
        ->type_name("SELECTOR");
    addNumber(*command, "--channel", target.channel, "Channel (default: 0, the master channel)")
        ->type_name("CHANNEL");
    command->add_option("--size", options->valueBytes, "Bytes of one value of the control")
        ->type_name("BYTES")
        ->check(CLI::IsMember({1, 2, 4}))
        ->capture_default_str();
    CLI::Option* const set =
        addBytes(*command, "--set", options->data, "Write these bytes instead of reading");
    command
        ->add_option("--length", options->length,
                     "Bytes to read (default: one value, or 16 ranges of values)")
        ->type_name("BYTES")
        ->check(CLI::Range(1, 0xFFFF))
        ->excludes(set);
    addCommonOptions(*command, *options);
}

void addTransfer(CLI::App& app, Action& action) {
    CLI::App* command = nullptr;
    auto options =
        addControl<TransferOptions>(app, action, "control", "Send any control transfer",
                                    "kelvane control 0x80 6 0x0100 0 --length 18\n"
                                    "  kelvane control 0x21 1 0x0100 0x2900 --data 80bb0000",
                                    control, command);
    client::ControlSetup& setup = options->setup;
    addNumber(*command, "bmRequestType", setup.requestType, "Direction, type and recipient")
        ->required()
        ->type_name("NUMBER");
    addNumber(*command, "bRequest", setup.request, "Request")->required()->type_name("NUMBER");
    addNumber(*command, "wValue", setup.value, "Its value")->required()->type_name("NUMBER");
    addNumber(*command, "wIndex", setup.index, "Its index")->required()->type_name("NUMBER");
    command->add_option("--length", options->length, "Bytes to read")->type_name("BYTES");
    addBytes(*command, "--data", options->data, "Bytes to write");
    addCommonOptions(*command, *options);
}

struct DescriptorName {
    const char* name;
    std::uint8_t type;
};
// USB 2.0, table 9-5; USB 3.2, table 9-6; HID 1.11, 7.1.
constexpr std::array kDescriptorNames = {
    DescriptorName{"device", 1},      DescriptorName{"configuration", 2},
    DescriptorName{"string", 3},      DescriptorName{"device-qualifier", 6},
    DescriptorName{"other-speed", 7}, DescriptorName{"bos", 15},
    DescriptorName{"hid-report", 34},
};

std::uint8_t parseDescriptorType(const std::string& typed) {
    std::string names;
    for (const DescriptorName& known : kDescriptorNames) {
        if (typed == known.name) {
            return known.type;
        }
        names += std::string(known.name) + ", ";
    }
    return static_cast<std::uint8_t>(parseNumber(typed, 0xFF, "type (" + names + "or a number)"));
}

void addDescriptor(CLI::App& app, Action& action) {
    CLI::App* command = nullptr;
    auto options = addControl<DescriptorOptions>(
        app, action, "descriptor", "Read a descriptor, in words",
        "kelvane descriptor configuration\n  kelvane descriptor string 2 0x0409 --json", descriptor,
        command);
    addParsed(
        *command, "type",
        [options](const std::string& typed) { options->type = parseDescriptorType(typed); },
        "device, configuration, string, device-qualifier, other-speed, bos, hid-report, or a "
        "number")
        ->required()
        ->type_name("TYPE");
    addNumber(*command, "index", options->index, "Which of that type (default: 0)")
        ->type_name("INDEX");
    addParsed(
        *command, "language",
        [options](const std::string& typed) {
            options->language = static_cast<std::uint16_t>(parseNumber(typed, 0xFFFF, "language"));
        },
        "Language of a text (default: 0x0409, US English)")
        ->type_name("LANG");
    command->add_flag("--raw", options->raw, "Write the bytes themselves to standard output");
    addCommonOptions(*command, *options);
    command->get_option("--raw")->excludes(command->get_option("--json"));
}

void addStatus(CLI::App& app, Action& action) {
    CLI::App* command = nullptr;
    auto options = addControl<StatusOptions>(
        app, action, "status",
        "Show rate, clocks, transfer size, streams, lateness and feedback at a glance",
        "kelvane status --watch --ppm 80", status, command);
    command->add_flag("--watch", options->watch,
                      "Let both pins run, and print a line for each second until Ctrl-C");
    command
        ->add_option("--seconds", options->seconds,
                     "Watch that long, in the machine's time (default: until Ctrl-C, in wall time)")
        ->type_name("N")
        ->needs("--watch");
    command
        ->add_option("--lock", options->system.lock,
                     "When an external clock has no signal, in seconds: 5..8")
        ->type_name("TIMES");
    addCommonOptions(*command, *options);
}

void addBugReport(CLI::App& app, Action& action) {
    CLI::App* command = nullptr;
    auto options = addControl<BugReportOptions>(
        app, action, "report",
        "Write everything that a bug report needs into one file: descriptors, filter, status, "
        "trace",
        "kelvane report out.txt --device dump.bin", bugReport, command);
    command->add_option("file", options->file, "The text file to write")
        ->required()
        ->type_name("OUT.txt");
    addDeviceOptions(*command, options->system, false);
    addPcap(*command, options->pcap);
    addServed(*command, options->system);
}

} // namespace

void addControlCommands(CLI::App& app, Action& action) {
    addValues(app, action);
    addRequest(app, action);
    addTransfer(app, action);
    addDescriptor(app, action);
    addStatus(app, action);
    addBugReport(app, action);
}

} // namespace kelvane::cli
