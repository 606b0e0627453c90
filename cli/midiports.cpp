#include "cli/midi_commands.h"
#include "cli/midireport.h"
#include "cli/midisession.h"
#include "cli/terminal.h"

#include <fmt/format.h>
#include <nlohmann/json.hpp>

namespace kelvane::cli {

int midiPorts(const MidiRunOptions& options) {
    checkFiles({.read = {options.system.device}, .written = {}, .log = options});
    RunLog log(options);
    MidiSession session(options, log);
    const auto ports = session.system().midiPorts();
    session.finish();
    if (options.json) {
        nlohmann::ordered_json list = nlohmann::ordered_json::array();
        for (const client::MidiPort& port : ports) {
            list.push_back(midiPortJson(port));
        }
        const nlohmann::ordered_json document = {{"version", 1},
                                                 {"command", "midi ports"},
                                                 {"device", options.system.device},
                                                 {"ports", list}};
        fmt::print("{}\n",
                   document.dump(2, ' ', false, nlohmann::ordered_json::error_handler_t::replace));
    } else if (ports.empty()) {
        fmt::print("{}: no MIDI ports\n", options.system.device);
    } else {
        fmt::print("{}", portsText(ports));
    }
    flushStandardOutput();
    return 0;
}

} // namespace kelvane::cli
