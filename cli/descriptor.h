// Descriptors in words.
#pragma once

#include "client/control.h"
#include "client/descriptor_fields.h"

#include <cstddef>
#include <functional>
#include <span>
#include <string>

namespace kelvane::cli {

// The text of a string index; empty when there is none.
using StringReader = std::function<std::string(std::uint32_t)>;
// Asks the interface, in US English. A string that it doesn't have is empty.
StringReader readStringsOf(client::Control& control);

// Lines that end in a newline. Without fields: what is cut off, or of no standard.
std::string descriptorText(std::span<const std::byte> bytes, const StringReader& strings,
                           bool colour);

// What the value of a field means, where that is more than a number: "endpoint 1, in".
// Empty otherwise.
std::string fieldMeaning(const client::DecodedDescriptor& descriptor,
                         const client::DescriptorField& field);

// The text of a string descriptor.
std::string stringOf(std::span<const std::byte> descriptor);

} // namespace kelvane::cli
