// What a person asked of a simulated device can't be had: the text says what, where and why.
#pragma once

#include <stdexcept>

namespace kelvane::devices {

class DeviceError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

} // namespace kelvane::devices
