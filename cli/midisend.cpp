#include "cli/midi_commands.h"

#include "cli/midifile.h"
#include "cli/midireport.h"
#include "cli/midiscript.h"
#include "cli/midisender.h"
#include "cli/midisession.h"
#include "cli/progress.h"
#include "cli/terminal.h"

#include <fmt/format.h>

#include <filesystem>
#include <functional>
#include <optional>

namespace kelvane::cli {
namespace {

// One word that names a file is that file; all else is bytes.
bool namesFile(const std::vector<std::string>& words) {
    std::error_code ignored;
    return words.size() == 1 && (hasEnding(words.front(), ".syx") ||
                                 std::filesystem::is_regular_file(words.front(), ignored));
}

template <class Options>
RunFiles midiFiles(const Options& options, const std::string& input) {
    return {
        .read = {options.system.device, input}, .written = {options.deviceOutput}, .log = options};
}

// Opens the port, lets `run` send, and tells what came of it.
template <class Options>
int sendThrough(const Options& options, MidiSendReport report,
                const std::function<void(MidiSender&, const RunLog&)>& run) {
    std::optional<PartFile> part;
    if (!options.deviceOutput.empty()) {
        part.emplace(options.deviceOutput);
    }
    RunLog log(options);
    MidiSession session(options, log);
    report.device = session.device();
    report.port = session.port(options.port, false);
    report.outputFile = options.deviceOutput;
    bool arrived = false;
    {
        MidiSender sender(session, report.port);
        run(sender, log);
        if (Interrupt::signal() != 0) {
            sender.silence();
        }
        sender.conclude(report);
        arrived = sender.arrived();
        if (part) {
            sender.write(*part);
        }
    }
    session.finish();
    if (part) {
        part->keep();
    }
    fmt::print("{}{}", options.json ? reportJson(report) : reportText(report),
               options.json ? "\n" : "");
    flushStandardOutput();
    return exitStatus(arrived ? 0 : kMidiLost);
}

std::string minutes(double seconds) {
    const unsigned whole = static_cast<unsigned>(seconds) / 60;
    return fmt::format("{}:{:04.1f}", whole, seconds - 60.0 * whole);
}

std::string summaryOf(const MidiFile& file) {
    std::string text =
        fmt::format("MIDI file of format {}, {} track{}, {} event{}, {}", file.format, file.tracks,
                    file.tracks == 1 ? "" : "s", file.events.size(),
                    file.events.size() == 1 ? "" : "s", minutes(file.seconds));
    if (file.slowest > 0) {
        text +=
            file.slowest == file.fastest
                ? fmt::format(", {:.5g} beats per minute", file.slowest)
                : fmt::format(", {:.5g} to {:.5g} beats per minute", file.slowest, file.fastest);
    }
    return text;
}

} // namespace

int midiSend(const MidiSendOptions& options) {
    const std::string file = namesFile(options.words) ? options.words.front() : std::string();
    checkFiles(midiFiles(options, file));
    const std::vector<std::byte> bytes =
        file.empty() ? parseHex(options.words) : readSysexFile(file);
    MidiSendReport report;
    report.command = "midi send";
    report.file = file;
    return sendThrough(options, report, [&](MidiSender& sender, const RunLog&) {
        sender.send(bytes, static_cast<std::uint64_t>(sender.seconds() * 1e6));
    });
}

int midiPlay(const MidiPlayOptions& options) {
    checkFiles(midiFiles(options, options.file));
    const MidiFile file = readMidiFile(options.file);
    if (file.events.empty()) {
        throw client::InputError(fmt::format("{}: nothing to play: its {} event{} only for the "
                                             "reader of the file",
                                             options.file, file.metaEvents,
                                             file.metaEvents == 1 ? " is" : "s are"));
    }
    MidiSendReport report;
    report.command = "midi play";
    report.file = options.file;
    report.summary = summaryOf(file);
    return sendThrough(options, report, [&](MidiSender& sender, const RunLog& log) {
        Progress progress(file.seconds, !log.isOnTerminal());
        // What is due at one time is one event for the driver, which sends it in one transfer.
        for (std::size_t next = 0; next < file.events.size() && Interrupt::signal() == 0;) {
            const std::uint64_t time = file.events[next].microseconds;
            std::vector<std::byte> bytes;
            for (; next < file.events.size() && file.events[next].microseconds == time; ++next) {
                const auto& more = file.events[next].bytes;
                bytes.insert(bytes.end(), more.begin(), more.end());
            }
            const double due = static_cast<double>(time) * 1e-6;
            sender.waitUntil(due);
            progress.update(due);
            sender.send(bytes, time);
        }
    });
}

} // namespace kelvane::cli
