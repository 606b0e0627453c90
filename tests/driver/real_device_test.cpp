// Real devices, on a USB library that has a simulated one: the same transfers, on the wall clock.
// How late a busy computer makes them doesn't matter.
#include "tests/support/fake_usb_library.h"
#include "tests/support/midi_adapter.h"

#include "client/client.h"
#include "client/control.h"
#include "client/real_devices.h"
#include "devices/audio_sink.h"
#include "devices/midi_loopback.h"
#include "devices/models.h"
#include "devices/signal_sources.h"
#include "devices/simulated_interface.h"
#include "devices/wrapped_device.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <iostream>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace kelvane::client {
namespace {

using tests::FakeUsbLibrary;

constexpr std::uint32_t kStall = 10'000; // ms
constexpr std::uint32_t kTransfer = 40;  // bus frames: a busy computer is seldom so late

// A built-in model at the other end of a cable.
class RealDeviceTest : public testing::Test {
protected:
    void plug(const std::string& model, devices::DeviceOptions device = {}) {
        device.sink = sink;
        const auto made = devices::makeDevice(model, device);
        library = std::make_shared<FakeUsbLibrary>(made, made->descriptors());
    }
    SystemOptions options(const std::string& name = "1-4") {
        SystemOptions system;
        system.usb = true;
        system.usbLibrary = library;
        system.device = name;
        system.transferFrames = kTransfer;
        system.trace = [this](const std::string& line) {
            const std::lock_guard guard(m_mutex);
            trace += line + '\n';
        };
        system.note = [this](const std::string& note) {
            const std::lock_guard guard(m_mutex);
            notes.push_back(note);
        };
        system.breaches = [this](const std::string& breach) {
            const std::lock_guard guard(m_mutex);
            breaches.push_back(breach);
        };
        return system;
    }
    // Why it can't be had.
    std::string refusal(const SystemOptions& system) {
        try {
            const System refused(system);
        } catch (const std::exception& error) {
            return error.what();
        }
        return "nothing is refused";
    }
    void TearDown() override {
        EXPECT_EQ(breaches, std::vector<std::string>());
        if (HasFailure()) {
            std::cerr << trace;
        }
    }

