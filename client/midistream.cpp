#include "client/midistream.h"

#include "client/client.h"
#include "client/pinformat.h"

#include <algorithm>
#include <cstring>

namespace kelvane::client {
namespace {

constexpr PinQueue::Words kOutputWords = {"the MIDI port takes no data",
                                          "the MIDI port refused an event"};
constexpr PinQueue::Words kInputWords = {"the MIDI port takes no buffer",
                                         "a buffer came back without a message"};

// Enough for all that one millisecond can bring of a port at the speed of the bus.
constexpr std::size_t kInputBuffers = 64;
// A message of the driver's has at most 31 bytes.
constexpr std::size_t kInputBytes = sizeof(KSMUSICFORMAT) + 32;

} // namespace

MidiConnection makeMidiConnection(std::uint32_t pin) {
    MidiConnection connection{};
    connection.connect = makePinConnect(pin);
    connection.format.FormatSize = sizeof connection.format;
    connection.format.MajorFormat = {STATIC_KSDATAFORMAT_TYPE_MUSIC};
    connection.format.SubFormat = {STATIC_KSDATAFORMAT_SUBTYPE_MIDI};
    connection.format.Specifier = {STATIC_KSDATAFORMAT_SPECIFIER_NONE};
    return connection;
}

MidiStream::Parts::Parts(KsFile file, Direction flow, std::shared_ptr<void> alive)
    : PinQueue(std::move(file), flow, flow == Direction::Input ? kInputWords : kOutputWords),
      open(std::move(alive)) {
    setState(KSSTATE_ACQUIRE);
    setState(KSSTATE_PAUSE);
    if (flow == Direction::Input) {
        queueBuffers();
    }
    setState(KSSTATE_RUN);
}

void MidiStream::Parts::queueBuffers() {
    while (queue.size() < kInputBuffers) {
        auto buffer = idleBuffer();
        buffer->data.resize(kInputBytes);
        submit(std::move(buffer), 0);
    }
}

MidiStream::MidiStream(std::unique_ptr<Parts> parts) : m_parts(std::move(parts)) {}
MidiStream::~MidiStream() = default;
MidiStream::MidiStream(MidiStream&&) noexcept = default;

void MidiOutput::write(std::span<const std::byte> bytes) {
    while (parts().collect(0) != nullptr) { // whatever has come back
    }
    const KSMUSICFORMAT header = {.TimeDeltaMs = 0, .ByteCount = static_cast<ULONG>(bytes.size())};
    auto buffer = parts().idleBuffer();
    // Events stand at multiples of 4 bytes.
    buffer->data.assign((sizeof header + bytes.size() + 3) & ~std::size_t{3}, std::byte{0});
    std::memcpy(buffer->data.data(), &header, sizeof header);
    std::copy(bytes.begin(), bytes.end(), buffer->data.begin() + sizeof header);
    const auto used = static_cast<ULONG>(buffer->data.size());
    parts().submit(std::move(buffer), used);
}

bool MidiOutput::drain(std::uint32_t milliseconds) {
    while (!parts().queue.empty()) {
        if (parts().collect(milliseconds) == nullptr) {
            return false;
        }
    }
    return true;
}

std::optional<MidiReceived> MidiInput::read(std::uint32_t milliseconds) {
    parts().queueBuffers();
    const auto* buffer = parts().collect(milliseconds);
    KSMUSICFORMAT header{};
    if (buffer == nullptr || buffer->header.DataUsed < sizeof header) {
        return std::nullopt;
    }
    std::memcpy(&header, buffer->data.data(), sizeof header);
    const std::size_t room = buffer->data.size() - sizeof header;
    return MidiReceived{
        .milliseconds = header.TimeDeltaMs,
        .bytes = std::span(buffer->data)
                     .subspan(sizeof header, std::min<std::size_t>(header.ByteCount, room))};
}

} // namespace kelvane::client
