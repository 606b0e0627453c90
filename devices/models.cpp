#include "devices/models.h"

#include "devices/dump.h"
#include "devices/error.h"
#include "devices/model_descriptors.h"
#include "devices/wav_sink.h"

#include <fmt/format.h>

#include <filesystem>
#include <utility>

namespace kelvane::devices {

namespace {

const BuiltInModel* findBuiltIn(const std::string& name) {
    for (const BuiltInModel& model : builtInModels()) {
        if (name == model.name) {
            return &model;
        }
    }
    return nullptr;
}

std::string builtInNames() {
    std::string names;
    for (const BuiltInModel& model : builtInModels()) {
        names += (names.empty() ? "" : ", ") + std::string(model.name);
    }
    return names;
}

// The descriptors of a model or dump, and what goes with them.
std::pair<DeviceDescriptors, InterfaceOptions> describe(const std::string& nameOrPath) {
    InterfaceOptions options;
    if (const BuiltInModel* model = findBuiltIn(nameOrPath)) {
        options.strings = model->strings;
        std::erase_if(options.rates,
                      [model](std::uint32_t rate) { return rate > model->mostRate; });
        return {parseDevice(model->descriptors()), std::move(options)};
    }
    if (!std::filesystem::exists(nameOrPath)) {
        throw DeviceError(fmt::format("{}: no such interface: neither a built-in model ({}) nor a "
                                      "descriptor dump",
                                      nameOrPath, builtInNames()));
    }
    DeviceDescriptors device = readDump(nameOrPath);
    options.speed = impliedSpeed(device);
    options.strings = dumpStrings(device);
    options.rates = plausibleRates(device, options.speed);
    return {std::move(device), std::move(options)};
}

} // namespace

std::vector<Model> models() {
    std::vector<Model> list;
    for (const BuiltInModel& model : builtInModels()) {
        list.push_back({model.name, model.text});
    }
    return list;
}

std::shared_ptr<SimulatedInterface> makeDevice(const std::string& nameOrPath,
                                               const DeviceOptions& options) {
    auto [device, settings] = describe(nameOrPath);
    if (options.asVendor) {
        device.setVendor(*options.asVendor);
    }
    if (options.asProduct) {
        device.setProduct(*options.asProduct);
    }
    settings.ppm = options.ppm;
    settings.speed = options.speed.value_or(settings.speed);
    if (!options.rates.empty()) {
        settings.rates = options.rates;
    }
    settings.externalRate = options.externalRate;
    settings.lock = options.lock;
    settings.source = options.source;
    settings.sink = options.sink;
    if (!settings.sink && !options.outputFile.empty()) {
        settings.sink = std::make_shared<WavSink>(options.outputFile);
    }
    return std::make_shared<SimulatedInterface>(std::move(device), std::move(settings));
}

} // namespace kelvane::devices
