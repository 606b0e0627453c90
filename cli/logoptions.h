// What a run may leave behind besides its result.
#pragma once

#include <string>

namespace kelvane::cli {

struct LogOptions {
    std::string trace{}; // the driver's: "" for none, "-" for standard error, or a file
    std::string pcap{};  // file of what goes over the bus; may be empty
};

} // namespace kelvane::cli
