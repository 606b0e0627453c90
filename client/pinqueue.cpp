#include "client/pinqueue.h"

#include "client/client.h"

#include <iterator>

namespace kelvane::client {

PinQueue::~PinQueue() {
    try {
        setState(KSSTATE_STOP);
    } catch (const StatusError&) {
        // The interface may be gone; closing the pin brings the buffers back all the same.
    }
    pin.close();
    collectAll();
}

void PinQueue::setState(KSSTATE state) {
    pin.set(makeProperty({STATIC_KSPROPSETID_Connection}, KSPROPERTY_CONNECTION_STATE,
                         KSPROPERTY_TYPE_SET),
            state, "the pin's state can't be changed");
}

std::unique_ptr<PinQueue::Buffer> PinQueue::idleBuffer() {
    if (m_idle.empty()) {
        return pin.makeRequest();
    }
    auto buffer = std::move(m_idle.back());
    m_idle.pop_back();
    return buffer;
}

void PinQueue::submit(std::unique_ptr<Buffer> buffer, ULONG dataUsed) {
    buffer->header = {};
    buffer->header.Size = sizeof buffer->header;
    buffer->header.PresentationTime = {.Time = 0, .Numerator = 1, .Denominator = 1};
    buffer->header.FrameExtent = static_cast<ULONG>(buffer->data.size());
    buffer->header.DataUsed = dataUsed;
    buffer->header.Data = buffer->data.data();
    const ULONG request =
        direction == Direction::Input ? IOCTL_KS_READ_STREAM : IOCTL_KS_WRITE_STREAM;
    const NTSTATUS status = pin.submit(request, *buffer);
    if (!NT_SUCCESS(status)) {
        m_idle.push_back(std::move(buffer));
        throw StatusError(m_words.refused, static_cast<std::uint32_t>(status));
    }
    queue.push_back(std::move(buffer));
}

const PinQueue::Buffer* PinQueue::collect(std::uint32_t milliseconds) {
    if (queue.empty() || !queue.front()->wait(milliseconds)) {
        return nullptr;
    }
    m_idle.push_back(std::move(queue.front()));
    queue.pop_front();
    const Buffer& buffer = *m_idle.back();
    if (!NT_SUCCESS(buffer.result.Status)) {
        throw StatusError(m_words.failed, static_cast<std::uint32_t>(buffer.result.Status));
    }
    return &buffer;
}

void PinQueue::collectAll() {
    for (const auto& buffer : queue) {
        buffer->wait();
    }
    std::move(queue.begin(), queue.end(), std::back_inserter(m_idle));
    queue.clear();
}

} // namespace kelvane::client
