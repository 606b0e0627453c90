// Descriptor dumps: read, inspected, and the driver started on the device that they describe. What
// the inspection tells has to be what the driver does.
#include "fuzz/descriptors_input.h"
#include "fuzz/fuzz_machine.h"

#include "client/pinformat.h"
#include "client/topology.h"
#include "devices/dump.h"
#include "tests/support/described_device.h"

#include <algorithm>
#include <cstring>
#include <random>
#include <span>
#include <vector>

extern "C" std::size_t LLVMFuzzerMutate(std::uint8_t* data, std::size_t size, std::size_t most);

namespace kelvane::fuzz {
namespace {

using Dump = std::vector<std::byte>;

constexpr std::size_t kDeviceBytes = 18;
constexpr std::size_t kHeaderBytes = 9; // of the configuration
constexpr std::size_t kMostBytes = 4096;
constexpr std::size_t kTotalOffset = 20;

void putWord(Dump& dump, std::size_t at, std::size_t value) {
    dump[at] = static_cast<std::byte>(value & 0xFF);
    dump[at + 1] = static_cast<std::byte>(value >> 8);
}

Dump dumpOf(std::span<const std::byte> input, std::uint8_t flags) {
    Dump dump(input.begin(), input.end());
    if (dump.size() >= kDeviceBytes && (flags & kKeepVendor) == 0) {
        putWord(dump, 8, KELVANE_VENDOR_ID);
    }
    if (dump.size() >= kDeviceBytes + kHeaderBytes && (flags & kKeepTotal) == 0) {
        putWord(dump, kTotalOffset, dump.size() - kDeviceBytes);
    }
    return dump;
}

// Plays or records 16-bit stereo for a few transfers where the pin takes it.
void stream(const FuzzMachine& box, const client::PinInfo& pin) {
    constexpr std::uint32_t kMilliseconds = 25;
    const client::PcmFormat format{.rate = 48000, .channels = 2, .bits = 16, .bytesPerSample = 2};
    try {
        const auto connection = client::makeConnection(pin.id, format);
        const client::KsFile file = box.filter->createPin(client::bytesOf(connection));
        const GUID set = {STATIC_KSPROPSETID_Connection};
        for (const KSSTATE state : {KSSTATE_ACQUIRE, KSSTATE_PAUSE, KSSTATE_RUN}) {
            file.property(client::bytesOf(client::makeProperty(set, KSPROPERTY_CONNECTION_STATE,
                                                               KSPROPERTY_TYPE_SET)),
                          std::as_writable_bytes(std::span(&const_cast<KSSTATE&>(state), 1)));
        }
        FuzzMachine::sleep(kMilliseconds);
    } catch (const client::StatusError&) { // a pin that takes nothing of the kind
    }
}

void expectSameVerdict(const FuzzMachine& box, const devices::Inspection& told) {
    if (told.doubt.empty() && NT_SUCCESS(box.status) != told.accepted()) {
        finding(fmt::format("the driver says {:#x}, the inspection that it is {}",
                            static_cast<std::uint32_t>(box.status),
                            told.accepted() ? "accepted" : "refused: " + told.reasons[0].text));
    }
}

void run(std::span<const std::byte> input) {
    if (input.empty()) {
        return;
    }
    const auto flags = std::to_integer<std::uint8_t>(input[0]);
    const Dump dump = dumpOf(input.subspan(1, std::min(input.size() - 1, kMostBytes)), flags);
    devices::InspectOptions options;
    options.speed = (flags & kFullSpeed) != 0 ? devices::Speed::Full : devices::Speed::High;
    options.rates = {44100, 48000, 96000};
    options.strings = [](std::uint8_t index) {
        return fmt::format("String {}", index);
    };
    const devices::Inspection told = devices::inspect(dump, options);
    for (const devices::Problem& problem : told.problems) {
        if (problem.offset > dump.size()) {
            finding("a problem outside of the dump: " + problem.text);
        }
    }
    try {
        const devices::DeviceDescriptors parsed = devices::parseDevice(dump);
        devices::plausibleRates(parsed, devices::impliedSpeed(parsed));
    } catch (const devices::DescriptorError&) { // what can't be a device
    }
    if (!told.dissection.hasDevice() || dump.size() < kDeviceBytes + kHeaderBytes) {
        return;
    }
    const auto device = (flags & kRaw) != 0
                            ? std::shared_ptr<devices::UsbDevice>(
                                  std::make_shared<tests::PromisingDevice>(dump, options))
                            : tests::describedDevice(dump, options);
    const FuzzMachine box(device);
    expectSameVerdict(box, told);
    if (box.filter) {
        for (const client::PinInfo& pin : client::readPins(*box.filter)) {
            if (pin.communication == "sink" && pin.formats.front().subformat == "PCM") {
                stream(box, pin);
            }
        }
    }
}

// Descriptors cut out, doubled, moved.
void shuffle(Dump& dump, std::minstd_rand& random) {
    std::vector<Dump> parts;
    devices::DescriptorWalk walk{std::span(dump).subspan(1 + kDeviceBytes + kHeaderBytes)};
    try {
        while (const auto view = walk.next()) {
            parts.emplace_back(view->bytes().begin(), view->bytes().end());
        }
    } catch (const devices::DescriptorError&) {
        return;
    }
    if (parts.empty()) {
        return;
    }
    const auto which = static_cast<std::ptrdiff_t>(random() % parts.size());
    const Dump part = parts[static_cast<std::size_t>(which)];
    if (random() % 2 == 0) {
        parts.erase(parts.begin() + which);
    }
    if (random() % 2 == 0) {
        parts.insert(parts.begin() + static_cast<std::ptrdiff_t>(random() % (parts.size() + 1)),
                     part);
    }
    dump.resize(1 + kDeviceBytes + kHeaderBytes);
    for (const Dump& each : parts) {
        dump.insert(dump.end(), each.begin(), each.end());
    }
}

} // namespace
} // namespace kelvane::fuzz

extern "C" std::size_t LLVMFuzzerCustomMutator(std::uint8_t* data, std::size_t size,
                                               std::size_t most, unsigned int seed) {
    using namespace kelvane::fuzz;
    std::minstd_rand random(seed);
    if (random() % 3 != 0 || size < 1 + kDeviceBytes + kHeaderBytes + 2) {
        return LLVMFuzzerMutate(data, size, most);
    }
    const auto* bytes = reinterpret_cast<const std::byte*>(data);
    Dump dump(bytes, bytes + size);
    shuffle(dump, random);
    const std::size_t kept = std::min(dump.size(), most);
    std::memcpy(data, dump.data(), kept);
    return kept;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    kelvane::fuzz::run({reinterpret_cast<const std::byte*>(data), size});
    return 0;
}
