#include "cli/export.h"

#include "cli/finish.h"
#include "cli/interrupt.h"
#include "cli/midimessages.h"
#include "cli/midiscript.h"
#include "cli/partfile.h"
#include "cli/runlog.h"
#include "cli/terminal.h"

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include <chrono>
#include <cstdio>
#include <map>
#include <optional>
#include <thread>

namespace kelvane::cli {
namespace {

void writeHeard(const PartFile& file, const std::vector<client::MidiEvent>& heard) {
    std::map<std::uint32_t, MidiAssembler> assemblers; // by port
    std::string lines;
    std::vector<MidiMessage> messages;
    for (const client::MidiEvent& event : heard) {
        messages.clear();
        assemblers[event.port].take(event.microseconds, event.bytes, messages);
        for (const MidiMessage& message : messages) {
            lines += scriptLine(message.microseconds, event.port, message.bytes);
        }
    }
    for (auto& [port, assembler] : assemblers) {
        messages.clear();
        assembler.finish(messages);
        for (const MidiMessage& message : messages) {
            lines += scriptLine(message.microseconds, port, message.bytes);
        }
    }
    writeScript(file, lines);
}

// Without a stream there is no format to write a file in, and none is written.
std::string heardFile(const ExportCommand& options, const client::DeviceCounters& output) {
    return output.framesPlayed != 0 ? options.exported.system.outputFile : std::string();
}

void printText(const ExportCommand& options, const client::Exporter& exporter) {
    const client::ExportCounters counters = exporter.counters();
    const client::DeviceCounters output = exporter.deviceCounters();
    const client::InputCounters input = exporter.inputCounters();
    fmt::print("clients    connections {}, imports {}, refused {}, cut {}\n", counters.connections,
               counters.imports, counters.refusals, counters.failures);
    fmt::print("transfers  {} ({} bytes)\n", counters.transfers, counters.bytes);
    fmt::print("output     {} sample frames received, {} played, {} underruns, {} overruns\n",
               output.framesReceived, output.framesPlayed, output.underruns, output.overruns);
    fmt::print("input      {} sample frames sent, {} lost\n", input.framesSent, input.framesLost);
    for (const std::string& file : {heardFile(options, output), options.midiOutput}) {
        if (!file.empty()) {
            fmt::print("heard      {}\n", file);
        }
    }
}

void printJson(const ExportCommand& options, const client::Exporter& exporter) {
    const client::ExportCounters counters = exporter.counters();
    const client::DeviceCounters output = exporter.deviceCounters();
    const client::InputCounters input = exporter.inputCounters();
    const auto path = [](const std::string& text) {
        return text.empty() ? nlohmann::ordered_json(nullptr) : nlohmann::ordered_json(text);
    };
    const nlohmann::ordered_json document = {
        {"version", 1},
        {"command", "export"},
        {"device", options.exported.system.device},
        {"address", options.exported.address},
        {"port", exporter.port()},
        {"busId", exporter.busId()},
        {"clients",
         {{"connections", counters.connections},
          {"imports", counters.imports},
          {"refused", counters.refusals},
          {"cut", counters.failures}}},
        {"bus", {{"transfers", counters.transfers}, {"bytes", counters.bytes}}},
        {"output",
         {{"framesReceived", output.framesReceived},
          {"framesPlayed", output.framesPlayed},
          {"underruns", output.underruns},
          {"overruns", output.overruns},
          {"measuredRate", output.measuredRate}}},
        {"input", {{"framesSent", input.framesSent}, {"framesLost", input.framesLost}}},
        {"outputFile", path(heardFile(options, output))},
        {"midiOutputFile", path(options.midiOutput)}};
    fmt::print("{}\n",
               document.dump(2, ' ', false, nlohmann::ordered_json::error_handler_t::replace));
}

} // namespace

int exportDevice(const ExportCommand& options) {
    const client::SystemOptions& system = options.exported.system;
    checkFiles({.read = {system.device, sourceFile(system.input), options.midiInput},
                .written = {system.outputFile, options.midiOutput},
                .log = {.pcap = options.pcap}});
    client::ExportOptions exported = options.exported;
    exported.log = [](const std::string& line) {
        fmt::print(stderr, "{}\n", line);
    };
    if (!options.midiInput.empty()) {
        exported.midi = readMidiScript(options.midiInput, 1);
    }
    std::optional<PartFile> heard;
    if (!options.midiOutput.empty()) {
        heard.emplace(options.midiOutput);
    }
    const Interrupt interrupt;
    RunLog log({.pcap = options.pcap});
    log.record(exported.system);
    client::Exporter exporter(exported);
    fmt::print(stderr, "{} is exported as {} at {} port {}; Ctrl-C ends it\n", system.device,
               exporter.busId(), exported.address, exporter.port());
    constexpr std::chrono::milliseconds kLook{50}; // a signal ends the sleep in any case
    while (Interrupt::signal() == 0) {
        std::this_thread::sleep_for(kLook);
    }
    exporter.finish();
    log.finish();
    if (heard) {
        writeHeard(*heard, exporter.midiHeard());
        heard->keep();
    }
    options.json ? printJson(options, exporter) : printText(options, exporter);
    flushStandardOutput();
    return 0;
}

} // namespace kelvane::cli
