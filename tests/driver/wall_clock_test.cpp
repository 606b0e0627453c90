// What runs on the wall clock: real threads, spin locks that spin, completions on a thread of
// their own. Meant for ThreadSanitizer; how late a busy computer makes it doesn't matter.
#include "tests/driver/vendor_sets.h"
#include "tests/support/midi_machine.h"
#include "tests/support/system_thread.h"

#include "client/client.h"
#include "devices/audio_sink.h"

#include <gtest/gtest.h>

#include <memory>
#include <numeric>
#include <vector>

namespace kelvane::client {
namespace {

TEST(WallClock, AStreamRunsAndEndsWithNothingLeft) {
    auto sink = std::make_shared<devices::BufferSink>();
    std::vector<std::string> breaches;
    SystemOptions options;
    options.clock = Clock::Real;
    options.sink = sink;
    options.breaches = [&](const std::string& breach) {
        breaches.push_back(breach);
    };
    std::uint64_t framesReceived = 0;
    std::uint64_t bytesPlayed = 0;
    {
        System system(options);
        RenderStream stream = system.openRender(PcmFormat{});
        const std::size_t samples = stream.bufferBytes() / sizeof(std::int16_t);
        std::vector<std::int16_t> buffer(samples);
        std::iota(buffer.begin(), buffer.end(), std::int16_t{1});
        stream.acquire();
        stream.pause();
        for (int i = 0; i < 8; ++i) {
            stream.write(std::as_bytes(std::span(buffer)));
        }
        stream.run();
        for (int i = 0; i < 24; ++i) { // a quarter of a second
            ASSERT_TRUE(stream.waitForQueue(7, 5000)) << "the pin took no data";
            stream.write(std::as_bytes(std::span(buffer)));
            (void)stream.latency(); // beside the completions that count it
        }
        ASSERT_TRUE(stream.drain(5000)) << "the pin left data unplayed";
        bytesPlayed = stream.bytesPlayed();
        stream.stop();
        EXPECT_EQ(bytesPlayed, 32U * stream.bufferBytes());
        EXPECT_GE(stream.latency().completions, 32U);
        framesReceived = system.deviceCounters().framesReceived;
    }
    EXPECT_GE(framesReceived, bytesPlayed / 4);
    EXPECT_EQ(breaches, std::vector<std::string>());
}

} // namespace
} // namespace kelvane::client

namespace kelvane::tests {
namespace {

// Hears what it is sent.
class MidiLoop : public MidiDevice {
public:
    MidiLoop()
        : MidiDevice({{.address = kMidiOut, .jacks = 2}, {.address = kMidiIn, .jacks = 2}}) {}

    devices::Handshake out(std::uint8_t endpoint, std::uint64_t microframe,
                           std::span<const std::byte> packet) override {
        const devices::Handshake answer = MidiDevice::out(endpoint, microframe, packet);
        say(transfers.back());
        return answer;
    }
};

TEST(WallClock, TwoMidiPortsSendAndHearAtOnce) {
    constexpr std::uint8_t kMessages = 100;
    AudioMachine machine(std::make_shared<MidiLoop>(), {.clock = nt::ClockKind::Real});
    ASSERT_EQ(machine.started, STATUS_SUCCESS);
    // Writes in one thread and reads in another, while other ports do the same.
    const auto write = [&](std::uint32_t pin, const auto& goesOn) {
        MidiPin render(machine.filter(), pin);
        render.run();
        for (std::uint8_t i = 0; goesOn(i); ++i) {
            render.sendMidi({0x90, low(i % 128U), 1});
        }
    };
    const auto untilAllAreSent = [](std::uint8_t sent) {
        return sent < kMessages;
    };
    std::size_t inOrder[2] = {};
    const auto read = [&](std::uint32_t pin, std::size_t& heard) {
        MidiPin capture(machine.filter(), pin);
        capture.run();
        while (heard < kMessages) {
            capture.read(12);
            const auto event = capture.heard(5000);
            if (!event || event->bytes != Bytes{0x90, low(heard), 1}) {
                return;
            }
            ++heard;
        }
    };
    {
        SystemThread firstReader([&] { read(6, inOrder[0]); });
        SystemThread secondReader([&] { read(8, inOrder[1]); });
        machine.sleep(20); // the readers listen
        SystemThread firstWriter([&] { write(2, untilAllAreSent); });
        SystemThread secondWriter([&] { write(4, untilAllAreSent); });
    }
    EXPECT_EQ(inOrder[0], kMessages);
    EXPECT_EQ(inOrder[1], kMessages);
    // Power goes and comes under writers: what is lost is lost, and every transfer comes back.
    {
        std::atomic<bool> over = false;
        const auto untilTheEnd = [&over](std::uint8_t) {
            return !over;
        };
        SystemThread firstWriter([&] { write(2, untilTheEnd); });
        SystemThread secondWriter([&] { write(4, untilTheEnd); });
        for (int i = 0; i < 50; ++i) {
            machine.sleep(2);
            machine.setPower(PowerDeviceD3);
            machine.setPower(PowerDeviceD0);
        }
        over = true;
    }
}

// Queues buffers of 10 ms on a pin for a while, and asks about it, until `over`; a pin that can't
// be opened or run just now is tried again.
void streamOn(AudioMachine& machine, std::uint32_t pin, const std::atomic<bool>& over) {
    const std::vector<std::int32_t> samples(2 * 480, 1);
    while (!over) {
        try {
            AudioPin stream(machine.filter(), pin, kPcm24);
            stream.run();
            for (int i = 0; i < 5 && !over; ++i) {
                if (pin == kRenderPin) {
                    stream.write(samples);
                } else {
                    stream.read(samples.size() * sizeof(samples[0]));
                }
                client::LatencyStatistics statistics;
                stream.get(kKelvaneSet, 50, statistics);
                KSAUDIO_POSITION position = {};
                stream.get(kAudioSet, KSPROPERTY_AUDIO_POSITION, position);
                machine.sleep(5);
            }
            stream.stop();
        } catch (const client::StatusError&) {
            machine.sleep(1);
        }
    }
}

TEST(WallClock, StreamsAreInterruptedFromAllSides) {
    const auto device = makeControlled();
    AudioMachine machine(device, {.clock = nt::ClockKind::Real});
    ASSERT_EQ(machine.started, STATUS_SUCCESS);
    std::atomic<bool> over = false;
    {
        SystemThread player([&] { streamOn(machine, kRenderPin, over); });
        SystemThread recorder([&] { streamOn(machine, 2, over); });
        SystemThread panel([&] {
            for (std::uint32_t i = 0; !over; ++i) {
                std::uint32_t frames = 4 + i % 16;
                const KSIDENTIFIER size = client::makeProperty(kKelvaneSet, 0, kSet);
                machine.filter().property(client::bytesOf(size), client::writableBytesOf(frames));
                std::uint32_t rate = i % 2 == 0 ? 48000 : 96000;
                const KSIDENTIFIER change = client::makeProperty(kKelvaneSet, 3, kSet);
                machine.filter().property(client::bytesOf(change), client::writableBytesOf(rate));
                machine.sleep(3);
            }
        });
        for (int i = 0; i < 10; ++i) {
            machine.sleep(20);
            machine.setPower(PowerDeviceD3);
            machine.setPower(PowerDeviceD0);
        }
        machine.pullOut();
        over = true;
    }
    EXPECT_GT(device->heard.size(), 0U);
}

} // namespace
} // namespace kelvane::tests
