#include "devices/models.h"

#include "devices/dump.h"
#include "devices/error.h"
#include "devices/model_descriptors.h"
#include "devices/usb_spec.h"
#include "devices/wav_sink.h"

#include <fmt/format.h>
#include <fmt/ranges.h>

#include <algorithm>
#include <array>
#include <filesystem>
#include <utility>

namespace kelvane::devices {

namespace {

// USB 2.0, 5.8.3: the first four of a full-speed device, the last of a high-speed one.
constexpr std::uint16_t kHighSpeedBulk = 512;
constexpr std::array<std::uint16_t, 5> kBulkPacketSizes{8, 16, 32, 64, kHighSpeedBulk};

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

// Whether the device has audio, whose packets are made for high speed.
bool streams(const DeviceDescriptors& device) {
    return std::ranges::any_of(
        device.configurations.front().settings,
        [](const AlternateSetting& setting) { return setting.stream.has_value(); });
}

MidiPorts chooseMidi(const MidiPorts& own, const DeviceOptions& options) {
    const MidiPorts midi{.inputs = options.midiInputs.value_or(own.inputs),
                         .outputs = options.midiOutputs.value_or(own.outputs),
                         .packetBytes = options.midiPacketBytes.value_or(own.packetBytes)};
    if (midi.inputs > usb::kMostCables || midi.outputs > usb::kMostCables) {
        throw DeviceError(fmt::format("{} MIDI inputs and {} outputs: an endpoint has up to {} of "
                                      "one direction",
                                      midi.inputs, midi.outputs, usb::kMostCables));
    }
    if (std::ranges::find(kBulkPacketSizes, midi.packetBytes) == kBulkPacketSizes.end()) {
        throw DeviceError(fmt::format("MIDI packets of {} bytes: a bulk endpoint has packets of {}",
                                      midi.packetBytes, fmt::join(kBulkPacketSizes, ", ")));
    }
    return midi;
}

void requireFile(const std::string& path) {
    if (!std::filesystem::exists(path)) {
        throw DeviceError(fmt::format("{}: no such interface: neither a built-in model ({}) nor a "
                                      "descriptor dump",
                                      path, builtInNames()));
    }
}

// The descriptors of a model or dump, and what goes with them.
std::pair<DeviceDescriptors, InterfaceOptions> describe(const std::string& nameOrPath,
                                                        const DeviceOptions& asked) {
    InterfaceOptions options;
    if (const BuiltInModel* model = findBuiltIn(nameOrPath)) {
        options.strings = model->strings;
        std::erase_if(options.rates,
                      [model](std::uint32_t rate) { return rate > model->mostRate; });
        return {parseDevice(model->descriptors(chooseMidi(model->midi, asked))),
                std::move(options)};
    }
    requireFile(nameOrPath);
    if (asked.midiInputs || asked.midiOutputs || asked.midiPacketBytes) {
        throw DeviceError(fmt::format("{}: a dump has the MIDI ports that its descriptors tell; "
                                      "others can be asked of a built-in model ({})",
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

Inspection inspectDevice(const std::string& nameOrPath, std::optional<std::uint16_t> asVendor) {
    std::vector<std::byte> bytes;
    InspectOptions options;
    if (const BuiltInModel* model = findBuiltIn(nameOrPath)) {
        bytes = model->descriptors(model->midi);
    } else {
        requireFile(nameOrPath);
        bytes = readDumpBytes(nameOrPath);
    }
    try {
        const auto [device, settings] = describe(nameOrPath, {});
        options = {.speed = settings.speed, .rates = settings.rates, .strings = settings.strings};
    } catch (const DeviceError&) {
        options.rates = {44100, 48000}; // too damaged to tell; the inspection says where
    }
    if (bytes.size() >= usb::kDeviceLength && asVendor) {
        bytes[8] = static_cast<std::byte>(*asVendor & 0xFF);
        bytes[9] = static_cast<std::byte>(*asVendor >> 8);
    }
    Inspection inspection = inspect(std::move(bytes), options);
    if (!inspection.dissection.hasDevice()) {
        const Finding& end = *inspection.dissection.end;
        throw DeviceError(fmt::format("{}: offset {}: {}", nameOrPath, end.offset, end.text));
    }
    return inspection;
}

std::shared_ptr<SimulatedInterface> makeDevice(const std::string& nameOrPath,
                                               const DeviceOptions& options) {
    auto [device, settings] = describe(nameOrPath, options);
    if (options.asVendor) {
        device.setVendor(*options.asVendor);
    }
    if (options.asProduct) {
        device.setProduct(*options.asProduct);
    }
    settings.ppm = options.ppm;
    if (options.midiPacketBytes.value_or(kHighSpeedBulk) != kHighSpeedBulk && !streams(device)) {
        settings.speed = Speed::Full;
    }
    settings.speed = options.speed.value_or(settings.speed);
    if (!options.rates.empty()) {
        settings.rates = options.rates;
    }
    settings.externalRate = options.externalRate;
    settings.lock = options.lock;
    settings.source = options.source;
    settings.sink = options.sink;
    settings.midiSource = options.midiSource;
    settings.midiSink = options.midiSink;
    if (!settings.sink && !options.outputFile.empty()) {
        settings.sink = std::make_shared<WavSink>(options.outputFile);
    }
    return std::make_shared<SimulatedInterface>(std::move(device), std::move(settings));
}

} // namespace kelvane::devices
