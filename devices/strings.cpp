#include "devices/strings.h"

#include "devices/usb_spec.h"

#include <algorithm>

namespace kelvane::devices {

namespace {

constexpr std::size_t kMostCharacters = 126; // bLength is one byte, two of it the header

} // namespace

std::vector<std::byte> stringDescriptor(const StringTable& strings, std::uint8_t index,
                                        std::uint16_t language) {
    std::vector<std::byte> bytes(2);
    const auto append = [&bytes](std::uint16_t unit) {
        bytes.push_back(static_cast<std::byte>(unit & 0xFF));
        bytes.push_back(static_cast<std::byte>(unit >> 8));
    };
    if (index == 0) {
        append(usb::kEnglishUs);
    } else if (language == usb::kEnglishUs || language == 0) {
        const std::string text = strings ? strings(index) : std::string();
        if (text.empty()) {
            return {};
        }
        for (const char character : text.substr(0, kMostCharacters)) {
            append(static_cast<unsigned char>(character));
        }
    } else {
        return {};
    }
    bytes[0] = static_cast<std::byte>(bytes.size());
    bytes[1] = static_cast<std::byte>(usb::kString);
    return bytes;
}

} // namespace kelvane::devices
