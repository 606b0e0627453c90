// Streams that are stopped and go on beneath their clients: a machine that sleeps and wakes, a
// transfer size that changes. What was taken from the clients is heard once and whole; of what the
// device says, the transfers under way are lost and nothing else.
#include "platform/nt/kernel.h"

#include "tests/support/audio_machine.h"
#include "tests/support/stream_device.h"
#include "usbdriver/device.h"

#include <gtest/gtest.h>

#include <numeric>

namespace kelvane::tests {
namespace {

constexpr std::uint32_t kFramesPerPacket = 6;
constexpr std::size_t kBuffers = 30; // of 10 ms
constexpr std::size_t kBufferSamples = 2 * 480;

// A device that counts its samples up from 1, and pins that play the same.
class Streams {
public:
    Streams(bool output, bool input, std::uint32_t urbSize)
        : device(!input    ? deviceWith()
                 : !output ? deviceWith({.endpoint = kInEndpoint})
                           : deviceWith({}, {.endpoint = kInEndpoint})),
          machine(device, {.urbSize = urbSize}) {
        device->speak = [this](std::size_t) {
            Bytes packet;
            for (std::size_t i = 0; i < 2 * kFramesPerPacket; ++i) {
                packet = joined({packet, u32(++m_spoken)});
            }
            return packet;
        };
        if (output) {
            render.emplace(machine.filter(), 0, kPcm24);
        }
        if (input) {
            capture.emplace(machine.filter(), output ? 2 : 0, kPcm24);
        }
        device->heard.clear();
    }
    void run() {
        std::vector<std::int32_t> samples(kBufferSamples);
        std::int32_t next = 1;
        for (AudioPin* const pin : pins()) {
            pin->setState(KSSTATE_PAUSE);
            for (std::size_t i = 0; i < kBuffers; ++i) {
                if (pin == &*render) {
                    std::iota(samples.begin(), samples.end(), next);
                    next += kBufferSamples;
                    pin->write(samples);
                } else {
                    pin->read(kBufferSamples * 4);
                }
            }
            pin->run();
        }
    }
    void stop() {
        for (AudioPin* const pin : pins()) {
            pin->stop();
        }
    }
    UsbAudioDevice& driver() {
        return *UsbAudioDevice::FromKsDevice(
            KsGetDeviceForDeviceObject(machine.pdo()->AttachedDevice));
    }
    // Without the silence, wherever it is.
    std::vector<std::int32_t> heard() const {
        std::vector<std::int32_t> samples = device->heardSamples();
        std::erase(samples, 0);
        return samples;
    }

    std::shared_ptr<StreamDevice> device;
    AudioMachine machine;
    std::optional<AudioPin> render, capture;

private:
    std::vector<AudioPin*> pins() {
        std::vector<AudioPin*> open;
        for (auto* pin : {&render, &capture}) {
            if (*pin) {
                open.push_back(&**pin);
            }
        }
        return open;
    }

    std::uint32_t m_spoken = 0;
};

// What the pin has moved, in samples.
std::size_t position(const AudioPin& pin) {
    KSAUDIO_POSITION place = {};
    EXPECT_EQ(pin.get(kAudioSet, KSPROPERTY_AUDIO_POSITION, place), STATUS_SUCCESS);
    return place.PlayOffset / 4;
}

TEST(Interruptions, ClientsGoOnWhereTheyWere) {
    const struct {
        const char* name;
        std::uint32_t before, after; // transfer sizes in ms
        std::function<void(Streams&)> interrupt;
    } table[] = {
        {"sleep", 10, 10,
         [](Streams& streams) {
             streams.machine.setPower(PowerDeviceD3);
             const std::size_t heard = streams.device->heard.size();
             streams.machine.sleep(50);
             EXPECT_EQ(streams.device->heard.size(), heard);
             streams.machine.setPower(PowerDeviceD0);
         }},
        {"longer transfers", 10, 20,
         [](Streams& streams) {
             EXPECT_EQ(streams.driver().SetUrbSize(20), STATUS_SUCCESS);
         }},
        {"shorter transfers", 20, 10,
         [](Streams& streams) {
             EXPECT_EQ(streams.driver().SetUrbSize(10), STATUS_SUCCESS);
         }},
    };
    for (const auto& row : table) {
        for (const auto& [output, input] : {std::pair{true, true}, {true, false}, {false, true}}) {
            SCOPED_TRACE(testing::Message()
                         << row.name << (output ? ", output" : "") << (input ? ", input" : ""));
            Streams streams(output, input, row.before);
            streams.run();
            streams.machine.sleep(85);
            row.interrupt(streams);
            streams.machine.sleep(115);
            streams.stop();

            EXPECT_EQ(streams.machine.recorder.transfers.back().lengths.size(), row.after * 8);
            if (output) {
                std::vector<std::int32_t> played(position(*streams.render));
                std::iota(played.begin(), played.end(), 1);
                EXPECT_GT(played.size(), 10 * kBufferSamples);
                EXPECT_EQ(streams.heard(), played);
            }
            if (input) {
                std::vector<std::uint32_t> recorded;
                for (const auto& buffer : streams.capture->buffers) {
                    const auto* samples =
                        reinterpret_cast<const std::uint32_t*>(buffer->data.data());
                    recorded.insert(recorded.end(), samples, samples + kBufferSamples);
                }
                recorded.resize(position(*streams.capture));
                EXPECT_GT(recorded.size(), 10 * kBufferSamples);
                std::vector<std::uint32_t> jumps;
                for (std::size_t i = 1; i < recorded.size(); ++i) {
                    if (recorded[i] != recorded[i - 1] + 1) {
                        jumps.push_back(recorded[i] - recorded[i - 1] - 1);
                    }
                }
                EXPECT_EQ(recorded[0], 1U);
                EXPECT_EQ(jumps,
                          std::vector<std::uint32_t>{row.before * 2 * 8 * kFramesPerPacket * 2});
            }
        }
    }
}

} // namespace
} // namespace kelvane::tests
