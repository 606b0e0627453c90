#include "client/renderstream.h"

#include <algorithm>
#include <cstring>
#include <stdexcept>

namespace kelvane::client {
namespace {

// The driver's own property set, on its pins.
constexpr GUID kKelvaneSet = {
    0x86C2FD82, 0xC2A0, 0x4637, {0x9C, 0xB5, 0x29, 0x4F, 0xE8, 0xF5, 0xE1, 0x29}};
constexpr ULONG kLatencyStatistics = 50;
static_assert(sizeof(LatencyStatistics) == 84, "as the driver hands it out");

// Beyond the transfers in flight: how long an interface may hold samples back before it plays them.
constexpr std::uint32_t kConverterMilliseconds = 50;

} // namespace

RenderStream::Parts::Parts(KsFile pinFile, const PcmFormat& pcm, Troubles& watched,
                           std::function<void(std::uint32_t)> sleeper)
    : pin(std::move(pinFile)), format(pcm), troubles(watched), sleep(std::move(sleeper)) {
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

RenderStream::Parts::~Parts() {
    try {
        setState(KSSTATE_STOP);
    } catch (const StatusError&) {
        // The interface may be gone; closing the pin brings the writes back all the same.
    }
    pin.close();
    collectAll();
}

void RenderStream::Parts::setState(KSSTATE state) {
    pin.set(makeProperty({STATIC_KSPROPSETID_Connection}, KSPROPERTY_CONNECTION_STATE,
                         KSPROPERTY_TYPE_SET),
            state, "the pin's state can't be changed");
}

void RenderStream::Parts::collect() {
    auto write = std::move(queue.front());
    queue.pop_front();
    const NTSTATUS status = write->result.Status;
    idle.push_back(std::move(write));
    if (!NT_SUCCESS(status)) {
        throw StatusError("a buffer came back unplayed", static_cast<std::uint32_t>(status));
    }
}

void RenderStream::Parts::collectAll() {
    for (const auto& write : queue) {
        write->done.wait();
    }
    std::move(queue.begin(), queue.end(), std::back_inserter(idle));
    queue.clear();
}

RenderStream::RenderStream(std::unique_ptr<Parts> parts) : m_parts(std::move(parts)) {}
RenderStream::~RenderStream() = default;
RenderStream::RenderStream(RenderStream&&) noexcept = default;

void RenderStream::acquire() {
    m_parts->setState(KSSTATE_ACQUIRE);
}

void RenderStream::pause() {
    m_parts->setState(KSSTATE_PAUSE);
}

void RenderStream::run() {
    m_parts->setState(KSSTATE_RUN);
}

void RenderStream::stop() {
    m_parts->troubles.expectStarvation(true);
    m_parts->setState(KSSTATE_STOP);
    m_parts->collectAll();
}

const PcmFormat& RenderStream::format() const {
    return m_parts->format;
}

std::uint32_t RenderStream::bufferBytes() const {
    return m_parts->bufferBytes;
}

std::uint32_t RenderStream::transferFrames() const {
    return m_parts->transferFrames;
}

void RenderStream::write(std::span<const std::byte> frames) {
    if (frames.empty() || frames.size() % m_parts->format.frameBytes() != 0) {
        throw std::invalid_argument("a write takes whole sample frames");
    }
    if (m_parts->idle.empty()) {
        m_parts->idle.push_back(std::make_unique<Parts::Write>());
    }
    auto write = std::move(m_parts->idle.back());
    m_parts->idle.pop_back();
    write->data.assign(frames.begin(), frames.end());
    write->header = {};
    write->header.Size = sizeof write->header;
    write->header.PresentationTime = {.Time = 0, .Numerator = 1, .Denominator = 1};
    write->header.FrameExtent = static_cast<ULONG>(write->data.size());
    write->header.DataUsed = static_cast<ULONG>(write->data.size());
    write->header.Data = write->data.data();
    m_parts->troubles.expectStarvation(false);
    const NTSTATUS status = ZwDeviceIoControlFile(
        m_parts->pin.handle(), write->done.handle(), nullptr, nullptr, &write->result,
        IOCTL_KS_WRITE_STREAM, nullptr, 0, &write->header, sizeof write->header);
    if (!NT_SUCCESS(status)) {
        m_parts->idle.push_back(std::move(write));
        throw StatusError("the pin takes no data", static_cast<std::uint32_t>(status));
    }
    m_parts->queue.push_back(std::move(write));
}

bool RenderStream::waitForQueue(std::size_t left, std::uint32_t milliseconds) {
    while (m_parts->queue.size() > left) {
        if (!m_parts->queue.front()->done.wait(milliseconds)) {
            return false;
        }
        m_parts->collect();
    }
    return true;
}

bool RenderStream::drain(std::uint32_t milliseconds) {
    m_parts->troubles.expectStarvation(true);
    if (!waitForQueue(0, milliseconds)) {
        return false;
    }
    m_parts->sleep(2 * m_parts->transferFrames + kConverterMilliseconds);
    return true;
}

std::size_t RenderStream::queued() const {
    return m_parts->queue.size();
}

std::uint64_t RenderStream::bytesPlayed() const {
    KSAUDIO_POSITION position{};
    m_parts->pin.get(
        makeProperty({STATIC_KSPROPSETID_Audio}, KSPROPERTY_AUDIO_POSITION, KSPROPERTY_TYPE_GET),
        position, "the pin doesn't tell its position");
    return position.PlayOffset;
}

LatencyStatistics RenderStream::latency() const {
    LatencyStatistics statistics;
    m_parts->pin.get(makeProperty(kKelvaneSet, kLatencyStatistics, KSPROPERTY_TYPE_GET), statistics,
                     "the pin doesn't tell its latency statistics");
    return statistics;
}

} // namespace kelvane::client
