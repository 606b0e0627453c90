#include "client/pinstream.h"

#include <iterator>

namespace kelvane::client {
namespace {

// The driver's own property set, on its pins.
constexpr GUID kKelvaneSet = {
    0x86C2FD82, 0xC2A0, 0x4637, {0x9C, 0xB5, 0x29, 0x4F, 0xE8, 0xF5, 0xE1, 0x29}};
constexpr ULONG kLatencyStatistics = 50;
static_assert(sizeof(LatencyStatistics) == 84, "as the driver hands it out");

} // namespace

PinStream::Parts::Parts(KsFile pinFile, const PcmFormat& pcm, Direction flow, StreamContext system)
    : pin(std::move(pinFile)), format(pcm), direction(flow), context(std::move(system)) {
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
    try {
        setState(KSSTATE_STOP);
    } catch (const StatusError&) {
        // The interface may be gone; closing the pin brings the buffers back all the same.
    }
    pin.close();
    collectAll();
}

void PinStream::Parts::setState(KSSTATE state) {
    pin.set(makeProperty({STATIC_KSPROPSETID_Connection}, KSPROPERTY_CONNECTION_STATE,
                         KSPROPERTY_TYPE_SET),
            state, "the pin's state can't be changed");
}

KSAUDIO_POSITION PinStream::Parts::position() const {
    KSAUDIO_POSITION position{};
    pin.get(
        makeProperty({STATIC_KSPROPSETID_Audio}, KSPROPERTY_AUDIO_POSITION, KSPROPERTY_TYPE_GET),
        position, "the pin doesn't tell its position");
    return position;
}

std::unique_ptr<PinStream::Parts::Buffer> PinStream::Parts::idleBuffer() {
    if (idle.empty()) {
        return std::make_unique<Buffer>();
    }
    auto buffer = std::move(idle.back());
    idle.pop_back();
    return buffer;
}

void PinStream::Parts::submit(std::unique_ptr<Buffer> buffer, ULONG dataUsed) {
    buffer->header = {};
    buffer->header.Size = sizeof buffer->header;
    buffer->header.PresentationTime = {.Time = 0, .Numerator = 1, .Denominator = 1};
    buffer->header.FrameExtent = static_cast<ULONG>(buffer->data.size());
    buffer->header.DataUsed = dataUsed;
    buffer->header.Data = buffer->data.data();
    expectStarvation(false);
    const bool input = direction == Direction::Input;
    const NTSTATUS status =
        ZwDeviceIoControlFile(pin.handle(), buffer->done.handle(), nullptr, nullptr,
                              &buffer->result, input ? IOCTL_KS_READ_STREAM : IOCTL_KS_WRITE_STREAM,
                              nullptr, 0, &buffer->header, sizeof buffer->header);
    if (!NT_SUCCESS(status)) {
        idle.push_back(std::move(buffer));
        throw StatusError(input ? "the pin takes no buffer" : "the pin takes no data",
                          static_cast<std::uint32_t>(status));
    }
    queue.push_back(std::move(buffer));
}

const PinStream::Parts::Buffer* PinStream::Parts::collect(std::uint32_t milliseconds) {
    if (queue.empty() || !queue.front()->done.wait(milliseconds)) {
        return nullptr;
    }
    idle.push_back(std::move(queue.front()));
    queue.pop_front();
    const Buffer& buffer = *idle.back();
    if (!NT_SUCCESS(buffer.result.Status)) {
        throw StatusError(direction == Direction::Input ? "a buffer came back without a recording"
                                                        : "a buffer came back unplayed",
                          static_cast<std::uint32_t>(buffer.result.Status));
    }
    return &buffer;
}

void PinStream::Parts::collectAll() {
    for (const auto& buffer : queue) {
        buffer->done.wait();
    }
    std::move(queue.begin(), queue.end(), std::back_inserter(idle));
    queue.clear();
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
    m_parts->pin.get(makeProperty(kKelvaneSet, kLatencyStatistics, KSPROPERTY_TYPE_GET), statistics,
                     "the pin doesn't tell its latency statistics");
    return statistics;
}

} // namespace kelvane::client
