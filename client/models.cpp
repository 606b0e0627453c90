#include "client/client.h"

#include "devices/drift_schedule.h"
#include "devices/error.h"
#include "devices/models.h"

namespace kelvane::client {
void checkDrift(const std::string& text) {
    try {
        devices::DriftSchedule::parse(text);
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

} // namespace kelvane::client
