// The device that the control commands ask and tell: whatever they want of it goes through here, so
// that it may run in this process or in another one.
#pragma once

#include "client/client.h"
#include "client/control.h"

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace kelvane::cli {

// A stream that somebody has open.
struct StreamStatus {
    client::PcmFormat format;
    client::LatencyStatistics latency;
};

struct StreamsStatus {
    double seconds = 0.0; // of the machine's time, since it was made
    std::optional<StreamStatus> output, input;
    std::optional<double> feedbackRate; // Hz, of the output's feedback endpoint
    client::BusCounters bus;
    std::vector<std::string> warnings; // trace lines that tell of trouble
};

class ControlledDevice {
public:
    virtual ~ControlledDevice() = default;

    virtual const std::string& name() const = 0; // as a person gave it
    virtual client::Control& control() = 0;
    virtual client::FilterInfo describe() = 0;
    virtual StreamsStatus streams() = 0;
};

struct ControlledDeviceOptions {
    client::SystemOptions system;
    bool streaming = false; // both pins run, with silence
};

// A machine of its own with the driver and the interface on it, or one that is served. Throws
// InputError and StatusError.
std::unique_ptr<ControlledDevice> startControlledDevice(const ControlledDeviceOptions& options);

} // namespace kelvane::cli
