// The inside of a MidiStream. Internal to the client.
#pragma once

#include "client/midi.h"
#include "client/pinqueue.h"

#include <memory>

namespace kelvane::client {

// What follows a MIDI pin's name when it is opened.
struct MidiConnection {
    KSPIN_CONNECT connect;
    KSDATAFORMAT format;
};
MidiConnection makeMidiConnection(std::uint32_t pin);

struct MidiStream::Parts : PinQueue {
    Parts(KsFile file, Direction flow, std::shared_ptr<void> open);

    void queueBuffers();

    std::shared_ptr<void> open; // lives while any stream is open
};

} // namespace kelvane::client
