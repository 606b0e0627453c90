#include "client/pinstream.h"

#include "client/vendor_records.h"

namespace kelvane::client {
namespace {

constexpr ULONG kLatencyStatistics = 50;
static_assert(sizeof(LatencyStatistics) == 84, "as the driver hands it out");

constexpr PinQueue::Words kPlayback = {"the pin takes no data", "a buffer came back unplayed"};
constexpr PinQueue::Words kRecording = {"the pin takes no buffer",
                                        "a buffer came back without a recording"};

} // namespace

PinStream::Parts::Parts(KsFile pinFile, const PcmFormat& pcm, Direction flow, StreamContext system)
    : PinQueue(std::move(pinFile), flow, flow == Direction::Input ? kRecording : kPlayback),
      format(pcm), context(std::move(system)) {
    KSALLOCATOR_FRAMING framing{};
    pin.get(makeProperty({STATIC_KSPROPSETID_Connection}, KSPROPERTY_CONNECTION_ALLOCATORFRAMING,
                         KSPROPERTY_TYPE_GET),
            framing, "the pin doesn't tell its buffer size");
    bufferBytes = framing.FrameSize - framing.FrameSize % format.frameBytes();
    // The buffer is one transfer's audio, rounded up by at most one sample frame: less than 1 ms.
    const std::uint64_t sampleFrames = bufferBytes / format.frameBytes();
    transferFrames = static_cast<std::uint32_t>(sampleFrames * 1000 / format.rate);
    if (bufferBytes == 0) {
        throw StatusError("the pin asks for buffers of no bytes",
                          static_cast<std::uint32_t>(STATUS_INTERNAL_ERROR));
    }
}

PinStream::Parts::~Parts() {
    expectStarvation(true);
}

KSAUDIO_POSITION PinStream::Parts::position() const {
    KSAUDIO_POSITION position{};
    pin.get(
        makeProperty({STATIC_KSPROPSETID_Audio}, KSPROPERTY_AUDIO_POSITION, KSPROPERTY_TYPE_GET),
        position, "the pin doesn't tell its position");
    return position;
}

void PinStream::Parts::submit(std::unique_ptr<Buffer> buffer, ULONG dataUsed) {
    expectStarvation(false);
    PinQueue::submit(std::move(buffer), dataUsed);
}

PinStream::PinStream(std::unique_ptr<Parts> parts) : m_parts(std::move(parts)) {}
PinStream::~PinStream() = default;
PinStream::PinStream(PinStream&&) noexcept = default;

void PinStream::acquire() {
    m_parts->setState(KSSTATE_ACQUIRE);
}

void PinStream::pause() {
    m_parts->expectStarvation(true);
    m_parts->setState(KSSTATE_PAUSE);
}

void PinStream::run() {
    m_parts->expectStarvation(m_parts->queue.empty());
    m_parts->setState(KSSTATE_RUN);
}

void PinStream::stop() {
    m_parts->expectStarvation(true);
    m_parts->setState(KSSTATE_STOP);
    m_parts->collectAll();
}

const PcmFormat& PinStream::format() const {
    return m_parts->format;
}

std::uint32_t PinStream::bufferBytes() const {
    return m_parts->bufferBytes;
}

std::uint32_t PinStream::transferFrames() const {
    return m_parts->transferFrames;
}

std::size_t PinStream::queued() const {
    return m_parts->queue.size();
}

LatencyStatistics PinStream::latency() const {
    LatencyStatistics statistics;
    m_parts->pin.get(makeProperty(kVendorProperties, kLatencyStatistics, KSPROPERTY_TYPE_GET),
                     statistics, "the pin doesn't tell its latency statistics");
    return statistics;
}

} // namespace kelvane::client