    std::shared_ptr<devices::BufferSink> sink = std::make_shared<devices::BufferSink>();
    std::shared_ptr<FakeUsbLibrary> library;
    std::vector<std::string> notes;
    std::vector<std::string> breaches;
    std::string trace;

private:
    std::mutex m_mutex;
};

constexpr PcmFormat kFormat{.rate = 48000, .channels = 2, .bits = 24, .bytesPerSample = 4};

// Left-justified samples that count up, none of them silence.
std::vector<std::int32_t> counting(std::size_t samples) {
    std::vector<std::int32_t> values(samples);
    for (std::size_t i = 0; i < samples; ++i) {
        values[i] = static_cast<std::int32_t>(i + 1) << 8;
    }
    return values;
}

bool contains(const std::vector<std::int32_t>& all, const std::vector<std::int32_t>& wanted) {
    return std::search(all.begin(), all.end(), wanted.begin(), wanted.end()) != all.end();
}

void start(RenderStream& stream, std::span<const std::byte>& bytes) {
    stream.acquire();
    stream.pause();
    while (!bytes.empty() && stream.queued() < 8) {
        const std::size_t size = std::min<std::size_t>(bytes.size(), stream.bufferBytes());
        stream.write(bytes.first(size));
        bytes = bytes.subspan(size);
    }
    stream.run();
}

void finish(RenderStream& stream, std::span<const std::byte> bytes) {
    while (!bytes.empty()) {
        ASSERT_TRUE(stream.waitForQueue(7, kStall)) << "the pin took no data";
        const std::size_t size = std::min<std::size_t>(bytes.size(), stream.bufferBytes());
        stream.write(bytes.first(size));
        bytes = bytes.subspan(size);
    }
    ASSERT_TRUE(stream.drain(kStall)) << "the pin left data unplayed";
    stream.stop();
}

TEST_F(RealDeviceTest, WhatIsPlayedIsHeardToTheBit) {
    plug("stereo-out");
    library->kernelDrivers = {0, 1};
    const auto samples = counting(kFormat.rate / 2 * kFormat.channels);
    {
        System system(options("1209:0001:K1"));
        EXPECT_FALSE(system.isSimulated());
        EXPECT_EQ(library->claimed, (std::set<int>{0, 1}));
        std::span<const std::byte> bytes = std::as_bytes(std::span(samples));
        RenderStream stream = system.openRender(kFormat);
        start(stream, bytes);
        finish(stream, bytes);
        EXPECT_GE(system.busCounters().transfers, 500U / kTransfer);
        EXPECT_EQ(system.busCounters().errors, 0U);
        EXPECT_TRUE(system.feedbackRate());
    }
    // Everything is as it was found.
    EXPECT_EQ(library->configurations, std::vector<int>{1});
    EXPECT_EQ(library->claimed, std::set<int>());
    EXPECT_EQ(library->kernelDrivers, (std::set<int>{0, 1}));
    EXPECT_FALSE(library->isOpen);
    EXPECT_EQ(trace.find("timed out"), std::string::npos) << trace;

    ASSERT_FALSE(sink->parts().empty());
    const auto& heard = sink->parts().back().frames;
    std::vector<std::int32_t> played(heard.size() / sizeof(std::int32_t));
    std::memcpy(played.data(), heard.data(), played.size() * sizeof(std::int32_t));
    EXPECT_TRUE(contains(played, samples)) << "of " << played.size() << " samples heard";
}

TEST_F(RealDeviceTest, WhatIsHeardIsRecordedToTheBit) {
    plug("duplex", {.source = devices::makeSource("counter")});
    System system(options());
    CaptureStream stream = system.openCapture(kFormat);
    stream.acquire();
    stream.pause();
    stream.queueBuffers(8);
    stream.run();
    std::vector<std::uint32_t> samples;
    while (samples.size() < kFormat.rate / 2) {
        const auto audio = stream.read(kStall);
        ASSERT_TRUE(audio) << "the pin brought no data";
        EXPECT_FALSE(audio->discontinuity);
        const std::size_t before = samples.size();
        samples.resize(before + audio->frames.size() / sizeof(std::uint32_t));
        std::memcpy(samples.data() + before, audio->frames.data(), audio->frames.size());
        stream.queueBuffers(8);
    }
    stream.stop();
    // Each sample frame has the next number.
    constexpr std::uint32_t kStep = 1U << (32 - 24 + devices::CounterSource::kChannelBits);
    std::size_t wrong = 0;
    for (std::size_t i = 0; i + 2 < samples.size(); ++i) {
        wrong += samples[i + 2] - samples[i] == kStep ? 0 : 1;
    }
    EXPECT_EQ(wrong, 0U) << "of " << samples.size() << " samples";
}

// Both directions on the input's clock: what went out comes back.
TEST_F(RealDeviceTest, BothDirectionsRunTogether) {
    plug("duplex", {.source = devices::makeSource("loopback")});
    System system(options());
    const auto samples = counting(kFormat.rate / 2 * kFormat.channels);
    std::span<const std::byte> bytes = std::as_bytes(std::span(samples));
    RenderStream output = system.openRender(kFormat);
    CaptureStream input = system.openCapture(kFormat);
    std::vector<std::int32_t> heard;
    const auto listen = [&] {
        const auto audio = input.read(kStall);
        ASSERT_TRUE(audio) << "the input brought no data";
        const std::size_t before = heard.size();
        heard.resize(before + audio->frames.size() / sizeof(std::int32_t));
        std::memcpy(heard.data() + before, audio->frames.data(), audio->frames.size());
        input.queueBuffers(8);
    };
    input.acquire();
    input.pause();
    input.queueBuffers(8);
    start(output, bytes);
    input.run();
    while (!bytes.empty()) {
        listen();
        const std::size_t size = std::min<std::size_t>(bytes.size(), output.bufferBytes());
        output.write(bytes.first(size));
        bytes = bytes.subspan(size);
    }
    while (!output.waitForQueue(0, 0)) {
        listen();
    }
    for (int i = 0; i < 8; ++i) { // what is still under way
        listen();
    }
    output.stop();
    input.stop();
    EXPECT_TRUE(contains(heard, samples)) << "of " << heard.size() << " samples heard";
}

TEST_F(RealDeviceTest, ControlRequestsReachItAndAStallIsAnError) {
    plug("duplex");
    System system(options());
    Control control(system.openPort());
    EXPECT_EQ(control.supportedRates(),
              (std::vector<std::uint32_t>{44100, 48000, 88200, 96000, 176400, 192000}));
    control.setSampleRate(96000);
    EXPECT_EQ(control.sampleRate(), 96000U);
    EXPECT_EQ(control.descriptor(1).size(), 18U);
    // No device has a string of this index, and a stall stops no later request.
    EXPECT_THROW(control.descriptor(3, 0x77, 0x0409), StatusError);
    EXPECT_EQ(control.sampleRate(), 96000U);
}

TEST_F(RealDeviceTest, MidiGoesOutAndComesIn) {
    auto loop = std::make_shared<devices::MidiLoopback>();
    plug("duplex-midi", {.midiSource = loop, .midiSink = loop});
    System system(options());
    const auto ports = system.midiPorts();
    ASSERT_EQ(ports.size(), 2U);
    MidiInput input = system.openMidiInput(ports[ports[0].input ? 0 : 1]);
    MidiOutput output = system.openMidiOutput(ports[ports[0].input ? 1 : 0]);
    const auto message = [](int i) {
        return std::vector{std::byte{0x90}, static_cast<std::byte>(i), std::byte{1}};
    };
    for (int i = 0; i < 50; ++i) {
        output.write(message(i));
    }
    for (int i = 0; i < 50; ++i) {
        const auto heard = input.read(kStall);
        ASSERT_TRUE(heard) << "message " << i;
        EXPECT_TRUE(std::ranges::equal(heard->bytes, message(i))) << "message " << i;
    }
}

// Keeps what it was asked on its default pipe.
class Asked : public devices::WrappedDevice {
public:
    using WrappedDevice::WrappedDevice;
    devices::ControlReply control(const devices::SetupPacket& setup, std::uint64_t microframe,
                                  std::span<std::byte> data) override {
        {
            const std::lock_guard guard(m_mutex);
            m_setups.push_back(setup);
        }
        return WrappedDevice::control(setup, microframe, data);
    }
    std::vector<devices::SetupPacket> setups() const {
        const std::lock_guard guard(m_mutex);
        return m_setups;
    }

private:
    mutable std::mutex m_mutex;
    std::vector<devices::SetupPacket> m_setups;
};

// A USB-MIDI adapter at the other end of a cable, its output connected to its input.
class AdapterTest : public RealDeviceTest {
protected:
    void plugAdapter(devices::Speed speed = devices::Speed::High) {
        const auto loop = std::make_shared<devices::MidiLoopback>();
        const auto bytes = tests::adapterDescriptors(speed == devices::Speed::High ? 512 : 64);
        const auto descriptors = devices::parseDevice(bytes);
        devices::InterfaceOptions interface;
        interface.speed = speed;
        interface.strings = [](std::uint8_t) {
            return "Adapter";
        };
        interface.midiSink = loop;
        interface.midiSource = loop;
        asked = std::make_shared<Asked>(
            std::make_shared<devices::SimulatedInterface>(descriptors, std::move(interface)));
        library = std::make_shared<FakeUsbLibrary>(asked, descriptors);
        library->kernelDrivers = {0, 1};
    }

