// Samples on their way between an application's buffers and the packets of a device.
#include "tests/support/audio_machine.h"
#include "tests/support/stream_device.h"

#include <gtest/gtest.h>

#include <numeric>

namespace kelvane::tests {
namespace {

template <class T>
std::vector<T> ramp(std::size_t count, T first, T step) {
    std::vector<T> samples(count);
    for (std::size_t i = 0; i < count; ++i) {
        samples[i] = static_cast<T>(first + static_cast<T>(i) * step);
    }
    return samples;
}

// Plays stereo buffers and returns what the device heard, as long as what was played.
template <class T>
std::vector<std::int32_t> play(const StreamShape& shape, const PcmFormat& format,
                               const std::vector<std::vector<T>>& buffers) {
    auto device = deviceWith(shape);
    AudioMachine machine(device);
    std::size_t frames = 0;
    {
        AudioPin pin(machine.filter(), 0, format);
        pin.setState(KSSTATE_PAUSE);
        for (const auto& buffer : buffers) {
            pin.write(buffer);
            frames += buffer.size() / format.channels;
        }
        pin.run();
        machine.sleep(200);
        EXPECT_EQ(pin.finished(), buffers.size());
    }
    std::vector<std::int32_t> heard = device->heardSamples();
    heard.resize(std::min(heard.size(), frames * shape.channels));
    return heard;
}

TEST(StreamSamples, TwoByteSamplesFillTheTopOfTheSubslot) {
    // 100 frames over packets of 6 and transfers of 480: buffers end within packets.
    std::vector<std::vector<std::int16_t>> buffers;
    std::vector<std::int32_t> expected;
    for (std::int16_t i = 0; i < 12; ++i) {
        buffers.push_back(ramp<std::int16_t>(200, static_cast<std::int16_t>(i * 200 - 32768), 1));
        for (const std::int16_t sample : buffers.back()) {
            expected.push_back(sample == -32768 ? -2147483647 : sample * 65536);
        }
    }
    EXPECT_EQ(play({}, kPcm16, buffers), expected);
}

TEST(StreamSamples, FourByteSamplesGoThroughBoundedSymmetrically) {
    const std::vector<std::int32_t> sent = {INT32_MAX, INT32_MIN, INT32_MIN + 1, -1, 1, 0x100,
                                            7,         8};
    std::vector<std::int32_t> expected = sent;
    expected[1] = -2147483647;
    EXPECT_EQ(play<std::int32_t>({}, kPcm24, {sent}), expected);
}

TEST(StreamSamples, ChannelsThatTheClientLacksStaySilent) {
    const std::vector<std::int16_t> sent = {1, 2, 3, 4, 5, 6};
    const std::vector<std::int32_t> expected = {1 << 16, 2 << 16, 0,       0, 3 << 16, 4 << 16, 0,
                                                0,       5 << 16, 6 << 16, 0, 0};
    EXPECT_EQ(play<std::int16_t>({.channels = 4}, kPcm16, {sent}), expected);
}

TEST(StreamSamples, OutputIsMixedIntoFourByteSubslotsAlone) {
    struct Case {
        std::uint8_t subslotBytes;
        PcmFormat format;
        const char* trace;
    };
    const Case cases[] = {
        {2, kPcm16, "Unsupported sample format (GetNumBytesPerSample = 2)\n"},
        {3,
         {.bits = 24, .bytesPerSample = 3},
         "Unsupported sample format (GetNumBytesPerSample = 3)\n"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.trace);
        auto device = deviceWith({.subslotBytes = c.subslotBytes});
        AudioMachine machine(device);
        AudioPin pin(machine.filter(), 0, c.format);
        pin.setState(KSSTATE_PAUSE);
        pin.write(std::vector<std::uint8_t>(c.format.frameBytes() * 480, 1));
        pin.run();
        machine.sleep(50);
        EXPECT_GE(machine.mentions(c.trace), 1U);
        EXPECT_GE(machine.mentions("only processed     0 of   480 samples\n"), 1U);
        EXPECT_EQ(pin.finished(), 0U);
        EXPECT_TRUE(device->heardSamples().empty());
    }
}

TEST(StreamSamples, ABufferOfAPartOfAFrameIsNotPlayed) {
    auto device = deviceWith();
    AudioMachine machine(device);
    AudioPin pin(machine.filter(), 0, kPcm16);
    pin.setState(KSSTATE_PAUSE);
    pin.write(std::vector<std::uint8_t>(403, 1));
    pin.run();
    machine.sleep(50);
    EXPECT_GE(machine.mentions("ERROR in UsbAudioStream::WriteOutputBytes() line 1146 - "
                               "!((bufferSize % clientBytesPerSampleFrame) == 0) \n"),
              1U);
    EXPECT_EQ(pin.finished(), 0U);
}

// --- Input --------------------------------------------------------------------------------------

// A device that counts its samples up: 6 frames in each packet, unless the test says otherwise.
struct Counting {
    explicit Counting(StreamShape shape) : m_device(deviceWith(shape)), m_shape(shape) {
        m_device->speak = [this](std::size_t room) {
            const std::size_t frames = framesOfPacket ? framesOfPacket(m_packet) : 6;
            ++m_packet;
            Bytes bytes(frames * m_shape.channels * m_shape.subslotBytes);
            EXPECT_LE(bytes.size(), room);
            for (std::size_t i = 0; i < bytes.size(); i += m_shape.subslotBytes) {
                const std::uint32_t sample = ++m_sample * 0x10101;
                std::memcpy(bytes.data() + i, &sample, m_shape.subslotBytes);
            }
            return bytes;
        };
    }
    const std::shared_ptr<StreamDevice>& device() const { return m_device; }
    std::function<std::size_t(std::uint32_t)> framesOfPacket;

private:
    std::shared_ptr<StreamDevice> m_device;
    StreamShape m_shape;
    std::uint32_t m_packet = 0;
    std::uint32_t m_sample = 0;
};

template <class T>
std::vector<T> recorded(const AudioPin& pin) {
    std::vector<T> samples;
    for (const auto& buffer : pin.buffers) {
        const std::size_t old = samples.size();
        samples.resize(old + buffer->header.DataUsed / sizeof(T));
        std::memcpy(samples.data() + old, buffer->data.data(), buffer->header.DataUsed);
    }
    return samples;
}

TEST(StreamSamples, InputKeepsItsWidthOrItsUpperHalf) {
    struct Case {
        const char* what;
        StreamShape shape;
        PcmFormat format;
        std::size_t frames; // of each buffer
    };
    const Case cases[] = {
        {"4 to 4, buffers across packets", {.endpoint = kInEndpoint}, kPcm24, 100},
        {"4 to 2", {.endpoint = kInEndpoint}, kPcm16, 100},
        {"2 to 2", {.endpoint = kInEndpoint, .subslotBytes = 2}, kPcm16, 480},
        {"3 to 3",
         {.endpoint = kInEndpoint, .subslotBytes = 3},
         {.bits = 24, .bytesPerSample = 3},
         7},
        {"two of four channels", {.endpoint = kInEndpoint, .channels = 4}, kPcm24, 100},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        Counting counting(c.shape);
        AudioMachine machine(counting.device());
        AudioPin pin(machine.filter(), 0, c.format);
        pin.setState(KSSTATE_PAUSE);
        constexpr std::size_t kBuffers = 20;
        for (std::size_t i = 0; i < kBuffers; ++i) {
            pin.read(c.frames * c.format.frameBytes());
        }
        pin.run();
        machine.sleep(1000);
        ASSERT_EQ(pin.finished(), kBuffers);
        const std::vector<std::uint8_t> bytes = recorded<std::uint8_t>(pin);
        ASSERT_EQ(bytes.size(), kBuffers * c.frames * c.format.frameBytes());
        // Which sample of the device the first one is, the rest follows.
        for (std::size_t i = 0; i < bytes.size() / c.format.bytesPerSample; ++i) {
            const std::size_t frame = i / 2;
            const auto number = static_cast<std::uint32_t>(frame * c.shape.channels + i % 2 + 1);
            const std::uint32_t sent = number * 0x10101;
            std::uint32_t expected = 0;
            std::memcpy(&expected,
                        reinterpret_cast<const std::uint8_t*>(&sent) +
                            (c.shape.subslotBytes - c.format.bytesPerSample),
                        c.format.bytesPerSample);
            std::uint32_t got = 0;
            std::memcpy(&got, bytes.data() + i * c.format.bytesPerSample, c.format.bytesPerSample);
            ASSERT_EQ(got, expected) << "sample " << i;
        }
    }
}

TEST(StreamSamples, InputThatHasNoConversionIsRefusedPacketByPacket) {
    Counting counting({.endpoint = kInEndpoint, .subslotBytes = 3});
    AudioMachine machine(counting.device());
    AudioPin pin(machine.filter(), 0, kPcm16); // 2 bytes are offered for every subslot
    pin.setState(KSSTATE_PAUSE);
    pin.read(400);
    pin.run();
    machine.sleep(50);
    EXPECT_GE(machine.mentions("ERROR in UsbAudioStream::ReadInputBytes() line 1256 - "
                               "\"Unsupported sample format\" \n"),
              1U);
    EXPECT_EQ(pin.finished(), 0U);
}

TEST(StreamSamples, APacketThatCannotBeReadEndsItsTransferAlone) {
    struct Case {
        const char* trace;
        bool shortened; // by a byte; otherwise empty
    };
    const Case cases[] = {
        {"ERROR in UsbAudioStream::ReadInputBytes() line 1218 - !pkt.Length \n", false},
        {"ERROR in UsbAudioStream::ReadInputBytes() line 1221 - "
         "(pkt.Length % urbBytesPerSampleFrame) != 0 \n",
         true},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.trace);
        Counting counting({.endpoint = kInEndpoint});
        AudioMachine machine(counting.device());
        usb::FaultRule rule = isochronousFault(kInEndpoint, 2, {.askPackets = true});
        rule.packets = usb::PacketFault{.index = 10, .verdict = {.length = c.shortened ? 47U : 0U}};
        machine.faults.add(rule);
        AudioPin pin(machine.filter(), 0, kPcm24);
        pin.setState(KSSTATE_PAUSE);
        for (int i = 0; i < 4; ++i) {
            pin.read(480 * 8);
        }
        pin.run();
        machine.sleep(200);
        EXPECT_EQ(machine.mentions(c.trace), 1U);
        // 10 packets of 6 frames stand before the bad one.
        EXPECT_EQ(machine.mentions("(in ) only processed    60 of   4"), 1U);
        ASSERT_EQ(pin.finished(), 4U);
        const std::vector<std::uint32_t> samples = recorded<std::uint32_t>(pin);
        EXPECT_EQ(samples[2 * (480 + 60) - 1], 2 * (480 + 60) * 0x10101U);
        EXPECT_EQ(samples[2 * (480 + 60)], (2 * 960 + 1) * 0x10101U); // from the next transfer
    }
}

TEST(StreamSamples, ASilentInputIsTold) {
    Counting counting({.endpoint = kInEndpoint});
    counting.framesOfPacket = [](std::uint32_t) {
        return 0;
    };
    AudioMachine machine(counting.device());
    AudioPin pin(machine.filter(), 0, kPcm24);
    pin.run();
    machine.sleep(25);
    EXPECT_EQ(
        machine.mentions("UsbAudioStream::IrpCompletion() Warning: packet lengths add up to 0 "
                         "(no data!?)\n"),
        1U);
}

} // namespace
} // namespace kelvane::tests
