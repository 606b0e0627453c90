// The inside of a System. Internal to the client.
#pragma once

#include "client/client.h"
#include "client/host.h"
#include "client/midistream.h"
#include "client/pinstream.h"

#include <memory>
#include <optional>
#include <span>
#include <string>

namespace kelvane::client {

struct System::Parts {
    void countAnew(); // the start-up's own transfers are none of a stream's
    std::optional<PinInfo> findPin(Direction direction) const;
    std::unique_ptr<PinStream::Parts> openPin(Direction direction, const PcmFormat& format);
    std::unique_ptr<MidiStream::Parts> openMidi(const MidiPort& port);
    std::shared_ptr<void> openStream(); // to be kept for as long as the stream is
    KsFile createPin(std::span<const std::byte> connection);

    std::unique_ptr<Host> host;
    std::weak_ptr<void> streams; // expired: none is open
    HostCounters before;
};

} // namespace kelvane::client
