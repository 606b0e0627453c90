// Audio pins as an application meets them: which formats they take, what they tell of themselves,
// how they stamp what goes through them.
#include "tests/support/audio_machine.h"
#include "tests/support/stream_device.h"

#include <gtest/gtest.h>

namespace kelvane::tests {
namespace {

// The status with which a pin refuses a connection; STATUS_SUCCESS when it takes it.
NTSTATUS open(const AudioMachine& machine, std::span<const std::byte> connection) {
    try {
        machine.filter().createPin(connection);
    } catch (const client::StatusError& error) {
        return static_cast<NTSTATUS>(error.status());
    }
    return STATUS_SUCCESS;
}

NTSTATUS open(const AudioMachine& machine, const PcmFormat& format, std::uint32_t pin = 0) {
    return open(machine, client::bytesOf(client::makeConnection(pin, format)));
}

TEST(AudioPin, TakesTheFormatsThatItsStreamCanConvert) {
    AudioMachine machine(deviceWith({.channels = 4}));
    struct Case {
        const char* what;
        PcmFormat format;
        bool taken;
    };
    const Case cases[] = {
        {"16-bit stereo", kPcm16, true},
        {"24-bit stereo in 4 bytes", kPcm24, true},
        {"20-bit stereo in 4 bytes", {.bits = 20, .bytesPerSample = 4}, true},
        {"all channels", {.channels = 4, .bits = 24, .bytesPerSample = 4}, true},
        {"24-bit packed", {.bits = 24, .bytesPerSample = 3}, false},
        {"8-bit", {.bits = 8, .bytesPerSample = 2}, false},
        {"32-bit", {.bits = 32, .bytesPerSample = 4}, false},
        {"mono", {.channels = 1}, false},
        {"three channels", {.channels = 3}, false},
        {"more channels than the stream has", {.channels = 6}, false},
        {"no channel at all", {.channels = 0}, false},
        {"the lowest rate", {.rate = 44100}, true},
        {"a rate below", {.rate = 32000}, false},
        {"a rate within the range that the clock lacks", {.rate = 50000}, false},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        EXPECT_EQ(open(machine, c.format), c.taken ? STATUS_SUCCESS : STATUS_NO_MATCH);
    }
    EXPECT_EQ(machine.mentions("Info - rejecting nSamplesPerSec (50000)\n"), 1U);
    EXPECT_EQ(machine.mentions("Info - rejecting nBlockAlign (6) (bytesPerSample = 4)\n"), 1U);
}

TEST(AudioPin, RefusesFormatsThatAreCutShort) {
    AudioMachine machine(deviceWith());
    client::PinConnection connection = client::makeConnection(0, kPcm16);
    for (const ULONG bytes : {64U, 65U, 80U, 81U}) {
        SCOPED_TRACE(bytes);
        connection.format.header.FormatSize = bytes;
        EXPECT_FALSE(NT_SUCCESS(
            open(machine, client::bytesOf(connection).first(sizeof(KSPIN_CONNECT) + bytes))));
    }
}

TEST(AudioPin, ASecondPinRunsAtTheRateOfTheFirst) {
    AudioMachine machine(deviceWith({}, {.endpoint = kInEndpoint}));
    PcmFormat other = kPcm16;
    other.rate = 96000;
    {
        const AudioPin render(machine.filter(), 0, kPcm16);
        EXPECT_EQ(open(machine, other, 2), STATUS_INSUFFICIENT_RESOURCES);
        EXPECT_EQ(machine.mentions("UsbAudioPin::DispatchCreate() : Device is locked to another "
                                   "sample rate\n"),
                  1U);
        EXPECT_EQ(open(machine, kPcm16, 2), STATUS_SUCCESS);
    }
    EXPECT_EQ(open(machine, other, 2), STATUS_SUCCESS);
    EXPECT_EQ(machine.mentions("called too many times"), 0U);
}

// --- Intersection -------------------------------------------------------------------------------

#pragma pack(push, 1)
struct IntersectionRequest {
    KSP_PIN pin;
    KSMULTIPLE_ITEM list;
    KSDATARANGE_AUDIO range;
};
struct Intersection {
    client::AudioDataFormat format;
};
#pragma pack(pop)

IntersectionRequest intersection(ULONG channels, ULONG bits, ULONG rate) {
    IntersectionRequest request = {};
    request.pin.Property = client::makeProperty(
        {STATIC_KSPROPSETID_Pin}, KSPROPERTY_PIN_DATAINTERSECTION, KSPROPERTY_TYPE_GET);
    request.list = {.Size = sizeof(KSMULTIPLE_ITEM) + sizeof(KSDATARANGE_AUDIO), .Count = 1};
    request.range.DataRange = client::makeDataFormat(kPcm16).header;
    request.range.DataRange.FormatSize = sizeof(KSDATARANGE_AUDIO);
    request.range.MaximumChannels = channels;
    request.range.MinimumBitsPerSample = bits;
    request.range.MaximumBitsPerSample = bits;
    request.range.MinimumSampleFrequency = rate;
    request.range.MaximumSampleFrequency = rate;
    return request;
}

TEST(AudioPin, IntersectsARangeToItsOneFormat) {
    AudioMachine machine(deviceWith());
    struct Case {
        IntersectionRequest request;
        NTSTATUS status;
        USHORT blockAlign;
        ULONG bytesPerSecond;
    };
    const Case cases[] = {
        {intersection(2, 24, 48000), STATUS_SUCCESS, 8, 384000},
        {intersection(2, 16, 192000), STATUS_SUCCESS, 4, 768000},
        {intersection(1, 16, 44100), STATUS_SUCCESS, 2, 88200},
        {intersection(3, 16, 48000), STATUS_NO_MATCH, 0, 0},
        {intersection(2, 20, 48000), STATUS_NO_MATCH, 0, 0},
        {intersection(2, 8, 48000), STATUS_NO_MATCH, 0, 0},
        {intersection(2, 32, 48000), STATUS_NO_MATCH, 0, 0},
        {intersection(2, 16, 44099), STATUS_NO_MATCH, 0, 0},
        {intersection(2, 16, 192001), STATUS_NO_MATCH, 0, 0},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(testing::Message() << c.request.range.MaximumChannels << " channels, "
                                        << c.request.range.MaximumBitsPerSample << " bits, "
                                        << c.request.range.MaximumSampleFrequency << " Hz");
        client::AudioDataFormat format = {};
        std::size_t size = 0;
        ASSERT_EQ(machine.filter().property(client::bytesOf(c.request),
                                            client::writableBytesOf(format), &size),
                  c.status);
        if (!NT_SUCCESS(c.status)) {
            continue;
        }
        EXPECT_EQ(size, sizeof format);
        EXPECT_EQ(format.header.FormatSize, sizeof(KSDATARANGE_AUDIO)); // as the caller gave it
        EXPECT_EQ(format.header.SampleSize, c.blockAlign);
        EXPECT_EQ(format.wave.wFormatTag, 1);
        EXPECT_EQ(format.wave.nChannels, c.request.range.MaximumChannels);
        EXPECT_EQ(format.wave.nSamplesPerSec, c.request.range.MaximumSampleFrequency);
        EXPECT_EQ(format.wave.wBitsPerSample, c.request.range.MaximumBitsPerSample);
        EXPECT_EQ(format.wave.nBlockAlign, c.blockAlign);
        EXPECT_EQ(format.wave.nAvgBytesPerSec, c.bytesPerSecond);
        EXPECT_EQ(format.wave.cbSize, 0);
    }
}

TEST(AudioPin, AsksForOneBitDepthAndRoomForTheFormat) {
    AudioMachine machine(deviceWith());
    IntersectionRequest request = intersection(2, 16, 48000);
    std::vector<std::byte> room(sizeof(client::AudioDataFormat));
    std::size_t size = 0;
    EXPECT_EQ(machine.filter().property(client::bytesOf(request), {}, &size),
              STATUS_BUFFER_OVERFLOW);
    EXPECT_EQ(size, 82U);
    EXPECT_EQ(machine.filter().property(client::bytesOf(request), std::span(room).first(81)),
              STATUS_BUFFER_TOO_SMALL);
    EXPECT_EQ(machine.mentions("UsbAudioPin::IntersectHandler() returning early (line 116)"), 1U);
    request.range.MaximumBitsPerSample = 24;
    EXPECT_EQ(machine.filter().property(client::bytesOf(request), room), STATUS_NO_MATCH);
    EXPECT_GE(machine.mentions("  MinimumBitsPerSample: 16  MaximumBitsPerSample: 24\n"), 1U);
}

// --- Properties ---------------------------------------------------------------------------------

TEST(AudioPin, AsksForBuffersOfOneTransfer) {
    struct Case {
        PcmFormat format;
        std::uint32_t urbSize;
        ULONG bytes;
    };
    const Case cases[] = {
        {{.rate = 44100}, 10, 1768}, // 441 frames and one more: the rate is no multiple of 1000
        {{.rate = 48000}, 10, 1920},
        {{.rate = 48000, .bits = 24, .bytesPerSample = 4}, 3, 1152},
        {{.rate = 44100, .bits = 24, .bytesPerSample = 4}, 3, 1064},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.bytes);
        AudioMachine machine(deviceWith(), {.urbSize = c.urbSize});
        const AudioPin pin(machine.filter(), 0, c.format);
        KSALLOCATOR_FRAMING framing = {};
        ASSERT_EQ(pin.get(kConnectionSet, KSPROPERTY_CONNECTION_ALLOCATORFRAMING, framing),
                  STATUS_SUCCESS);
        EXPECT_EQ(framing.RequirementsFlags, ULONG{KSALLOCATOR_REQUIREMENTF_SYSTEM_MEMORY});
        EXPECT_EQ(framing.PoolType, NonPagedPool);
        EXPECT_EQ(framing.Frames, 8U);
        EXPECT_EQ(framing.FrameSize, c.bytes);
        EXPECT_EQ(framing.FileAlignment, 0U);
    }
}

TEST(AudioPin, StampsItsBuffersAndTellsItsPosition) {
    struct Case {
        PcmFormat format;
        LONGLONG duration; // of 480 frames, 100 ns
    };
    // 24-bit samples are counted as 3 bytes a second, though they travel in 4.
    for (const Case& c : {Case{kPcm16, 100000}, Case{kPcm24, 133333}}) {
        SCOPED_TRACE(c.format.bits);
        AudioMachine machine(deviceWith());
        AudioPin pin(machine.filter(), 0, c.format);
        const std::size_t bytes = 480 * c.format.frameBytes();
        pin.setState(KSSTATE_PAUSE);
        for (int i = 0; i < 5; ++i) {
            pin.write(std::vector<std::uint8_t>(bytes, 1));
        }
        pin.run();
        machine.sleep(200);
        ASSERT_EQ(pin.finished(), 5U);
        for (std::size_t i = 0; i < 5; ++i) {
            SCOPED_TRACE(i);
            const KSSTREAM_HEADER& header = pin.buffers[i]->header;
            const auto begin = static_cast<LONGLONG>(i * bytes * 10000000 /
                                                     (c.format.bits == 16 ? 192000 : 288000));
            EXPECT_EQ(header.PresentationTime.Time, begin);
            EXPECT_EQ(header.Duration, c.duration);
            EXPECT_EQ(header.OptionsFlags, ULONG{KSSTREAM_HEADER_OPTIONSF_TIMEVALID |
                                                 KSSTREAM_HEADER_OPTIONSF_DURATIONVALID});
        }
        KSAUDIO_POSITION position = {};
        ASSERT_EQ(pin.get(kAudioSet, KSPROPERTY_AUDIO_POSITION, position), STATUS_SUCCESS);
        EXPECT_EQ(position.PlayOffset, 5 * bytes);
        EXPECT_EQ(position.WriteOffset, 5 * bytes);

        pin.stop();
        position = {.PlayOffset = 1000, .WriteOffset = 3000};
        pin.file().set(
            client::makeProperty(kAudioSet, KSPROPERTY_AUDIO_POSITION, KSPROPERTY_TYPE_SET),
            position, "position");
        position = {};
        ASSERT_EQ(pin.get(kAudioSet, KSPROPERTY_AUDIO_POSITION, position), STATUS_SUCCESS);
        EXPECT_EQ(position.PlayOffset, 1000U);
        EXPECT_EQ(position.WriteOffset, 3000U);
    }
}

struct ChannelNameRequest {
    KSPROPERTY property;
    ULONG channel;
};

TEST(AudioPin, NamesItsChannels) {
    struct Case {
        std::uint8_t first; // string index of channel 0; 0: no names
        ULONG channel;
        NTSTATUS status;
        std::u16string name;
    };
    const Case cases[] = {
        {5, 0, STATUS_SUCCESS, u"Left"},
        {5, 1, STATUS_SUCCESS, u"Right"},
        {5, 2, STATUS_SUCCESS, u"Behind the last"}, // let through
        {5, 3, STATUS_INVALID_PARAMETER, u""},
        {5, 0x102, STATUS_INVALID_PARAMETER, u""},
        {0, 0, STATUS_NOT_SUPPORTED, u""},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(testing::Message() << int{c.first} << ", channel " << c.channel);
        Bytes general = asGeneral(2);
        general.back() = c.first;
        auto device = deviceOf(
            {joined({silentSetting(1),
                     setting(1, 1, 1,
                             {general, formatTypeI(4, 24),
                              endpointDescriptor(kOutEndpoint, kAsynchronous, 232, 1)})})});
        device->strings[5] = stringDescriptor(u"Left");
        device->strings[6] = stringDescriptor(u"Right");
        device->strings[7] = stringDescriptor(u"Behind the last");
        AudioMachine machine(device);
        const AudioPin pin(machine.filter(), 0, kPcm16);
        const ChannelNameRequest request = {
            client::makeProperty(kKelvaneSet, 30, KSPROPERTY_TYPE_GET), c.channel};
        std::array<char16_t, 64> name = {};
        EXPECT_EQ(pin.file().property(client::bytesOf(request), client::writableBytesOf(name)),
                  c.status);
        if (NT_SUCCESS(c.status)) {
            EXPECT_EQ(std::u16string(name.data()), c.name);
        }
    }
}

TEST(AudioPin, RefusesWhatItDoesNotHave) {
    AudioMachine machine(deviceWith());
    const AudioPin pin(machine.filter(), 0, kPcm16);
    ULONG value = 0;
    EXPECT_FALSE(NT_SUCCESS(pin.get(kKelvaneSet, 31, value)));
    EXPECT_FALSE(NT_SUCCESS(pin.get(kKelvaneSet, 50, value))); // 84 bytes are the least
    KSALLOCATOR_FRAMING framing = {};
    EXPECT_FALSE(NT_SUCCESS(pin.file().property(
        client::bytesOf(client::makeProperty(kConnectionSet, KSPROPERTY_CONNECTION_ALLOCATORFRAMING,
                                             KSPROPERTY_TYPE_SET)),
        client::writableBytesOf(framing))));
}

TEST(AudioPin, AnIdlePinOnlyWarnsOfItsHunger) {
    AudioMachine machine(deviceWith());
    AudioPin pin(machine.filter(), 0, kPcm16);
    pin.run();
    machine.sleep(100);
    EXPECT_GE(machine.mentions("(out) only processed     0 of   480 samples\n"), 5U);
    pin.write(std::vector<std::int16_t>(2 * 100, 1));
    machine.sleep(50);
    EXPECT_EQ(pin.finished(), 1U);
    EXPECT_EQ(machine.mentions("(out) only processed   100 of   480 samples\n"), 1U);
}

} // namespace
} // namespace kelvane::tests
