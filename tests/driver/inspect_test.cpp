// What is told of a device by its descriptors alone, held against what the driver makes of it: the
// built-in models, and models damaged on purpose and at random.
#include "tests/support/audio_machine.h"
#include "tests/support/described_device.h"

#include "client/topology.h"
#include "devices/model_descriptors.h"

#include <fmt/format.h>

namespace kelvane::tests {
namespace {

using devices::Inspection;
using Dump = std::vector<std::byte>;

const devices::BuiltInModel& model(std::string_view name) {
    const auto models = devices::builtInModels();
    return *std::ranges::find_if(models, [&](const auto& m) { return m.name == name; });
}

devices::InspectOptions optionsOf(const devices::BuiltInModel& model) {
    devices::InspectOptions options;
    options.rates = {44100, 48000, 96000};
    options.strings = model.strings;
    return options;
}

// "in"/"out" of the streaming pins and their jacks, in the order of their ids.
std::vector<std::string> flows(const std::vector<client::PinInfo>& pins) {
    std::vector<std::string> list;
    for (const client::PinInfo& pin : pins) {
        const bool midi = !pin.formats.empty() && pin.formats.front().subformat.starts_with("MIDI");
        list.push_back(fmt::format("{} {} {}", midi ? "MIDI" : "audio",
                                   pin.communication == "sink" ? "pin" : "jack",
                                   pin.intoFilter ? "in" : "out"));
    }
    return list;
}

std::vector<std::string> flows(const std::vector<devices::PinView>& pins) {
    std::vector<std::string> list;
    for (const devices::PinView& pin : pins) {
        using Kind = devices::PinView::Kind;
        const bool midi = pin.kind == Kind::Midi || pin.kind == Kind::MidiJack;
        const bool jack = pin.kind == Kind::AudioJack || pin.kind == Kind::MidiJack;
        list.push_back(fmt::format("{} {} {}", midi ? "MIDI" : "audio", jack ? "jack" : "pin",
                                   pin.intoFilter() ? "in" : "out"));
    }
    return list;
}

void expectRanges(const Inspection& inspection, const std::vector<client::PinInfo>& pins) {
    for (const devices::StreamView& stream : inspection.streams) {
        for (const client::PinInfo& pin : pins) {
            if (stream.replaced || pin.communication != "sink" ||
                pin.intoFilter == stream.isInput || pin.formats.front().subformat != "PCM") {
                continue;
            }
            EXPECT_EQ(pin.formats.front().maximumChannels, stream.channels);
            const auto& rates = inspection.clocks.front().rates;
            if (!rates.empty()) {
                EXPECT_EQ(pin.formats.front().minimumRate, *std::ranges::min_element(rates));
                EXPECT_EQ(pin.formats.front().maximumRate, *std::ranges::max_element(rates));
            }
        }
    }
}

// Starts the driver on a device of these bytes. What a device of such descriptors answers may be
// open: then there is nothing to hold against the driver but that it lives.
void expectDriverAgrees(const Dump& bytes, const devices::InspectOptions& options,
                        const Inspection& inspection) {
    const AudioMachine box(describedDevice(bytes, options));
    if (!inspection.doubt.empty()) {
        return;
    }
    EXPECT_EQ(NT_SUCCESS(box.started), inspection.accepted())
        << fmt::format("{:#x}", static_cast<std::uint32_t>(box.started));
    if (NT_SUCCESS(box.started) && inspection.accepted()) {
        const auto pins = client::readPins(box.filter());
        EXPECT_EQ(flows(pins), flows(inspection.pins));
        expectRanges(inspection, pins);
    }
}

std::size_t find(const Dump& bytes, int type, int subtype = -1, int count = 0) {
    devices::DescriptorWalk walk(bytes);
    while (const auto view = walk.next()) {
        if (view->type() == type && (subtype < 0 || view->subtype() == subtype) && count-- == 0) {
            return view->offset();
        }
    }
    ADD_FAILURE() << "no descriptor " << type << "/" << subtype;
    return 0;
}

TEST(Inspect, TellsWhatTheDriverMakesOfEachModel) {
    for (const devices::BuiltInModel& each : devices::builtInModels()) {
        SCOPED_TRACE(each.name);
        const Dump bytes = each.descriptors(each.midi);
        const Inspection inspection = devices::inspect(bytes, optionsOf(each));
        EXPECT_TRUE(inspection.accepted());
        EXPECT_EQ(inspection.doubt, "");
        for (const devices::Problem& problem : inspection.problems) {
            ADD_FAILURE() << problem.offset << ": " << problem.text;
        }
        expectDriverAgrees(bytes, optionsOf(each), inspection);
    }
}

struct Damage {
    const char* name;
    const char* model;
    std::function<std::size_t(Dump&)> change; // returns the offset to report
    bool accepted;
    const char* text; // part of a reason or of a problem at that offset
};

std::size_t set(Dump& bytes, std::size_t at, std::size_t value) {
    bytes[at] = static_cast<std::byte>(value);
    return at;
}

std::size_t insert(Dump& bytes, std::size_t at, std::initializer_list<unsigned> added) {
    std::vector<std::byte> more;
    for (const unsigned value : added) {
        more.push_back(static_cast<std::byte>(value));
    }
    bytes.insert(bytes.begin() + static_cast<std::ptrdiff_t>(at), more.begin(), more.end());
    const std::size_t total = bytes.size() - 18;
    set(bytes, 20, total & 0xFF);
    set(bytes, 21, total >> 8);
    return at;
}

constexpr int kInterface = 4, kEndpoint = 5, kAssociation = 0x0B, kClass = 0x24,
              kClassEndpoint = 0x25;

const Damage kDamages[] = {
    // The device and its configuration.
    {"another maker's", "duplex", [](Dump& b) { return set(b, 8, 0x34); }, false, "not 1234"},
    {"no product string", "duplex", [](Dump& b) { return set(b, 15, 0x3F); }, false,
     "no string 63"},
    {"string 0 for a name", "duplex", [](Dump& b) { return set(b, 15, 0); }, true,
     "language table"},
    {"old control packets", "duplex", [](Dump& b) { return set(b, 7, 8); }, true, "needs 64"},
    {"configuration value 0", "duplex", [](Dump& b) { return set(b, 23, 0); }, false,
     "unconfigure"},
    {"an interface too few", "duplex", [](Dump& b) { return set(b, 22, 2); }, true, "3 interfaces"},
    {"nine interfaces", "duplex", [](Dump& b) { return set(b, 22, 9); }, false, "serves 8"},
    {"more interfaces than there are", "duplex", [](Dump& b) { return set(b, 22, 5); }, true,
     "bNumInterfaces is 5, 3 interfaces follow"},
    {"total too long", "duplex", [](Dump& b) { return set(b, 21, 9) - 1; }, false, "wTotalLength"},
    {"total below the header", "duplex",
     [](Dump& b) {
         set(b, 21, 0);
         return set(b, 20, 4);
     },
     false, "wTotalLength is 4"},
    {"reserved bit", "duplex", [](Dump& b) { return set(b, 25, 0x40); }, true, "bit 7"},
    {"association of a missing interface", "duplex",
     [](Dump& b) { return set(b, find(b, kAssociation) + 3, 4); }, true, "no interface 3"},
    // Lengths.
    {"bLength 0", "duplex", [](Dump& b) { return set(b, find(b, kClass, 2), 0); }, false,
     "bLength is 0"},
    {"interface of 8 bytes", "duplex", [](Dump& b) { return set(b, find(b, kInterface), 8); },
     false, "9 bytes"},
    {"endpoint of 6 bytes", "duplex", [](Dump& b) { return set(b, find(b, kEndpoint), 6); }, false,
     "7 bytes"},
    {"33 endpoints", "duplex", [](Dump& b) { return set(b, find(b, kInterface) + 4, 33); }, false,
     "more than 32"},
    {"the last one claims more than there is", "duplex",
     [](Dump& b) { return set(b, find(b, kClassEndpoint, 1, 1), 40); }, true, "8 bytes are left"},
    {"AS_GENERAL of 8 bytes", "stereo-out",
     [](Dump& b) {
         const std::size_t at = find(b, kClass, 1, 1);
         set(b, at + 8, 8); // what is left of it becomes a descriptor of its own
         set(b, at + 9, 0x77);
         return set(b, at, 8);
     },
     true, "fields of AS_GENERAL take 16"},
    {"clock source of 7 bytes", "stereo-out",
     [](Dump& b) {
         const std::size_t at = insert(b, find(b, kClass, 10) + 7, {2});
         set(b, at + 1, 0x77);
         return set(b, at - 7, 7);
     },
     false, "CLOCK_SOURCE take 8"},
    // The AudioControl interface and its clocks.
    {"AudioControl is interface 1", "stereo-out",
     [](Dump& b) {
         for (int i = 0; i < 3; ++i) {
             const std::size_t at = find(b, kInterface, -1, i);
             set(b, at + 2, std::to_integer<unsigned>(b[at + 2]) + 1);
         }
         return find(b, kInterface) + 2;
     },
     false, "interface is 1"},
    {"no streaming interface behind it", "stereo-out",
     [](Dump& b) {
         set(b, find(b, kInterface, -1, 1) + 5, 0xFF);
         return find(b, kInterface);
     },
     false, "right behind"},
    {"Audio 1.0", "stereo-out",
     [](Dump& b) {
         set(b, find(b, kClass, 10) + 2, 9);
         return set(b, find(b, kInterface) + 7, 0);
     },
     false, "USB Audio 2.0"},
    {"no clock source", "stereo-out",
     [](Dump& b) {
         set(b, find(b, kClass, 10) + 2, 9);
         return find(b, kInterface);
     },
     false, "no clock source"},
    {"clock 0", "stereo-out", [](Dump& b) { return set(b, find(b, kClass, 10) + 3, 0); }, false,
     "ID 0"},
    {"no frequency control", "duplex",
     [](Dump& b) { return set(b, find(b, kClass, 10) + 5, 0x04); }, false,
     "no sampling frequency control"},
    {"no frequency control of the other clock", "duplex",
     [](Dump& b) { return set(b, find(b, kClass, 10, 1) + 5, 0x04); }, true,
     "no sampling frequency control"},
    {"fixed clock", "duplex", [](Dump& b) { return set(b, find(b, kClass, 10) + 4, 1) + 1; }, true,
     "fixed, and its frequency may be set"},
    {"no validity", "duplex", [](Dump& b) { return set(b, find(b, kClass, 10) + 5, 0x03); }, true,
     "no validity control"},
    {"two clocks of one ID", "duplex",
     [](Dump& b) { return set(b, find(b, kClass, 10, 1) + 3, 0x29); }, true, "entity ID 41 is"},
    {"two clocks of one ID, the second to be asked", "duplex",
     [](Dump& b) {
         set(b, find(b, kClass, 10) + 5, 0x04);
         return set(b, find(b, kClass, 10, 1) + 3, 0x29);
     },
     true, "entity ID 41 is"},
    {"selector pins against the clocks' order", "duplex",
     [](Dump& b) {
         const std::size_t at = find(b, kClass, 11) + 5;
         set(b, at + 1, 0x29);
         return set(b, at, 0x2A);
     },
     true, "pin 1 of clock selector 40 is clock 42"},
    {"selector of no clock", "duplex",
     [](Dump& b) { return set(b, find(b, kClass, 11) + 6, 0x77); }, true,
     "names clock 119, which is none"},
    {"selector that can't be read", "duplex",
     [](Dump& b) { return set(b, find(b, kClass, 11) + 7, 0); }, true, "where it stands"},
    {"terminal of no clock", "stereo-out",
     [](Dump& b) { return set(b, find(b, kClass, 2) + 7, 9); }, true,
     "bCSourceID of INPUT_TERMINAL 1 names clock 9"},
    {"terminal that feeds itself", "stereo-out",
     [](Dump& b) { return set(b, find(b, kClass, 3) + 7, 2); }, true, "which is itself"},
    {"AudioControl total", "stereo-out", [](Dump& b) { return set(b, find(b, kClass, 1) + 6, 99); },
     true, "AudioControl wTotalLength is 99"},
    {"messages that are cut", "stereo-out",
     [](Dump& b) { return set(b, find(b, kEndpoint) + 4, 2); }, true, "a message takes 6"},
    // Streams.
    {"link to no terminal", "stereo-out",
     [](Dump& b) { return set(b, find(b, kClass, 1, 1) + 3, 9); }, true,
     "bTerminalLink 9 names no terminal"},
    {"link to a jack", "stereo-out", [](Dump& b) { return set(b, find(b, kClass, 1, 1) + 3, 2); },
     true, "of type 0x0603"},
    {"no channels", "stereo-out", [](Dump& b) { return set(b, find(b, kClass, 1, 1) + 10, 0); },
     true, "bNrChannels is 0"},
    {"one channel", "input-only", [](Dump& b) { return set(b, find(b, kClass, 1, 1) + 10, 1); },
     true, "one channel"},
    {"not PCM", "stereo-out", [](Dump& b) { return set(b, find(b, kClass, 1, 1) + 6, 0); }, true,
     "is not PCM"},
    {"format type II", "stereo-out", [](Dump& b) { return set(b, find(b, kClass, 2, 1) + 3, 2); },
     true, "and 1 in AS_GENERAL"},
    {"32 bits in 3 bytes", "stereo-out",
     [](Dump& b) {
         set(b, find(b, kClass, 2, 1) + 4, 3);
         return set(b, find(b, kClass, 2, 1) + 5, 32);
     },
     true, "32 bits in subslots of 3"},
    {"packets too small for 96 kHz", "stereo-out",
     [](Dump& b) { return set(b, find(b, kEndpoint, -1, 1) + 4, 60); }, true,
     "96000 Hz takes packets of 96 bytes"},
    {"a packet each millisecond", "stereo-out",
     [](Dump& b) { return set(b, find(b, kEndpoint, -1, 1) + 6, 4); }, true,
     "a packet in each microframe"},
    {"no feedback", "stereo-out",
     [](Dump& b) {
         const std::size_t at = find(b, kEndpoint, -1, 2);
         set(b, at + 1, 0x77); // no endpoint any more
         return find(b, kEndpoint, -1, 1) + 3;
     },
     true, "neither a feedback endpoint nor an input"},
    {"feedback of 3 bytes", "stereo-out",
     [](Dump& b) { return set(b, find(b, kEndpoint, -1, 2) + 4, 3); }, true, "a value takes 4"},
    {"fewer endpoints than told", "stereo-out",
     [](Dump& b) { return set(b, find(b, kInterface, -1, 2) + 4, 3); }, true, "2 endpoints follow"},
    {"two outputs", "duplex",
     [](Dump& b) {
         set(b, find(b, kEndpoint, -1, 2) + 3, 5);
         set(b, find(b, kEndpoint, -1, 2) + 2, 2);
         return find(b, kInterface, -1, 2);
     },
     true, "one output of several"},
    {"the rest of bandwidth in setting 0", "stereo-out",
     [](Dump& b) {
         set(b, find(b, kEndpoint) + 4, 0xFF);
         set(b, find(b, kEndpoint) + 5, 0x1F);
         return set(b, find(b, kEndpoint) + 6, 1) - 2;
     },
     false, "no bandwidth"},
};

TEST(Inspect, DamageIsToldWhereItStandsAndTheDriverAgrees) {
    for (const Damage& damage : kDamages) {
        SCOPED_TRACE(damage.name);
        const auto& plain = model(damage.model);
        Dump bytes = plain.descriptors(plain.midi);
        const std::size_t at = damage.change(bytes);
        const Inspection inspection = devices::inspect(bytes, optionsOf(plain));
        EXPECT_EQ(inspection.accepted(), damage.accepted);
        bool told = false;
        std::string all;
        const auto look = [&](const auto& found) {
            told =
                told || (found.offset == at && found.text.find(damage.text) != std::string::npos);
            all += fmt::format("{}: {}\n", found.offset, found.text);
        };
        std::ranges::for_each(inspection.reasons, look);
        std::ranges::for_each(inspection.problems, look);
        EXPECT_TRUE(told || *damage.text == 0) << "expected at " << at << " of\n" << all;
        expectDriverAgrees(bytes, optionsOf(plain), inspection);
    }
}

// Bytes changed, descriptors cut out, doubled and moved.
Dump mutate(Dump bytes, std::uint32_t& seed) {
    const auto random = [&seed](std::size_t below) {
        seed = seed * 1664525 + 1013904223;
        return static_cast<std::size_t>((seed >> 8) % below);
    };
    std::vector<Dump> parts;
    devices::DescriptorWalk walk{std::span(bytes).subspan(27), 27};
    while (const auto view = walk.next()) {
        parts.emplace_back(view->bytes().begin(), view->bytes().end());
    }
    if (random(3) == 0 && !parts.empty()) {
        const std::size_t which = random(parts.size());
        const Dump part = parts[which];
        if (random(2) == 0) {
            parts.erase(parts.begin() + static_cast<std::ptrdiff_t>(which));
        }
        if (random(2) == 0) {
            parts.insert(parts.begin() + static_cast<std::ptrdiff_t>(random(parts.size() + 1)),
                         part);
        }
        bytes.resize(27);
        for (const Dump& each : parts) {
            bytes.insert(bytes.end(), each.begin(), each.end());
        }
        set(bytes, 20, (bytes.size() - 18) & 0xFF);
        set(bytes, 21, (bytes.size() - 18) >> 8);
    }
    for (std::size_t changes = random(4); changes != 0; --changes) {
        constexpr unsigned kTelling[] = {0, 1, 2, 3, 4, 5, 9, 0x20, 0x24, 0x80, 0xFF};
        const std::size_t at = 18 + random(bytes.size() - 18);
        set(bytes, at,
            static_cast<unsigned>(random(2) == 0 ? kTelling[random(std::size(kTelling))]
                                                 : random(256)));
    }
    return bytes;
}

TEST(Inspect, TheDriverAgreesOnRandomDamage) {
    constexpr int kRounds = 60;
    std::uint32_t seed = 20;
    int refused = 0;
    int open = 0;
    for (const devices::BuiltInModel& each : devices::builtInModels()) {
        for (int round = 0; round < kRounds && !testing::Test::HasFailure(); ++round) {
            const std::uint32_t before = seed;
            const Dump bytes = mutate(each.descriptors(each.midi), seed);
            const Inspection inspection = devices::inspect(bytes, optionsOf(each));
            SCOPED_TRACE(fmt::format("{} from seed {}", each.name, before));
            expectDriverAgrees(bytes, optionsOf(each), inspection);
            refused += inspection.accepted() ? 0 : 1;
            open += inspection.doubt.empty() ? 0 : 1;
        }
    }
    const int rounds = kRounds * static_cast<int>(devices::builtInModels().size());
    EXPECT_GT(refused, rounds / 10);
    EXPECT_LT(refused, rounds * 9 / 10);
    EXPECT_LT(open, rounds / 20) << "too many of them are compared with nothing";
}

} // namespace
} // namespace kelvane::tests
