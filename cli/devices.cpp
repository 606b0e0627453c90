#include "cli/commands.h"

#include "cli/terminal.h"
#include "client/real_devices.h"

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include <algorithm>

namespace kelvane::cli {
namespace {

using client::ModelInfo;
using client::RealDevice;
using Json = nlohmann::ordered_json;

Json deviceJson(const RealDevice& device) {
    return {{"usb", device.place},
            {"vendor", fmt::format("{:04x}", device.vendor)},
            {"product", fmt::format("{:04x}", device.product)},
            {"serial", device.serial.empty() ? Json(nullptr) : Json(device.serial)},
            {"name", device.name},
            {"node", device.node},
            {"permitted", device.permitted},
            {"needsAsVendor", device.needsVendor},
            {"needsMidiOnly", device.needsMidiOnly}};
}

std::string deviceText(const RealDevice& device) {
    std::string text = fmt::format("{:<7} {:04x}:{:04x}  {}", device.place, device.vendor,
                                   device.product, device.name);
    if (!device.serial.empty()) {
        text += fmt::format(", serial {}", device.serial);
    }
    if (device.needsVendor) {
        text += "; of another vendor, needs --as-vendor";
    }
    if (device.needsMidiOnly) {
        text += "; has no USB Audio 2.0, needs --midi-only";
    }
    if (!device.permitted) {
        text += fmt::format("; no permission to open {}", device.node);
    }
    return text + '\n';
}

void printJson(const std::vector<ModelInfo>& models, const std::vector<RealDevice>& real) {
    Json list = Json::array();
    for (const ModelInfo& model : models) {
        list.push_back({{"name", model.name}, {"text", model.text}});
    }
    Json devices = Json::array();
    for (const RealDevice& device : real) {
        devices.push_back(deviceJson(device));
    }
    const Json document = {
        {"version", 1}, {"command", "devices"}, {"models", list}, {"usb", devices}};
    fmt::print("{}\n", document.dump(2, ' ', false, Json::error_handler_t::replace));
}

void printText(const std::vector<ModelInfo>& models, const std::vector<RealDevice>& real) {
    std::size_t width = 0;
    for (const ModelInfo& model : models) {
        width = std::max(width, model.name.size());
    }
    for (const ModelInfo& model : models) {
        fmt::print("{:<{}}  {}\n", model.name, width, model.text);
    }
    if (!real.empty()) {
        fmt::print("\nOn the USB of this computer, for --usb:\n");
    }
    for (const RealDevice& device : real) {
        fmt::print("{}", deviceText(device));
    }
}

} // namespace

int devices(bool json) {
    const std::vector<ModelInfo> models = client::builtInModels();
    std::vector<RealDevice> real;
    try {
        real = client::realDevices();
    } catch (const client::InputError& error) {
        printNote(error.what()); // the built-in ones are there in any case
    }
    if (json) {
        printJson(models, real);
    } else {
        printText(models, real);
    }
    flushStandardOutput();
    return 0;
}

} // namespace kelvane::cli
