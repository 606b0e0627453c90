#include "devices/models.h"

#include "devices/descriptor_writer.h"
#include "devices/dump.h"
#include "devices/error.h"
#include "devices/wav_sink.h"

#include <fmt/format.h>

#include <array>
#include <cmath>
#include <filesystem>
#include <utility>

namespace kelvane::devices {

namespace {

// Endpoint attributes (USB 2.0, table 9-13).
constexpr std::uint8_t kIsochronousAsync = 0x05;
constexpr std::uint8_t kIsochronousFeedback = 0x11;
constexpr std::uint8_t kInterrupt = 0x03;

// UAC2 terminal types, and other numbers that its tables give.
constexpr std::uint16_t kUsbStreaming = 0x0101;
constexpr std::uint16_t kLineConnector = 0x0603;
constexpr std::uint8_t kCategoryConverter = 0x06;
constexpr std::uint32_t kFrontLeftRight = 0x3;
constexpr std::uint8_t kProgrammable = 0x03;
constexpr std::uint8_t kFrequencyAndValidity = 0x07; // frequency read and write, validity read

constexpr std::uint16_t kStereoOutProduct = 0x0001;
constexpr std::uint8_t kSelfPowered = 0xC0;

std::vector<std::byte> stereoOutDescriptors() {
    constexpr std::uint8_t kClock = 0x29;
    constexpr std::uint8_t kFromHost = 0x01;
    constexpr std::uint8_t kLineOut = 0x02;
    // 192000 Hz is 24 frames of 8 bytes a microframe, and one more for a clock that runs fast.
    constexpr std::uint16_t kMostBytes = 25 * 8;

    DescriptorWriter write;
    write.device({.idVendor = KELVANE_VENDOR_ID,
                  .idProduct = kStereoOutProduct,
                  .iManufacturer = 1,
                  .iProduct = 2,
                  .iSerialNumber = 3});
    write.configuration(kSelfPowered, 0);
    write.audioFunction(0, 2);

    write.interface(0, 0, usb::kAudio, usb::kAudioControl, usb::kAudioVersion2);
    write.controlHeader(kCategoryConverter);
    write.clockSource(kClock, kProgrammable, kFrequencyAndValidity, 4);
    write.inputTerminal(kFromHost, kUsbStreaming, kClock, 2, kFrontLeftRight);
    write.outputTerminal(kLineOut, kLineConnector, kFromHost, kClock);
    write.endpoint(0x83, kInterrupt, 6, 4); // each 1 ms

    write.interface(1, 0, usb::kAudio, usb::kAudioStreaming, usb::kAudioVersion2);
    write.interface(1, 1, usb::kAudio, usb::kAudioStreaming, usb::kAudioVersion2);
    write.streamGeneral(kFromHost, 2, kFrontLeftRight);
    write.formatTypeI(4, 24);
    write.endpoint(0x01, kIsochronousAsync, kMostBytes, 1); // each microframe
    write.streamEndpoint();
    write.endpoint(0x82, kIsochronousFeedback, 4, 4); // each 1 ms
    return write.finish();
}

std::string stereoOutString(std::uint8_t index) {
    static constexpr std::array kTexts{"", "Kelvane", "Kelvane Stereo Out", "0001",
                                       "Internal Clock"};
    return index < kTexts.size() ? kTexts[index] : "";
}

struct BuiltIn {
    const char* name;
    const char* text;
    std::vector<std::byte> (*descriptors)();
    std::string (*strings)(std::uint8_t);
};

constexpr std::array kBuiltIns{
    BuiltIn{"stereo-out",
            "2 outputs, 24 bit, 44100 to 192000 Hz, asynchronous with a feedback endpoint",
            stereoOutDescriptors, stereoOutString},
};

const BuiltIn* findBuiltIn(const std::string& name) {
    for (const BuiltIn& model : kBuiltIns) {
        if (name == model.name) {
            return &model;
        }
    }
    return nullptr;
}

std::string builtInNames() {
    std::string names;
    for (const BuiltIn& model : kBuiltIns) {
        names += (names.empty() ? "" : ", ") + std::string(model.name);
    }
    return names;
}

// The descriptors of a model or dump, and what goes with them.
std::pair<DeviceDescriptors, InterfaceOptions> describe(const std::string& nameOrPath) {
    InterfaceOptions options;
    if (const BuiltIn* model = findBuiltIn(nameOrPath)) {
        options.strings = model->strings;
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
    list.reserve(kBuiltIns.size());
    for (const BuiltIn& model : kBuiltIns) {
        list.push_back({model.name, model.text});
    }
    return list;
}

std::shared_ptr<SimulatedInterface> makeDevice(const std::string& nameOrPath,
                                               const DeviceOptions& options) {
    if (!(std::abs(options.ppm) <= SampleClock::kMostPpm)) {
        throw DeviceError(fmt::format("a clock {} ppm off: expected {} to {}", options.ppm,
                                      -SampleClock::kMostPpm, SampleClock::kMostPpm));
    }
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
    settings.sink = options.sink;
    if (!settings.sink && !options.outputFile.empty()) {
        settings.sink = std::make_shared<WavSink>(options.outputFile);
    }
    return std::make_shared<SimulatedInterface>(std::move(device), std::move(settings));
}

} // namespace kelvane::devices
