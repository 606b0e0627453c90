// The commands that ask and tell the driver, as a control panel does. Each returns the exit status
// and throws client::InputError and client::StatusError.
#pragma once

#include "cli/logoptions.h"
#include "client/client.h"
#include "client/control.h"

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace kelvane::cli {

// What they have in common.
struct ControlOptions : LogOptions {
    client::SystemOptions system;
    bool json = false;
    bool streaming = false; // while both pins run
};

// `kelvane rate`: shows the sample rate, or sets it.
struct RateOptions : ControlOptions {
    std::optional<std::uint32_t> rate; // Hz
};
int rate(const RateOptions& options);

// `kelvane rates`
int rates(const ControlOptions& options);

// `kelvane buffer`: shows the transfer size, or sets it.
struct BufferOptions : ControlOptions {
    std::optional<std::int64_t> frames; // 1 ms bus frames
};
int buffer(const BufferOptions& options);

// `kelvane clock`: shows the clock sources, or selects one.
struct ClockOptions : ControlOptions {
    std::optional<std::uint32_t> index;
};
int clock(const ClockOptions& options);

// `kelvane clients`
int clients(const ControlOptions& options);

// `kelvane request`: a class request to an entity.
struct RequestOptions : ControlOptions {
    client::AudioRequest target;
    std::uint32_t valueBytes = 4;        // of one value of the control: 1, 2, 4
    std::optional<std::uint16_t> length; // bytes to read; none: what `valueBytes` says
    std::vector<std::byte> data;         // to set; empty: read
};
int request(const RequestOptions& options);

// `kelvane control`: any control transfer.
struct TransferOptions : ControlOptions {
    client::ControlSetup setup;
    std::uint16_t length = 0;    // to read
    std::vector<std::byte> data; // to write
};
int control(const TransferOptions& options);

// `kelvane descriptor`
struct DescriptorOptions : ControlOptions {
    std::uint8_t type = 0; // USB 2.0, table 9-5
    std::uint8_t index = 0;
    std::optional<std::uint16_t> language; // none: US English for texts, 0 otherwise
    bool raw = false;
};
int descriptor(const DescriptorOptions& options);

// `kelvane status`
struct StatusOptions : ControlOptions {
    bool watch = false;            // a line each second until Ctrl-C
    std::optional<double> seconds; // of the machine's time; none: until Ctrl-C, in wall time
};
int status(const StatusOptions& options);

// `kelvane report`: everything that a bug report needs, in one file.
struct BugReportOptions : ControlOptions {
    std::string file;
};
int bugReport(const BugReportOptions& options);

} // namespace kelvane::cli
