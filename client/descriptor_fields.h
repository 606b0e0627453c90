// Descriptors taken apart into the fields that the standards name. No kernel type appears here.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <vector>

namespace kelvane::client {

struct DescriptorField {
    std::string name;       // "bEndpointAddress"
    std::size_t offset = 0; // in its descriptor
    std::uint8_t size = 1;  // bytes of each value
    bool isList = false;
    std::vector<std::uint32_t> values; // one, unless it is a list
};

struct DecodedDescriptor {
    std::size_t offset = 0; // of the bytes that were given
    std::string name;       // "ENDPOINT", "CLOCK_SOURCE"; "unknown"
    std::span<const std::byte> bytes;
    std::vector<DescriptorField> fields;
};

// One descriptor, or a configuration with all that follows it; the results point into `bytes`. Ends
// where a descriptor is cut off or has no length.
std::vector<DecodedDescriptor> decodeDescriptors(std::span<const std::byte> bytes);

} // namespace kelvane::client
