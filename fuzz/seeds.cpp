// Writes the inputs that the fuzzers begin with, one file each, named after what they are.
//
// usage: fuzz_seeds FOLDER    makes FOLDER/descriptors and FOLDER/requests
#include "fuzz/descriptors_input.h"
#include "fuzz/requests_input.h"

#include "devices/model_descriptors.h"

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <initializer_list>
#include <string>
#include <vector>

namespace kelvane::fuzz {
namespace {

using Bytes = std::vector<std::uint8_t>;

void write(const std::filesystem::path& path, const Bytes& bytes) {
    std::ofstream file(path, std::ios::binary);
    file.write(reinterpret_cast<const char*>(bytes.data()),
               static_cast<std::streamsize>(bytes.size()));
    if (!file.flush()) {
        std::fprintf(stderr, "fuzz_seeds: %s can't be written\n", path.c_str());
        std::exit(1);
    }
}

void writeDescriptors(const std::filesystem::path& folder) {
    std::filesystem::create_directories(folder);
    const struct {
        const char* name;
        std::uint8_t flags;
    } kinds[] = {{"", 0}, {"-raw", kRaw}, {"-full-speed", kFullSpeed}, {"-as-it-is", 3}};
    for (const devices::BuiltInModel& model : devices::builtInModels()) {
        for (const auto& kind : kinds) {
            Bytes bytes{kind.flags};
            for (const std::byte byte : model.descriptors(model.midi)) {
                bytes.push_back(std::to_integer<std::uint8_t>(byte));
            }
            write(folder / (std::string(model.name) + kind.name), bytes);
        }
    }
}

// Steps of a request program, operands in the order of requests_input.h.
class Program {
public:
    Program& add(Step step, std::initializer_list<unsigned> operands) {
        m_bytes.push_back(static_cast<std::uint8_t>(step));
        for (const unsigned operand : operands) {
            m_bytes.push_back(static_cast<std::uint8_t>(operand));
        }
        return *this;
    }
    // A property of the filter or of a pin; `extra` follows its identifier.
    Program& property(unsigned target, Set set, unsigned id, unsigned flags, unsigned room,
                      std::initializer_list<unsigned> extra = {},
                      std::initializer_list<unsigned> data = {}) {
        return record(Step::Property, target, set, id, flags, room, extra, data);
    }
    Program& record(Step step, unsigned target, Set set, unsigned id, unsigned flags, unsigned room,
                    std::initializer_list<unsigned> extra, std::initializer_list<unsigned> data) {
        add(step, {target, static_cast<unsigned>(set), id, flags & 0xFF, flags >> 8});
        addCounted(extra);
        add16(room);
        addCounted(data);
        return *this;
    }
    const Bytes& bytes() const { return m_bytes; }

private:
    void add16(unsigned value) {
        m_bytes.push_back(static_cast<std::uint8_t>(value & 0xFF));
        m_bytes.push_back(static_cast<std::uint8_t>(value >> 8));
    }
    void addCounted(std::initializer_list<unsigned> bytes) {
        m_bytes.push_back(static_cast<std::uint8_t>(bytes.size()));
        for (const unsigned byte : bytes) {
            m_bytes.push_back(static_cast<std::uint8_t>(byte));
        }
    }

    Bytes m_bytes;
};

constexpr unsigned kGet = 1;
constexpr unsigned kSet = 2;
constexpr unsigned kSupport = 0x200;
constexpr unsigned kRun = 3;

// Stereo of 24 bits in 4 bytes at 48000 Hz, the second of the fuzzer's rates.
Program& openPin(Program& program, unsigned slot, unsigned pin) {
    return program.add(Step::OpenPin, {slot, pin, 1, 2, 24, 4, 0});
}

void writeRequests(const std::filesystem::path& folder) {
    std::filesystem::create_directories(folder);
    Program pins;
    for (unsigned id = 0; id < 14; ++id) {
        pins.property(0, Set::Pin, id, kGet, 64, {0, 0, 0, 0, 0, 0, 0, 0});
    }
    write(folder / "pin-properties", pins.bytes());

    Program topology;
    for (unsigned id = 0; id < 4; ++id) {
        topology.property(0, Set::Topology, id, kGet, 256);
    }
    write(folder / "topology", topology.bytes());

    Program own;
    for (unsigned id = 0; id < 12; ++id) {
        own.property(0, Set::OwnProperties, id, kGet, 512, {0, 0, 0, 0});
        own.property(0, Set::OwnProperties, id, kSet, 4, {}, {0x80, 0xBB, 0, 0});
        own.property(0, Set::OwnProperties, id, kSupport, 4);
    }
    write(folder / "own-properties", own.bytes());

    Program methods;
    for (unsigned id = 0; id < 3; ++id) {
        methods.record(Step::Method, 0, Set::OwnMethods, id, kGet, 64,
                       {0xA1, 1, 0, 1, 0, 0x29, 4, 0}, {});
        methods.record(Step::Method, 0, Set::OwnMethods, id, kSet, 4, {1, 1, 0, 0, 2, 0, 9, 4},
                       {0x80, 0xBB});
    }
    write(folder / "own-methods", methods.bytes());

    Program events;
    for (unsigned id = 0; id < 3; ++id) {
        events.add(Step::EnableEvent,
                   {0, static_cast<unsigned>(Set::OwnEvents), id, 1, 0, 0, 0, 32});
    }
    events.property(0, Set::OwnProperties, 0, kSet, 4, {}, {0x44, 0xAC, 0, 0});
    events.add(Step::Sleep, {20}).add(Step::DisableEvent, {0, 1}).add(Step::DisableEvent, {0, 200});
    write(folder / "events", events.bytes());

    Program play;
    openPin(play, 0, 0).add(Step::Queue, {0, 0, 16, 0, 16, 0}).add(Step::SetState, {0, kRun});
    play.add(Step::Sleep, {39}).add(Step::Queue, {0, 0, 16, 0, 16, 0});
    play.property(1, Set::Audio, 0, kGet, 64).add(Step::Reset, {0, 0}).add(Step::ClosePin, {0});
    write(folder / "play", play.bytes());

    Program duplex;
    openPin(duplex, 0, 0);
    openPin(duplex, 1, 2).add(Step::Queue, {1, 0, 16, 0, 0, 0x80});
    duplex.add(Step::SetState, {0, kRun}).add(Step::SetState, {1, kRun}).add(Step::Sleep, {35});
    duplex.property(2, Set::Stream, 0, kGet, 128).property(2, Set::Connection, 0, kGet, 4);
    duplex.property(1, Set::OwnProperties, 50, kGet, 128).add(Step::SetState, {0, 0});
    write(folder / "duplex", duplex.bytes());
}

} // namespace
} // namespace kelvane::fuzz

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fputs("usage: fuzz_seeds FOLDER\n", stderr);
        return 2;
    }
    const std::filesystem::path folder = argv[1];
    kelvane::fuzz::writeDescriptors(folder / "descriptors");
    kelvane::fuzz::writeRequests(folder / "requests");
    return 0;
}
