#include "cli/export.h"
#include "cli/options.h"

#include <CLI/Config.hpp>
#include <CLI/Formatter.hpp>

#include <memory>

namespace kelvane::cli {

void addExport(CLI::App& app, Action& action) {
    CLI::App* command = app.add_subcommand(
        "export", "Offer an interface over USB/IP, to be plugged into another system");
    auto options = std::make_shared<ExportCommand>();
    client::SystemOptions& system = options->exported.system;
    system.device = kDuplexDevice;
    addSimulatedDevice(*command, system, true);
    command->add_option("--port", options->exported.port, "TCP port; 0 takes any that is free")
        ->type_name("PORT")
        ->check(CLI::Range(0, 65535))
        ->capture_default_str();
    command
        ->add_option("--listen", options->exported.address,
                     "Address to listen at, IPv4 or IPv6; 0.0.0.0 and :: are all that this machine "
                     "has. Whoever reaches it can plug the interface in")
        ->type_name("ADDRESS")
        ->capture_default_str();
    addInput(*command, system);
    addDeviceOutput(*command, system);
    command
        ->add_option("--lock", system.lock,
                     "When external clocks have no signal, in seconds from the plugging in: 5..8, "
                     "0..2,5..")
        ->type_name("SECONDS")
        ->check(readBy(client::checkSchedule));
    addJacks(*command, system.midi);
    addPace(*command, system.midi);
    CLI::Option* input =
        command
            ->add_option("--midi-input", options->midiInput,
                         "What the interface's MIDI inputs hear once they are read: a MIDI file, a "
                         ".syx file, or a text of lines SECONDS PORT HEX...")
            ->type_name("FILE");
    command
        ->add_flag("--midi-loopback", system.midi.loopback,
                   "Each MIDI output plays into the input of its number")
        ->excludes(input);
    command
        ->add_option("--midi-output", options->midiOutput,
                     "Write what the interface's MIDI outputs played to this text file")
        ->type_name("OUT.txt");
    addPcap(*command, options->pcap);
    command->add_flag("--json", options->json, "Print the summary as JSON");
    command->footer("Example:\n  kelvane export duplex --input tone:440 --device-output heard.wav\n"
                    "\nOn a Linux system, as root, in another terminal:\n"
                    "  modprobe vhci-hcd && usbip attach --remote 127.0.0.1 --busid 1-1");
    command->callback([&action, options] {
        action = [options] {
            return exportDevice(*options);
        };
    });
}

} // namespace kelvane::cli
