#include "cli/midi_commands.h"
#include "cli/options.h"

#include <CLI/Config.hpp>
#include <CLI/Formatter.hpp>

#include <memory>

namespace kelvane::cli {
namespace {

constexpr const char* kMidiDevice = "midi";

// The interface, its MIDI ports, and what all subcommands take.
void addMidiOptions(CLI::App& command, MidiRunOptions& options) {
    options.system.device = kMidiDevice;
    addDeviceOptions(command, options.system, false);
    addJacks(command, options.system.midi);
    addLog(command, options);
    command.add_flag("--json", options.json, "Print JSON");
}

template <class Options>
void addSendOptions(CLI::App& command, Options& options) {
    addMidiOptions(command, options);
    addPace(command, options.system.midi);
    command
        .add_option("--device-output", options.deviceOutput,
                    "Write what the interface's MIDI output played to this text file")
        ->type_name("OUT.txt");
}

template <class Options>
void setAction(CLI::App& command, Action& action, const std::shared_ptr<Options>& options,
               int (*run)(const Options&)) {
    command.callback([&action, options, run] {
        action = [options, run] {
            return run(*options);
        };
    });
}

constexpr const char* kPortText = "Number or name of the port, see 'kelvane midi ports'";

void addPorts(CLI::App& midi, Action& action) {
    CLI::App* command =
        midi.add_subcommand("ports", "List the MIDI ports that the driver publishes");
    auto options = std::make_shared<MidiRunOptions>();
    addMidiOptions(*command, *options);
    command->footer("Example:\n  kelvane midi ports --device duplex-midi");
    setAction(*command, action, options, midiPorts);
}

void addSend(CLI::App& midi, Action& action) {
    CLI::App* command = midi.add_subcommand("send", "Send bytes, or a file of system exclusives");
    auto options = std::make_shared<MidiSendOptions>();
    command->add_option("port", options->port, kPortText)->required()->type_name("PORT");
    command->add_option("bytes", options->words, "Hexadecimal bytes, or one .syx file")
        ->required()
        ->type_name("HEX...|FILE.syx");
    addSendOptions(*command, *options);
    command->footer("Example:\n  kelvane midi send 1 90 3C 7F");
    setAction(*command, action, options, midiSend);
}

void addPlay(CLI::App& midi, Action& action) {
    CLI::App* command = midi.add_subcommand("play", "Play a standard MIDI file");
    auto options = std::make_shared<MidiPlayOptions>();
    command->add_option("port", options->port, kPortText)->required()->type_name("PORT");
    command->add_option("file", options->file, "A standard MIDI file of format 0 or 1")
        ->required()
        ->type_name("FILE.mid");
    addSendOptions(*command, *options);
    command->footer("Example:\n  kelvane midi play 1 song.mid --device-output heard.txt");
    setAction(*command, action, options, midiPlay);
}

void addDump(CLI::App& midi, Action& action) {
    CLI::App* command = midi.add_subcommand("dump", "Show what comes in, message by message");
    auto options = std::make_shared<MidiDumpOptions>();
    command
        ->add_option("port", options->port,
                     "Number or name of the port (default: all inputs, see 'kelvane midi ports')")
        ->type_name("PORT");
    command
        ->add_option("--seconds", options->seconds,
                     "How long to listen (default: as long as --input lasts, or else until Ctrl-C, "
                     "in wall time)")
        ->type_name("N");
    command
        ->add_option("--input", options->input,
                     "What the interface's inputs hear: a MIDI file, a .syx file, or a text of "
                     "lines SECONDS PORT HEX...")
        ->type_name("FILE");
    addMidiOptions(*command, *options);
    command->footer("Example:\n  kelvane midi dump 1 --input song.mid");
    setAction(*command, action, options, midiDump);
}

void addMidiLoopback(CLI::App& midi, Action& action) {
    CLI::App* command = midi.add_subcommand(
        "loopback", "Send through all outputs at once and check what the inputs hear of it");
    auto options = std::make_shared<MidiLoopbackOptions>();
    command->add_option("--messages", options->messages, "Messages per output")
        ->type_name("N")
        ->capture_default_str();
    addMidiOptions(*command, *options);
    options->system.midi.loopback = true;
    addPace(*command, options->system.midi);
    command->footer("Example:\n  kelvane midi loopback --inputs 8 --outputs 8 --packet 64");
    setAction(*command, action, options, midiLoopback);
}

} // namespace

void addJacks(CLI::App& command, client::MidiOptions& midi) {
    command
        .add_option("--inputs", midi.inputs,
                    "MIDI inputs of a built-in interface, 0 to 16, instead of its own")
        ->type_name("N");
    command.add_option("--outputs", midi.outputs, "MIDI outputs, likewise")->type_name("N");
    command
        .add_option("--packet", midi.packetBytes,
                    "Bytes in a packet of a built-in interface's bulk endpoints: 8 to 64, or 512")
        ->type_name("BYTES");
}

void addPace(CLI::App& command, client::MidiOptions& midi) {
    command
        .add_option(
            "--pace", midi.bytesPerSecond,
            "MIDI bytes per second that each of the interface's outputs takes; a MIDI cable "
            "has 3125 (default: as they come)")
        ->type_name("BYTES");
    command
        .add_option("--stuck", midi.stuck,
                    "When the interface takes no output, in seconds of its time: 2..8, 0..2,5..")
        ->type_name("SECONDS")
        ->check(readBy(client::checkSchedule));
}

void addMidi(CLI::App& app, Action& action) {
    CLI::App* midi = app.add_subcommand(
        "midi", "List the MIDI ports, send, play a MIDI file, show what comes in");
    midi->require_subcommand(0, 1);
    midi->callback([midi] {
        if (midi->get_subcommands().empty()) {
            throw CLI::ValidationError(
                "midi", "a subcommand is expected: ports, send, play, dump or loopback");
        }
    });
    midi->footer("Examples:\n"
                 "  kelvane midi ports\n"
                 "  kelvane midi send 1 90 3C 7F\n"
                 "  kelvane midi play 1 song.mid\n"
                 "  kelvane midi dump --input song.mid\n"
                 "  kelvane midi loopback\n"
                 "\n'kelvane midi SUBCOMMAND --help' tells more.");
    addPorts(*midi, action);
    addSend(*midi, action);
    addPlay(*midi, action);
    addDump(*midi, action);
    addMidiLoopback(*midi, action);
}

} // namespace kelvane::cli
