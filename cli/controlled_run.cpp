#include "cli/controlled_run.h"

#include "cli/partfile.h"
#include "cli/terminal.h"

namespace kelvane::cli {

ControlJson beginDocument(const std::string& command, const ControlledDevice& device) {
    return {{"version", 1}, {"command", command}, {"device", device.name()}};
}

std::string dumpJson(const ControlJson& json, int indent) {
    return json.dump(indent, ' ', false, ControlJson::error_handler_t::replace);
}

std::unique_ptr<ControlledDevice> openControlled(const ControlOptions& options, RunLog& log) {
    ControlledDeviceOptions device{.system = options.system, .streaming = options.streaming};
    log.record(device.system);
    return startControlledDevice(device);
}

int runControl(const std::string& command, const ControlOptions& options,
               const std::function<ControlResult(ControlledDevice&)>& ask) {
    checkFiles({.read = {options.system.device}, .written = {}, .log = options});
    RunLog log(options);
    ControlResult result;
    ControlJson document;
    {
        const auto device = openControlled(options, log);
        document = beginDocument(command, *device);
        result = ask(*device);
    }
    document.update(result.json);
    fmt::print("{}", options.json ? dumpJson(document) + "\n" : result.text);
    flushStandardOutput();
    log.finish();
    return 0;
}

} // namespace kelvane::cli