    std::shared_ptr<Asked> asked;
};

TEST_F(AdapterTest, IsRefusedAsItIs) {
    plugAdapter();
    const std::string text = refusal(options());
    for (const char* part : {"no AudioStreaming interface", "--midi-only"}) {
        EXPECT_NE(text.find(part), std::string::npos) << part << " in: " << text;
    }
    EXPECT_EQ(library->kernelDrivers, (std::set<int>{0, 1}));
}

TEST_F(AdapterTest, ItsMidiGoesOutAndComesInWhenThatIsPresentedAlone) {
    std::vector<std::byte> sysex(64 * 1024);
    for (std::size_t i = 0; i < sysex.size(); ++i) {
        sysex[i] = static_cast<std::byte>((i * 7 + i / 128) & 0x7F);
    }
    sysex.front() = std::byte{0xF0};
    sysex.back() = std::byte{0xF7};
    for (const devices::Speed speed : {devices::Speed::High, devices::Speed::Full}) {
        SCOPED_TRACE(speed == devices::Speed::High ? "high speed" : "full speed");
        plugAdapter(speed);
        SystemOptions system = options();
        system.midiOnly = true;
        {
            System machine(system);
            EXPECT_EQ(library->claimed, (std::set<int>{0, 1}));
            const auto ports = machine.midiPorts();
            ASSERT_EQ(ports.size(), 2U);
            MidiInput input = machine.openMidiInput(ports[ports[0].input ? 0 : 1]);
            MidiOutput output = machine.openMidiOutput(ports[ports[0].input ? 1 : 0]);
            output.write(sysex);
            std::vector<std::byte> heard;
            while (heard.size() < sysex.size()) {
                const auto piece = input.read(kStall);
                ASSERT_TRUE(piece) << "after " << heard.size() << " bytes";
                heard.insert(heard.end(), piece->bytes.begin(), piece->bytes.end());
            }
            EXPECT_EQ(heard, sysex);
        }
        EXPECT_EQ(library->claimed, std::set<int>());
        EXPECT_EQ(library->kernelDrivers, (std::set<int>{0, 1}));
        EXPECT_TRUE(std::ranges::any_of(notes, [](const std::string& note) {
            return note.find("no USB Audio 2.0") != std::string::npos;
        }));
        // What is for the placeholders alone has never reached it.
        for (const devices::SetupPacket& setup : asked->setups()) {
            EXPECT_NE(setup.bmRequestType & 0x1F, 1) << "bRequest " << int{setup.bRequest};
        }
    }
}

TEST_F(AdapterTest, OthersAreNotPresentedSo) {
    struct Case {
        const char* model;
        const char* said;
    };
    for (const Case& each : {Case{"duplex-midi", "USB Audio 2.0 of its own"},
                             Case{"midi", "USB Audio 2.0 of its own"}, Case{"dfu", "no MIDI"}}) {
        plug(each.model);
        SystemOptions system = options();
        system.midiOnly = true;
        const std::string text = refusal(system);
        EXPECT_NE(text.find(each.said), std::string::npos) << text;
        EXPECT_FALSE(library->isOpen);
    }
}

// In the middle of a stream, with reads of MIDI waiting beside it.
TEST_F(RealDeviceTest, PulledOutItIsGoneForTheDriverToo) {
    for (const bool playing : {false, true}) {
        plug("duplex-midi");
        System system(options());
        Control control(system.openPort());
        std::optional<RenderStream> stream;
        if (playing) {
            stream.emplace(system.openRender(kFormat));
            const auto samples = counting(std::size_t{kFormat.rate} * 2 * kFormat.channels);
            std::span<const std::byte> bytes = std::as_bytes(std::span(samples));
            start(*stream, bytes);
            ASSERT_TRUE(stream->waitForQueue(6, kStall));
        }
        library->unplug();
        EXPECT_THROW(control.setSampleRate(44100), StatusError);
        for (int i = 0; i < 1000 && !system.isGone(); ++i) { // the driver is told by a thread
            system.sleep(10);
        }
        EXPECT_TRUE(system.isGone());
    }
    EXPECT_FALSE(library->isOpen);
}

TEST_F(RealDeviceTest, PacketsThatFailAreCounted) {
    struct Case {
        libusb_transfer_status status;
        unsigned errors;
    };
    for (const Case& each : {Case{LIBUSB_TRANSFER_ERROR, 3}, Case{LIBUSB_TRANSFER_OVERFLOW, 3},
                             Case{LIBUSB_TRANSFER_COMPLETED, 0}}) {
        plug("duplex");
        System system(options());
        CaptureStream stream = system.openCapture(kFormat);
        library->failPackets(0x81, {each.status, each.status, each.status});
        stream.acquire();
        stream.pause();
        stream.queueBuffers(8);
        stream.run();
        ASSERT_TRUE(stream.read(kStall));
        stream.stop();
        EXPECT_EQ(system.busCounters().errors, each.errors) << "status " << each.status;
    }
}

// What a person reads who can't have it, and that nothing is kept of it.
TEST_F(RealDeviceTest, ARefusalSaysWhy) {
    struct Case {
        const char* title;
        void (*arrange)(FakeUsbLibrary&);
        const char* name;
        std::vector<const char*> said;
    };
    const Case cases[] = {
        {"no permission",
         [](FakeUsbLibrary& library) { library.openStatus = LIBUSB_ERROR_ACCESS; },
         "1-4",
         {"/dev/bus/usb/001/004", "70-kelvane.rules"}},
        {"another program has it",
         [](FakeUsbLibrary& library) { library.claimStatus[1] = LIBUSB_ERROR_BUSY; },
         "1-4",
         {"interface 1", "another program has it"}},
        {"not there", [](FakeUsbLibrary&) {}, "1209:0099", {"1209:0099", "1-4  1209:0001:K1"}},
        {"another serial number", [](FakeUsbLibrary&) {}, "1209:0001:K2", {"1-4  1209:0001:K1"}},
        {"no USB", [](FakeUsbLibrary& library) { library.others.clear(); }, "1-4", {"has none"}},
        {"two of a kind",
         [](FakeUsbLibrary& library) {
             library.others.push_back(library.listed);
             library.others.back().address = 5;
         },
         "1209:0001",
         {"several", "1-4  1209", "1-5  1209"}},
        {"another vendor's",
         [](FakeUsbLibrary& library) { library.present(0x1234); },
         "1-4",
         {"1234", "--as-vendor 1209"}},
        {"no descriptors",
         [](FakeUsbLibrary& library) { library.others[0].descriptors.resize(20); },
         "1-4",
         {"descriptors"}},
        {"no name", [](FakeUsbLibrary&) {}, "banana", {"VID:PID", "BUS-ADDRESS"}},
        {"no name either", [](FakeUsbLibrary&) {}, "1209:0001:", {"VID:PID:SERIAL"}},
    };
    for (const Case& each : cases) {
        SCOPED_TRACE(each.title);
        plug("stereo-out");
        each.arrange(*library);
        library->kernelDrivers = {0};
        const std::string text = refusal(options(each.name));
        for (const char* part : each.said) {
            EXPECT_NE(text.find(part), std::string::npos) << part << " in: " << text;
        }
        EXPECT_FALSE(library->isOpen);
        EXPECT_EQ(library->claimed, std::set<int>());
        EXPECT_EQ(library->kernelDrivers, std::set<int>{0});
    }
}

TEST_F(RealDeviceTest, AnotherVendorsIsPresentedAsAskedFor) {
    plug("stereo-out");
    library->present(0x1234);
    SystemOptions asked = options();
    asked.asVendor = 0x20B1;
    System system(asked);
    EXPECT_TRUE(std::ranges::any_of(notes, [](const std::string& note) {
        return note.find("1234") != std::string::npos && note.find("20b1") != std::string::npos;
    }));
    EXPECT_NE(system.describe().symbolicLink.find("VID_20B1"), std::string::npos);
}

TEST_F(RealDeviceTest, TheListTellsWhatTheDriverCanHave) {
    plug("duplex");
    library->others.push_back(library->listed);
    library->others.back().permitted = false;
    library->others.back().descriptors[8] = std::byte{0x34}; // idVendor
    library->others.back().vendor = 0x1234;
    library->others.push_back(library->listed);
    library->others.back().descriptors.resize(18); // not an audio interface
    library->others.push_back(library->listed);
    library->others.back().speed.reset(); // low speed
    library->others.push_back(library->listed);
    library->others.back().descriptors = tests::adapterDescriptors();
    const std::vector<RealDevice> found = realDevices(library);
    ASSERT_EQ(found.size(), 3U);
    EXPECT_EQ(found[0].place, "1-4");
    EXPECT_EQ(found[0].serial, "K1");
    EXPECT_TRUE(found[0].permitted);
    EXPECT_FALSE(found[0].needsVendor);
    EXPECT_FALSE(found[1].permitted);
    EXPECT_TRUE(found[1].needsVendor);
    EXPECT_FALSE(found[1].needsMidiOnly);
    EXPECT_TRUE(found[2].needsMidiOnly);
}

} // namespace
} // namespace kelvane::client
