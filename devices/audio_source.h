// What an interface's input converter records.
#pragma once

#include "devices/audio_sink.h"

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string>

namespace kelvane::devices {

class AudioSource {
public:
    virtual ~AudioSource() = default;

    // Hz that the recording has; 0: any will do.
    virtual std::uint32_t rate() const { return 0; }

    // A host begins to fetch frames of this format, and recording begins anew: what is read next is
    // the first frame, `position` is its number as the device's sample clock counts.
    virtual void start(const AudioFormat& format, std::uint64_t position) = 0;
    // Fills whole sample frames, interleaved as they go over the bus. Never called before `start`.
    virtual void read(std::span<std::byte> frames) = 0;
    // Frames that were recorded but that no host fetched: the next read is behind them.
    virtual void skip(std::uint64_t frames) = 0;
    // Nothing more is read. Throws DeviceError when something couldn't be recorded as asked.
    virtual void finish() {}

    // A source that records what the device's first output plays is told of it, in stretches of
    // frames; `position` counts as in `start`. Others don't ask for it.
    virtual bool hearsOutput() const { return false; }
    virtual void hear(const AudioFormat&, std::uint64_t /*position*/,
                      std::span<const std::byte> /*frames*/) {}
};

// What every name means:
//   silence         digital zeros
//   tone:HZ[:DBFS]  a sine of 1 Hz or more in whole Hz, -6 dBFS unless told otherwise; channel c of
//                   n lags by c / n of half a cycle
//   counter         samples that tell their frame and channel, see CounterSource
//   loopback        what the first output plays, see LoopbackSource
//   FILE            an audio file from its first frame, then silence; see FileSource
//   loop:FILE       an audio file over and over
// Throws DeviceError: a name that is none of these, a file that can't be read.
std::shared_ptr<AudioSource> makeSource(const std::string& name);

} // namespace kelvane::devices
