#include "client/pinformat.h"

namespace kelvane::client {

AudioDataFormat makeDataFormat(const PcmFormat& format) {
    AudioDataFormat data{};
    data.header.FormatSize = sizeof data;
    data.header.SampleSize = format.frameBytes();
    data.header.MajorFormat = {STATIC_KSDATAFORMAT_TYPE_AUDIO};
    data.header.SubFormat = {STATIC_KSDATAFORMAT_SUBTYPE_PCM};
    data.header.Specifier = {STATIC_KSDATAFORMAT_SPECIFIER_WAVEFORMATEX};
    data.wave = {.wFormatTag = WAVE_FORMAT_PCM,
                 .nChannels = format.channels,
                 .nSamplesPerSec = format.rate,
                 .nAvgBytesPerSec = format.rate * format.frameBytes(),
                 .nBlockAlign = static_cast<USHORT>(format.frameBytes()),
                 .wBitsPerSample = format.bits,
                 .cbSize = 0};
    return data;
}

KSPIN_CONNECT makePinConnect(std::uint32_t pin) {
    KSPIN_CONNECT connect{};
    connect.Interface.Set = {STATIC_KSINTERFACESETID_Standard};
    connect.Interface.Id = KSINTERFACE_STANDARD_STREAMING;
    connect.Medium.Set = {STATIC_KSMEDIUMSETID_Standard};
    connect.Medium.Id = KSMEDIUM_STANDARD_DEVIO;
    connect.PinId = pin;
    connect.PinToHandle = nullptr;
    connect.Priority = {.PriorityClass = KSPRIORITY_NORMAL, .PrioritySubClass = 1};
    return connect;
}

PinConnection makeConnection(std::uint32_t pin, const PcmFormat& format) {
    PinConnection connection{};
    connection.connect = makePinConnect(pin);
    connection.format = makeDataFormat(format);
    return connection;
}

} // namespace kelvane::client
