// A device's descriptors taken apart, each with its fields and its place, whatever is wrong with
// them. What `parseDevice` refuses is taken apart as far as it can be walked.
#pragma once

#include "devices/descriptor_fields.h"
#include "devices/descriptors.h"

#include <cstddef>
#include <cstdint>
#include <limits>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace kelvane::devices {

struct Descriptor {
    DescriptorView
        view; // its bytes, as far as they are there; offset() counts from the input's start
    DescriptorContext context; // of the interface descriptor in front, or of itself when it is one
    DescriptorFields fields;

    std::size_t offset() const { return view.offset(); }
    std::uint8_t type() const { return view.type(); }
    // Whether it is the class-specific descriptor of that type and subtype, of at least `length`
    // bytes.
    bool is(std::uint8_t wantedType, std::uint8_t subtype, std::size_t length = 3) const;
    bool isWhole() const { return view.length() == view.u8(0); }

    const Field* find(std::string_view field) const; // null when it isn't there
    // The (first) value of a field; nothing when it isn't there.
    std::optional<std::uint32_t> value(std::string_view field) const;
    // Where a value of a field stands in the input; the descriptor itself when it isn't there.
    std::size_t at(std::string_view field, std::size_t index = 0) const;
};

// An interface descriptor and what follows it, up to the next one.
struct DissectedSetting {
    std::uint8_t number = 0;
    std::uint8_t setting = 0;
    std::uint8_t declaredEndpoints = 0;
    const Descriptor* interface = nullptr;
    std::span<const Descriptor> rest;

    const DescriptorContext& context() const { return interface->context; }
    std::size_t offset() const { return interface->offset(); }
};

// An endpoint descriptor, read.
struct DissectedEndpoint : Endpoint {
    const Descriptor* descriptor = nullptr;
};
// In descriptor order; those that are too short are left out.
std::vector<DissectedEndpoint> endpointsOf(const DissectedSetting& setting);
// Those that a host opens: whole ones, no more than the interface descriptor declares.
std::vector<DissectedEndpoint> pipesOf(const DissectedSetting& setting);

struct DissectedConfiguration {
    const Descriptor* header = nullptr;
    std::uint16_t totalLength = 0; // wTotalLength
    std::uint8_t declaredInterfaces = 0;
    std::uint8_t value = 0;
    std::span<const Descriptor> rest; // behind the header
    std::vector<DissectedSetting> settings;

    const DissectedSetting* find(std::uint8_t number, std::uint8_t setting) const;
};

struct Dissection {
    std::vector<std::byte> bytes; // of the whole input; the descriptors are views into it
    std::vector<Descriptor> descriptors;
    std::vector<DissectedConfiguration> configurations;
    std::optional<Finding> end; // where and why the walk could not go on; none: it came to the end

    Dissection() = default;
    Dissection(Dissection&&) = default;
    Dissection& operator=(Dissection&&) = default;
    Dissection(const Dissection&) = delete; // its views would point into the other one
    Dissection& operator=(const Dissection&) = delete;
    ~Dissection() = default;

    bool hasDevice() const { return !descriptors.empty(); }
    // Of the device descriptor. There has to be one.
    std::uint16_t vendor() const { return descriptors.front().view.u16(8); }
    std::uint16_t product() const { return descriptors.front().view.u16(10); }
};

// `bytes` are a device descriptor and the configurations behind it. Never throws for what they are:
// without a whole device descriptor there are no descriptors, and `end` tells why.
Dissection dissect(std::vector<std::byte> bytes);

} // namespace kelvane::devices
