// From loading the driver to removing the device: what it accepts, what it publishes, what it
// leaves.
#include "tests/support/audio_machine.h"
#include "tests/support/stream_device.h"

#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

namespace kelvane::tests {
namespace {

using Texts = std::vector<std::string>;

Bytes output() {
    return stereoStream(1, 0x01);
}

Bytes both() {
    return joined({stereoStream(1, 0x01), stereoStream(2, 0x82)});
}

Bytes dfu() {
    return configuration(1, {interfaceDescriptor(0, 0, 0, 0xFE, 1)});
}

// --- Entry --------------------------------------------------------------------------------------

TEST(DriverEntry, ReadsItsParameters) {
    struct Case {
        const char* name;
        std::optional<nt::RegistryValue> value;
        const char* trace;
    };
    const auto dword = [](std::uint8_t low) {
        return nt::RegistryValue{u"DontHideVexlinkPorts",
                                 REG_DWORD,
                                 {std::byte{low}, std::byte{0}, std::byte{0}, std::byte{0}}};
    };
    const auto other = [](ULONG type, std::size_t bytes) {
        return nt::RegistryValue{u"DontHideVexlinkPorts", type, std::vector<std::byte>(bytes)};
    };
    const Case cases[] = {
        {"no key", std::nullopt, "LoadDriverParameters - ZwOpenKey failed - error c0000034\n"},
        {"another value", nt::RegistryValue{u"Other", REG_DWORD, {}},
         "RegQueryValue(DontHideVexlinkPorts) failed with error c0000034\n"},
        {"number", dword(3), "Parameter 'DontHideVexlinkPorts' = 3\n"},
        {"string", other(REG_SZ, 8),
         "RegQueryValue(DontHideVexlinkPorts) failed with error c0000024\n"},
        {"short number", other(REG_DWORD, 2),
         "RegQueryValue(DontHideVexlinkPorts) failed with error c0000024\n"},
        {"longer than 4096 bytes", other(REG_BINARY, 5000),
         "RegQueryValue(DontHideVexlinkPorts) failed with error 80000005\n"},
    };
    for (const Case& each : cases) {
        SCOPED_TRACE(each.name);
        const client::Driver code;
        TracedMachine box;
        if (each.value) {
            box.machine.registry().set(nt::serviceKeyPath(u"kelvane") + u"\\Parameters",
                                       each.value->name, each.value->type, each.value->data);
        }
        NTSTATUS status = STATUS_UNSUCCESSFUL;
        DRIVER_OBJECT* const driver = nt::loadDriver(code.entry(), u"kelvane", &status);
        EXPECT_EQ(status, STATUS_SUCCESS);
        EXPECT_TRUE(box.traced("dorvel : DriverEntry()\n"));
        EXPECT_TRUE(box.traced(each.trace));
        // What the class driver had installed is called once, however often the driver is unloaded.
        driver->DriverUnload(driver);
        nt::unloadDriver(driver);
    }
}

// --- Refusals -----------------------------------------------------------------------------------

struct Refusal {
    const char* name;
    Bytes configuration;
    std::uint16_t vendor;
    void (*prepare)(ScriptedDevice&);
    NTSTATUS status;
    const char* trace;
};

TEST(DeviceStart, RefusesWhatItCantServe) {
    const Bytes good = audioConfiguration(1, output());
    const auto asItIs = [](ScriptedDevice&) {
    };
    const Refusal refusals[] = {
        {"vendor", good, 0x0763, asItIs, STATUS_NOT_SUPPORTED,
         "UsbAudioDevice::PostStart() Error - Enumerate() failed with NTSTATUS 0xc00000bb\n"},
        {"no streaming interface behind the control interface",
         configuration(2, {interfaceDescriptor(0, 0, 0, 1, 1), clockSource(kClock, 3),
                           interfaceDescriptor(1, 0, 0, 3, 0)}),
         KELVANE_VENDOR_ID, asItIs, STATUS_DEVICE_NOT_READY,
         "UsbAudioDevice::PostStart() Error - no audio control interface\n"},
        {"clock doesn't answer", good, KELVANE_VENDOR_ID,
         [](ScriptedDevice& device) { device.current.clear(); },
         static_cast<NTSTATUS>(USBD_STATUS_STALL_PID),
         "UsbAudioDevice::PostStart() Error - AudioControlInterface->getSampleRate() failed with "
         "NTSTATUS 0xc0000004\n"},
        {"product string is refused", good, KELVANE_VENDOR_ID,
         [](ScriptedDevice& device) { device.strings.clear(); },
         static_cast<NTSTATUS>(USBD_STATUS_STALL_PID),
         "UsbAudioDevice::PostStart() Error - GetStringDescriptor() failed with NTSTATUS "
         "0xc0000004\n"},
        {"product string is too long", good, KELVANE_VENDOR_ID,
         [](ScriptedDevice& device) {
             device.strings[2] = stringDescriptor(std::u16string(33, u'n'));
         },
         STATUS_BUFFER_OVERFLOW,
         "UsbAudioDevice::PostStart() Error - GetStringDescriptor() failed with NTSTATUS "
         "0x80000005\n"},
        {"malformed", configuration(2, {{0, 4}}), KELVANE_VENDOR_ID, asItIs,
         STATUS_DEVICE_DATA_ERROR,
         "UsbAudioDevice::PostStart() : m_UsbDev.Open() returned error c000009c\n"},
    };
    DriverHost host;
    for (const Refusal& refusal : refusals) {
        SCOPED_TRACE(refusal.name);
        host.box.forget();
        refusal.prepare(host.plug(refusal.configuration, 0x0001, refusal.vendor));
        EXPECT_EQ(host.start(), refusal.status);
        EXPECT_TRUE(host.box.traced(refusal.trace));
        EXPECT_TRUE(host.box.traced("UsbAudioDevice::Remove()\n"));
        EXPECT_TRUE(host.box.traced("UsbAudioDevice::~UsbAudioDevice()\n"));
        EXPECT_EQ(host.link(), u"");
    }
}

TEST(DeviceStart, ServesTwoVendors) {
    DriverHost host;
    for (const std::uint16_t vendor : {std::uint16_t{KELVANE_VENDOR_ID}, std::uint16_t{0x20B1}}) {
        host.plug(audioConfiguration(1, output()), 0x0001, vendor);
        EXPECT_EQ(host.start(), STATUS_SUCCESS);
    }
}

// What applications do with the first streaming pin. True when it took a format.
bool stream(DriverHost& host) {
    bool opened = false;
    const client::KsFile filter = host.openFilter();
    for (const PcmFormat& format : {kPcm16, kPcm24}) {
        try {
            AudioPin pin(filter, 0, format);
            opened = true;
            pin.setState(KSSTATE_PAUSE);
            pin.write(std::vector<std::uint8_t>(format.frameBytes() * 96, 1));
            pin.run();
            TracedMachine::sleep(20);
        } catch (const client::StatusError&) {
            // Refused, or a capture pin, which takes no data.
        }
    }
    return opened;
}

// Firmware that got its descriptors wrong is served or refused, and what is served streams; it
// never makes the driver read what isn't there, and leaves nothing behind.
TEST(DeviceStart, SurvivesDamagedDescriptors) {
    DriverHost host;
    const Bytes out = endpointDescriptor(kOutEndpoint, kAsynchronous, 232, 1);
    const Bytes whole = configuration(
        4, {interfaceDescriptor(0, 0, 1, 1, 1), clockSource(kClock, 3),
            clockSelector(0x28, {kClock}), endpointDescriptor(0x83, 3, 6, 4), silentSetting(1),
            setting(1, 1, 2,
                    {asGeneral(4), limitedFormatTypeI(4, 24, 48000), out,
                     endpointDescriptor(kFeedbackEndpoint, kFeedback, 4, 4)}),
            setting(1, 2, 1, {asGeneral(2), formatTypeI(2, 16), out}), stereoStream(2, 0x82),
            interfaceDescriptor(3, 0, 0, 0xFE, 1)});
    std::mt19937 random(20260202);
    int started = 0;
    int refused = 0;
    int opened = 0;
    for (int run = 0; run < 200; ++run) {
        SCOPED_TRACE(run);
        Bytes damaged = whole;
        if (run % 4 == 0) { // cut off, and honest about it
            damaged.resize(9 + random() % (whole.size() - 9));
            damaged[2] = low(damaged.size());
        }
        for (std::size_t n = 1 + random() % 3; n > 0; --n) {
            const std::size_t at = 4 + random() % (damaged.size() - 4);
            damaged[at] = static_cast<std::uint8_t>(random() % 2 == 0 ? random() % 40 : random());
        }
        host.plug(damaged);
        host.setSaved(u"UrbSize", 2);
        const std::uint64_t blocks = host.box.machine.pool().counters().blocks;
        if (NT_SUCCESS(host.start())) {
            ++started;
            opened += stream(host) ? 1 : 0;
        } else {
            ++refused;
        }
        host.remove();
        EXPECT_EQ(host.box.machine.pool().counters().blocks, blocks);
    }
    EXPECT_GT(started, 25);
    EXPECT_GT(refused, 25);
    EXPECT_GT(opened, 25);
}

// --- What is published --------------------------------------------------------------------------

TEST(DeviceStart, PublishesAnEmptyFilterInDfuMode) {
    DriverHost host;
    ScriptedDevice& device = host.plug(dfu());
    ASSERT_EQ(host.start(), STATUS_SUCCESS);
    EXPECT_TRUE(host.box.traced("UsbAudioDevice::PostStart() Device is in DFU mode...\n"));
    EXPECT_TRUE(device.classRequests().empty());
    const client::FilterInfo filter = host.describe();
    EXPECT_EQ(filter.friendlyName, "Scripted");
    EXPECT_TRUE(filter.pins.empty());
    EXPECT_TRUE(filter.nodes.empty());
    EXPECT_TRUE(filter.connections.empty());
}

// From (node, pin) to (node, pin), as "filter 0 > 0.1".
Texts wiring(const client::FilterInfo& filter) {
    const auto end = [](std::int64_t node, std::uint32_t pin) {
        return (node < 0 ? std::string("filter ") : std::to_string(node) + ".") +
               std::to_string(pin);
    };
    Texts texts;
    for (const client::ConnectionInfo& wire : filter.connections) {
        texts.push_back(end(wire.fromNode, wire.fromPin) + " > " + end(wire.toNode, wire.toPin));
    }
    return texts;
}

// "in sink KSCATEGORY_AUDIO", and its formats.
Texts pins(const client::FilterInfo& filter) {
    Texts texts;
    for (const client::PinInfo& pin : filter.pins) {
        std::string text = (pin.intoFilter ? "in " : "out ") + pin.communication + " " +
                           pin.category + " " + std::to_string(pin.instancesPossible);
        for (const client::FormatRange& range : pin.formats) {
            text += " | " + range.specifier + " " + range.subformat + " " +
                    std::to_string(range.maximumChannels) + " " +
                    std::to_string(range.minimumBits) + "-" + std::to_string(range.maximumBits) +
                    " " + std::to_string(range.minimumRate) + "-" +
                    std::to_string(range.maximumRate);
        }
        texts.push_back(text);
    }
    return texts;
}

TEST(DeviceStart, PublishesPinsInTheOrderOfTheInterfaces) {
    DriverHost host;
    Bytes sixChannels = stereoStream(2, 0x82);
    sixChannels[9 + 9 + 10] = 6; // bNrChannels
    host.plug(audioConfiguration(2, joined({output(), sixChannels})));
    ASSERT_EQ(host.start(), STATUS_SUCCESS);
    const client::FilterInfo filter = host.describe();
    const std::string jack = " none KSNODETYPE_LINE_CONNECTOR 1 | none ANALOG 0 0-0 0-0";
    EXPECT_EQ(pins(filter),
              (Texts{"in sink KSCATEGORY_AUDIO 1 | WAVEFORMATEX PCM 2 16-24 44100-96000 | DSOUND "
                     "PCM 2 16-24 44100-96000",
                     "out" + jack,
                     "out sink KSCATEGORY_AUDIO 1 | WAVEFORMATEX PCM 6 16-24 44100-96000 | DSOUND "
                     "PCM 6 16-24 44100-96000",
                     "in" + jack}));
    ASSERT_EQ(filter.nodes.size(), 2u);
    EXPECT_EQ(filter.nodes[0].type, "DAC");
    EXPECT_EQ(filter.nodes[1].type, "ADC");
    EXPECT_EQ(wiring(filter),
              (Texts{"filter 0 > 0.1", "0.0 > filter 1", "filter 3 > 1.1", "1.0 > filter 2"}));
    ASSERT_EQ(filter.categories.size(), 4u);
    EXPECT_EQ(filter.categories[0], "KSCATEGORY_AUDIO");
    EXPECT_EQ(filter.friendlyName, "Scripted");
    for (const client::PinInfo& pin : filter.pins) {
        EXPECT_EQ(pin.name, ""); // audio pins have no names of their own
    }
}

// String 0 is the table of languages, here just US English: its number is read as a character.
TEST(DeviceStart, NamesADeviceWithoutProductStringByItsLanguageTable) {
    DriverHost host;
    host.plug(audioConfiguration(1, output())).device[15] = 0; // iProduct
    ASSERT_EQ(host.start(), STATUS_SUCCESS);
    EXPECT_EQ(host.describe().friendlyName, "\u0409");
}

// The last stream of a direction is the one that runs; nothing of the first is left behind.
TEST(DeviceStart, KeepsOneStreamOfADirection) {
    DriverHost host;
    host.plug(audioConfiguration(2, joined({stereoStream(1, 0x01), stereoStream(2, 0x02)})));
    ASSERT_EQ(host.start(), STATUS_SUCCESS);
    EXPECT_EQ(host.describe().pins.size(), 4u);
    EXPECT_EQ(host.box
                  .beginning("\n*** Assertion failed: m_AudioStream_Out == NULL\n***   Source "
                             "File: usbdriver/device.cpp, line ")
                  .size(),
              1u);
}

// --- Rate and transfer size ---------------------------------------------------------------------

TEST(DeviceStart, RestoresTheSavedRate) {
    struct Case {
        const char* name;
        std::optional<std::uint32_t> saved;
        std::uint16_t product;
        std::uint32_t refuses; // this rate
        std::vector<std::uint32_t> set;
        bool restored;
    };
    // The control interface writes back what it reads; then comes the start's own.
    const Case cases[] = {
        {"none saved", std::nullopt, 0x0001, 0, {48000}, false},
        {"saved", 96000, 0x0001, 0, {48000, 96000}, true},
        {"saved, refused", 192000, 0x0001, 192000, {48000, 192000}, false},
        {"clock to be primed",
         std::nullopt,
         KELVANE_PRIMED_PRODUCT_ID,
         0,
         {48000, 96000, 44100},
         false},
        {"clock to be primed, refused once",
         std::nullopt,
         KELVANE_PRIMED_PRODUCT_ID,
         96000,
         {48000, 96000, 44100},
         false},
        {"clock to be primed, saved",
         48000,
         KELVANE_PRIMED_PRODUCT_ID,
         0,
         {48000, 96000, 44100, 48000},
         true},
    };
    DriverHost host;
    for (const Case& each : cases) {
        SCOPED_TRACE(each.name);
        host.box.forget();
        ScriptedDevice& device = host.plug(audioConfiguration(1, output()), each.product);
        std::vector<std::uint32_t> set;
        device.first = [&](const devices::SetupPacket& setup,
                           std::span<std::byte> data) -> ScriptedDevice::Reply {
            if (setup.bmRequestType != 0x21) {
                return std::nullopt;
            }
            std::uint32_t rate = 0;
            std::memcpy(&rate, data.data(), sizeof(rate));
            set.push_back(rate);
            return rate == each.refuses ? ScriptedDevice::Reply({.stalled = true}) : std::nullopt;
        };
        if (each.saved) {
            host.setSaved(u"SampleRate", *each.saved);
        } else {
            host.registry().remove(host.key(), u"SampleRate");
        }
        EXPECT_EQ(host.start(), STATUS_SUCCESS);
        EXPECT_EQ(set, each.set);
        EXPECT_EQ(
            host.box.beginning("UsbAudioDevice::PostStart() Using saved sample rate: ").size(),
            each.restored ? 1u : 0u);
        EXPECT_EQ(host.box.count("setting AudioControlInterface->setSampleRate(96000)\n"),
                  each.product == KELVANE_PRIMED_PRODUCT_ID ? 1u : 0u);
    }
}

TEST(DeviceStart, MeasuresTheSmallestTransferOnOutputsOnly) {
    DriverHost host;
    host.plug(audioConfiguration(1, output()));
    host.setSaved(u"UrbSize", 3);
    ASSERT_EQ(host.start(), STATUS_SUCCESS);
    EXPECT_TRUE(host.box.traced("UsbAudioDevice::PostStart() m_UrbSizeMin = 1\n"));
    EXPECT_EQ(host.box.count(" pkt  StartFrame | CompletionFrame\n"), 2u); // measured twice
    host.box.forget();

    host.plug(audioConfiguration(1, stereoStream(1, 0x81)));
    host.setSaved(u"UrbSize", 3);
    ASSERT_EQ(host.start(), STATUS_SUCCESS);
    EXPECT_TRUE(host.box.beginning("UsbAudioDevice::PostStart() m_UrbSizeMin = ").empty());
    // The saved size is below the minimum of 10; its key is open for queries only.
    EXPECT_EQ(host.registry().dword(host.key(), u"UrbSize"), 3u);
}

// --- Removal ------------------------------------------------------------------------------------

TEST(DeviceStart, UnconfiguresTheDeviceUnlessItIsGone) {
    DriverHost host;
    const auto unconfigured = [&host] {
        const auto& requests = host.device().requests;
        return !requests.empty() && requests.back().bRequest == 9 && requests.back().wValue == 0;
    };
    host.plug(audioConfiguration(2, both()));
    ASSERT_EQ(host.start(), STATUS_SUCCESS);
    host.remove();
    EXPECT_TRUE(unconfigured());
    EXPECT_EQ(host.box.bus.interfaceReferences(host.pdo()), 0);

    ASSERT_EQ(host.start(), STATUS_SUCCESS);
    host.surpriseRemove();
    EXPECT_FALSE(unconfigured());
    EXPECT_EQ(host.box.bus.interfaceReferences(host.pdo()), 0);
}

// The message's work item may run while the device is being taken down.
TEST(DeviceStart, RemovesADeviceWhoseClockHasJustChanged) {
    DriverHost host;
    for (const bool surprise : {false, true}) {
        for (int wait = 0; wait < 4; ++wait) { // milliseconds
            SCOPED_TRACE(std::to_string(surprise) + " " + std::to_string(wait));
            ScriptedDevice& device = host.plug(
                configuration(2, {interfaceDescriptor(0, 0, 1, 1, 1), clockSource(kClock, 3),
                                  endpointDescriptor(ScriptedDevice::kInterruptEndpoint, 3, 6, 4),
                                  stereoStream(1, 0x81)}));
            ASSERT_EQ(host.start(), STATUS_SUCCESS);
            client::KsFile filter = host.openFilter(); // so that there is somebody to tell
            device.messages = {{0, 1, 0, 2, 0, kClock}, {0, 1, 0, 2, 0, kClock}};
            device.sendMessages();
            TracedMachine::sleep(wait);
            if (surprise) {
                host.surpriseRemove(); // the application still has the filter open
            } else {
                filter.close();
                host.remove();
            }
        }
    }
}

TEST(DeviceStart, StartsAgainAfterARemoval) {
    DriverHost host;
    host.plug(audioConfiguration(2, both()));
    for (int i = 0; i < 3; ++i) {
        ASSERT_EQ(host.start(), STATUS_SUCCESS);
        EXPECT_EQ(host.describe().pins.size(), 4u);
        host.remove();
        EXPECT_EQ(host.link(), u"");
    }
}

} // namespace
} // namespace kelvane::tests
