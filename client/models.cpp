#include "client/client.h"

#include "devices/drift_schedule.h"
#include "devices/error.h"
#include "devices/lock_schedule.h"
#include "devices/models.h"

namespace kelvane::client {
namespace {

// Its texts say what is wrong and what would be right.
template <class Parse>
void check(Parse parse) {
    try {
        parse();
    } catch (const devices::DeviceError& error) {
        throw InputError(error.what());
    }
}

} // namespace

void checkDrift(const std::string& text) {
    check([&] { devices::DriftSchedule::parse(text); });
}

void checkLock(const std::string& text) {
    check([&] { devices::LockSchedule::parse(text); });
}

std::vector<ModelInfo> builtInModels() {
    std::vector<ModelInfo> list;
    for (devices::Model& model : devices::models()) {
        list.push_back({.name = std::move(model.name), .text = std::move(model.text)});
    }
    return list;
}

} // namespace kelvane::client
