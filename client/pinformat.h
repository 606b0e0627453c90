// Data formats and pin connections as the class driver reads them. Internal to the client.
#pragma once

#include "client/client.h"
#include "platform/nt/kernel.h"

#include <cstddef>

// What <ksmedia.h> leaves to the multimedia headers.
#ifndef WAVE_FORMAT_PCM
#define WAVE_FORMAT_PCM 1
#endif

namespace kelvane::client {

// WAVEFORMATEX, as it stands behind a KSDATAFORMAT.
#pragma pack(push, 1)
struct WaveFormat {
    USHORT wFormatTag;
    USHORT nChannels;
    ULONG nSamplesPerSec;
    ULONG nAvgBytesPerSec;
    USHORT nBlockAlign;
    USHORT wBitsPerSample;
    USHORT cbSize;
};

struct AudioDataFormat {
    KSDATAFORMAT header;
    WaveFormat wave;
};

// What follows the pin's name when it is opened.
struct PinConnection {
    KSPIN_CONNECT connect;
    AudioDataFormat format;
};
#pragma pack(pop)
static_assert(sizeof(AudioDataFormat) == 82); // KSDATAFORMAT_WAVEFORMATEX
static_assert(offsetof(PinConnection, format) == sizeof(KSPIN_CONNECT));

// The streaming interface over the device's own medium: what every pin of the driver has.
KSPIN_CONNECT makePinConnect(std::uint32_t pin);

AudioDataFormat makeDataFormat(const PcmFormat& format);
PinConnection makeConnection(std::uint32_t pin, const PcmFormat& format);

} // namespace kelvane::client
