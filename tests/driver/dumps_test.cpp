// The descriptors of real devices through the whole driver, when KELVANE_DUMPS names a folder of
// them, and what is told of them beforehand. What is expected of each is derived from its own
// descriptors, so that any folder will do.
#include "client/client.h"
#include "client/inspection.h"
#include "devices/audio_sink.h"
#include "devices/models.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <vector>

namespace kelvane::client {
namespace {

constexpr std::uint16_t kAccepted = 0x20B1;
constexpr std::uint32_t kNotReady = 0xC00000A3; // STATUS_DEVICE_NOT_READY
constexpr std::uint32_t kNoMatch = 0xC0000272;  // STATUS_NO_MATCH
constexpr std::uint32_t kStalled = 0xC0000004;  // USBD_STATUS_STALL_PID
constexpr std::uint8_t kToInterface0 = 0;

std::vector<std::filesystem::path> dumps() {
    std::vector<std::filesystem::path> found;
    if (const char* folder = std::getenv("KELVANE_DUMPS"); folder != nullptr && *folder != 0) {
        for (const auto& entry : std::filesystem::directory_iterator(folder)) {
            if (entry.path().extension() == ".bin") {
                found.push_back(entry.path());
            }
        }
    }
    std::sort(found.begin(), found.end());
    return found;
}

// The status that the driver has to refuse it with; 0 when it has to start. The driver needs the
// frequency of a UAC2 clock, and asks interface 0 for it.
std::uint32_t expectedStatus(const devices::Configuration& configuration) {
    if (configuration.audio.empty()) {
        return kNotReady;
    }
    const devices::AudioFunction& function = configuration.audio.front();
    const bool readable =
        std::any_of(function.clockSources.begin(), function.clockSources.end(),
                    [](const devices::ClockSource& clock) { return (clock.controls & 1) != 0; });
    return function.interfaceNumber == kToInterface0 && readable ? 0 : kStalled;
}

// Stereo frames of 4-byte samples are what the driver sends, one packet per microframe.
struct Output {
    bool exists = false;
    bool accepted = false; // an alternate setting takes stereo in 4-byte subslots
    bool everyMicroframe = false;
};
Output outputOf(const devices::Configuration& configuration) {
    Output output;
    for (const devices::AlternateSetting& setting : configuration.settings) {
        for (const devices::Endpoint& endpoint : setting.endpoints) {
            if (setting.stream && endpoint.type() == devices::TransferType::Isochronous &&
                !endpoint.isIn()) {
                output.exists = true;
                if (!output.accepted && setting.stream->isPcm() &&
                    setting.stream->subslotBytes == 4 && setting.stream->channels >= 2) {
                    output.accepted = true;
                    output.everyMicroframe = endpoint.bInterval == 1;
                }
            }
        }
    }
    return output;
}

void expectHears(System& system, const devices::BufferSink& sink, const PcmFormat& format) {
    RenderStream stream = system.openRender(format);
    const std::vector<std::byte> tone(format.frameBytes() * format.rate / 10, std::byte{0x40});
    stream.acquire();
    stream.pause();
    stream.write(tone);
    stream.run();
    ASSERT_TRUE(stream.drain(2000));
    stream.stop();
    std::size_t heard = 0;
    for (const auto& part : sink.parts()) {
        heard += static_cast<std::size_t>(
            std::count(part.frames.begin(), part.frames.end(), std::byte{0x40}));
    }
    EXPECT_GE(heard, 3 * tone.size() / 4); // the top three of the four bytes
    EXPECT_EQ(system.busCounters().errors, 0U);
    EXPECT_EQ(system.deviceCounters().overruns, 0U);
}

// Which setting the driver selects at each rate, against what was told.
void expectSettings(System& system, const devices::StreamView& told) {
    for (const devices::RateChoice& choice : told.rates) {
        if (told.channels < 2 || told.replaced) {
            continue;
        }
        SCOPED_TRACE(choice.rate);
        const PcmFormat format{.rate = choice.rate, .channels = 2, .bits = 16, .bytesPerSample = 2};
        const auto runOnce = [](auto stream) {
            stream.acquire();
            stream.pause();
            stream.run();
            stream.stop();
        };
        told.isInput ? runOnce(system.openCapture(format)) : runOnce(system.openRender(format));
        for (const InterfaceInfo& interface : system.describe().interfaces) {
            if (interface.number == told.interfaceNumber) {
                EXPECT_EQ(interface.chosenSetting, choice.setting);
            }
        }
    }
}

void expectPins(System& system, const std::vector<devices::PinView>& told) {
    std::vector<bool> expected; // data flow of the audio pins, into the filter
    for (const devices::PinView& pin : told) {
        if (pin.kind == devices::PinView::Kind::Audio ||
            pin.kind == devices::PinView::Kind::AudioJack) {
            expected.push_back(pin.intoFilter());
        }
    }
    std::vector<bool> found;
    for (const PinInfo& pin : system.describe().pins) {
        if (!pin.formats.empty() && !pin.formats.front().subformat.starts_with("MIDI")) {
            found.push_back(pin.intoFilter);
        }
    }
    EXPECT_EQ(found, expected);
}

void expectTold(System& system, const devices::Inspection& told) {
    EXPECT_EQ(told.verdict, devices::Verdict::Accepted);
    ASSERT_FALSE(told.clocks.empty());
    EXPECT_EQ(system.rates(), told.clocks.front().rates);
    expectPins(system, told.pins);
    for (const devices::StreamView& stream : told.streams) {
        expectSettings(system, stream);
    }
}

void tryDump(const std::filesystem::path& path) {
    devices::DeviceOptions plain;
    plain.asVendor = kAccepted;
    const auto device = devices::makeDevice(path.string(), plain);
    const devices::Configuration& configuration = device->descriptors().configurations.front();
    const std::uint32_t expected = expectedStatus(configuration);
    const devices::Inspection told = inspect(path.string(), kAccepted);

    auto sink = std::make_shared<devices::BufferSink>();
    SystemOptions options;
    options.device = path.string();
    options.asVendor = kAccepted;
    options.sink = sink;
    std::uint32_t status = 0;
    try {
        System system(options);
        const Output output = outputOf(configuration);
        ASSERT_EQ(system.renderPin().has_value(), output.exists);
        const std::vector<std::uint32_t> rates = system.rates();
        ASSERT_FALSE(rates.empty());
        const PcmFormat format{
            .rate = rates.front(), .channels = 2, .bits = 24, .bytesPerSample = 4};
        if (output.accepted && output.everyMicroframe) {
            expectHears(system, *sink, format);
        } else if (output.exists && !output.accepted) {
            try {
                system.openRender(format);
                ADD_FAILURE() << "a pin was opened that can't play";
            } catch (const StatusError& error) {
                EXPECT_EQ(error.status(), kNoMatch);
            }
        }
        expectTold(system, told);
    } catch (const StatusError& error) {
        status = error.status();
        EXPECT_EQ(told.verdict, devices::Verdict::Refused) << error.what();
        EXPECT_FALSE(told.reasons.empty()) << "refused without a reason";
    }
    EXPECT_EQ(status, expected);
}

TEST(Dumps, StartAndPlayOrAreRefusedForAReason) {
    const auto paths = dumps();
    if (paths.empty()) {
        GTEST_SKIP() << "KELVANE_DUMPS names no folder of dumps: no real devices to try";
    }
    for (const auto& path : paths) {
        SCOPED_TRACE(path.filename().string());
        tryDump(path);
    }
}

} // namespace
} // namespace kelvane::client
