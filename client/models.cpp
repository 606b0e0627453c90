#include "client/client.h"
#include "client/inspection.h"

#include "devices/drift_schedule.h"
#include "devices/error.h"
#include "devices/lock_schedule.h"
#include "devices/models.h"

namespace kelvane::client {
void checkDrift(const std::string& text) {
    try {
        devices::DriftSchedule::parse(text);
    } catch (const devices::DeviceError& error) {
        throw InputError(error.what());
    }
}

void checkSchedule(const std::string& text) {
    try {
        devices::LockSchedule::parse(text);
    } catch (const devices::DeviceError& error) {
        throw InputError(error.what());
    }
}

std::vector<ModelInfo> builtInModels() {
    std::vector<ModelInfo> list;
    for (devices::Model& model : devices::models()) {
        list.push_back({.name = std::move(model.name), .text = std::move(model.text)});
    }
    return list;
}

devices::Inspection inspect(const std::string& device, std::optional<std::uint16_t> asVendor) {
    try {
        return devices::inspectDevice(device, asVendor);
    } catch (const devices::DeviceError& error) {
        throw InputError(error.what());
    }
}

} // namespace kelvane::client
