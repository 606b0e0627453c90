#include "client/device.h"

#include "devices/error.h"
#include "devices/models.h"

namespace kelvane::client {

Device makeDevice(const SystemOptions& options) {
    devices::DeviceOptions deviceOptions;
    deviceOptions.asVendor = options.asVendor;
    deviceOptions.sink = options.sink;
    deviceOptions.outputFile = options.outputFile;
    try {
        deviceOptions.ppm = options.drift.empty() ? devices::DriftSchedule(options.ppm)
                                                  : devices::DriftSchedule::parse(options.drift);
        deviceOptions.lock = devices::LockSchedule::parse(options.lock);
        deviceOptions.source = devices::makeSource(options.input);
        Jacks jacks(options.midi);
        jacks.connect(deviceOptions);
        auto device = devices::makeDevice(options.device, deviceOptions);
        jacks.complete(device->descriptors());
        return {.simulated = std::move(device), .jacks = std::move(jacks)};
    } catch (const devices::DeviceError& error) {
        throw InputError(error.what());
    }
}

void finishDevice(devices::SimulatedInterface& device) {
    try {
        device.finishOutput();
        device.finishInput();
    } catch (const devices::DeviceError& error) {
        throw InputError(error.what());
    }
}

DeviceCounters since(const devices::OutputCounters& before, const devices::OutputCounters& now) {
    devices::OutputCounters played = now;
    played.framesReceived -= before.framesReceived;
    played.framesPlayed -= before.framesPlayed;
    played.playMicroframes -= before.playMicroframes;
    return {.framesReceived = played.framesReceived,
            .framesPlayed = played.framesPlayed,
            .underruns = now.underruns - before.underruns,
            .overruns = now.overruns - before.overruns,
            .measuredRate = played.measuredRate()};
}

InputCounters since(const devices::InputCounters& before, const devices::InputCounters& now) {
    return {.framesSent = now.framesSent - before.framesSent,
            .framesLost = now.framesLost - before.framesLost,
            .framesMuted = now.framesMuted - before.framesMuted};
}

} // namespace kelvane::client
