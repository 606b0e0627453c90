// One USB audio interface, from the day the bus announces it to the day it is gone.
//
// Everything runs at PASSIVE_LEVEL. The class driver serialises plug and play and the requests of
// each filter; pins of one device may belong to several filters, so what the streams share has a
// mutex of its own. It is taken last: behind a filter's and the device's.
#pragma once

#include "usbdriver/usblib/usbdevice.h"
#include "usbdriver/util.h"

#include <cstddef>
#include <initializer_list>

class AudioControlInterface;
class ClockSync;
class FilterDescriptor;
class UsbAudioStream;
class UsbAudioStreamClient;
class UsbMidiPipe;
class UsbMidiPort;

constexpr ULONG kDefaultUrbSize = 10; // frames of 1 ms
constexpr ULONG kMaxUrbSizeMin = 10;

constexpr std::size_t kMaxMidiPipes = 32;
constexpr ULONG kMaxPinIds = 32;

// Which pins stand for the ports of a MIDI pipe: those that everybody sees, those for who knows the
// driver, or both.
enum class MidiPins { Visible = 0, Hidden = 1, Both = 2 };

class UsbAudioDevice final : public PoolObject {
public:
    explicit UsbAudioDevice(PKSDEVICE device);
    ~UsbAudioDevice();
    UsbAudioDevice(const UsbAudioDevice&) = delete;
    UsbAudioDevice& operator=(const UsbAudioDevice&) = delete;

    virtual UCHAR GetFlag() const { return m_Flag; }
    virtual void SetFlag(UCHAR flag) { m_Flag = flag; }

    // The device context of a kernel streaming device.
    static UsbAudioDevice* FromKsDevice(PKSDEVICE device) {
        return static_cast<UsbAudioDevice*>(device->Context);
    }

    // The device that a pin's filter belongs to; null when there is none.
    static UsbAudioDevice* FromKsPin(PKSPIN pin);

    // Life.
    NTSTATUS PostStart(); // opens the device, builds what it offers, publishes the filter
    void SurpriseRemoval();
    void Remove();
    void SetPower(DEVICE_POWER_STATE state); // D3 pauses the streams, D0 lets them go on

    // Sample rate. All pins of the device run at one rate.
    // 0xC0000708 while a pin holds the rate.
    NTSTATUS SetHardwareSampleRate(ULONG rate);
    // Moves the clock to `rate` if nobody holds another; true when the lock is taken.
    bool LockSampleRate(ULONG rate);
    void UnlockSampleRate();
    ULONG SampleRate() const { return m_SampleRate; } // Hz
    ULONG ReadSampleRate();                           // from the device, Hz; 0 when it can't be had
    ULONG LockedSampleRate() const { return m_SampleRateLocks > 0 ? m_SampleRate : 0; }

    // Clock source, by its place among the device's, from 0. The selection is the device's to
    // refuse.
    void SelectClockSource(ULONG index);
    ULONG GetClockSource(); // ~0: unknown; 0 without an AudioControl interface

    // Streams: both run from the first running pin of either to the last.
    void StreamStart(UsbAudioStreamClient* pin, UsbAudioStream* stream);
    void StreamStop(UsbAudioStreamClient* pin, UsbAudioStream* stream);
    // The processes that play, one per running render pin, as many as fit. Returns their number.
    ULONG GetClientProcesses(std::span<ULONG> processes);

    // Transfer size of both streams, in frames of 1 ms.
    NTSTATUS SetUrbSize(ULONG size);
    ULONG UrbSize() const { return m_UrbSize; }
    ULONG UrbSizeMin() const { return m_UrbSizeMin; }

    // Whether the input paces the output, packet by packet.
    void EnableAsynchronousClocking(bool enable);

    // Raises an event on every filter of the device.
    void GenerateKsFilterEvents(const GUID& set, ULONG id, ULONG size, void* data);
    // An interrupt data message came from the AudioControl interface.
    void ClockSourceStatusChanged(void* message, ULONG size);

    // MIDI. Takes over a pipe, adds pins for its ports and starts it. A pipe without ports, or one
    // more than the device can hold, is destroyed; null is ignored.
    void AddMidiPipe(UsbMidiPipe* pipe, MidiPins pins, bool exclusive);
    // The port that a pin stands for; null when the pin is no MIDI pin.
    UsbMidiPort* GetMidiPort(ULONG pinId) const {
        return pinId < kMaxPinIds ? m_MidiPorts[pinId] : nullptr;
    }
    std::size_t GetMidiPinCount(bool input) const { return m_MidiPinCounts[input ? 1 : 0]; }

    CUsbDevice* UsbDevice() { return &m_UsbDev; }
    // Null when there is none.
    AudioControlInterface* AudioControl() const { return m_AudioControlInterface; }
    UsbAudioStream* GetAudioStream(bool input) const {
        return input ? m_AudioStream_In : m_AudioStream_Out;
    }

private:
    void OpenRegistryKey();
    NTSTATUS ReadSetting(const WCHAR* name, ULONG* value) const;
    void WriteSetting(const WCHAR* name, ULONG value) const;

    bool IsInDfuMode() const;
    NTSTATUS StartAudio();
    NTSTATUS Enumerate();
    void CreateAudioControl(ULONG index);
    void CreateAudioStream(ULONG index);
    void CreateMidiPipes(ULONG index);
    void AddMidiPins(UsbMidiPort* port, bool input, MidiPins pins, bool exclusive);
    void AddMidiPin(UsbMidiPort* port, bool input, bool hidden, bool exclusive, const char* trace);
    void StartMidi();
    void StopMidi();
    void RemoveMidi();
    void RegisterStream(UsbAudioStream* stream);
    void PrimeClock(NTSTATUS enumerated);
    ULONG RestoreSampleRate(ULONG deviceRate);
    void MeasureUrbSizeMin();
    void PublishFilter(const WCHAR* productString);

    // Input first.
    template <class Operation>
    void ForEachStream(Operation operation) {
        for (UsbAudioStream* const stream : {m_AudioStream_In, m_AudioStream_Out}) {
            if (stream != nullptr) {
                operation(stream);
            }
        }
    }

    PKSDEVICE m_KsDevice;
    CUsbDevice m_UsbDev;
    UsbMidiPipe* m_MidiPipes[kMaxMidiPipes] = {}; // owned; in order of creation
    std::size_t m_MidiPipeCount = 0;
    UsbMidiPort* m_MidiPorts[kMaxPinIds] = {};   // by pin ID; of the pipes above
    std::size_t m_MidiPinCounts[2] = {};         // output, input
    UsbAudioStream* m_AudioStream_In = nullptr;  // owned
    UsbAudioStream* m_AudioStream_Out = nullptr; // owned
    ULONG m_SampleRate = 48000;                  // Hz
    ULONG m_SampleRateLocks = 0;
    HANDLE m_RegistryKey = nullptr; // the driver key; query access only, so that writes are refused
    ULONG m_UrbSize = kDefaultUrbSize;
    ULONG m_UrbSizeMin = kMaxUrbSizeMin;
    KMUTEX m_StreamsMutex; // guards the rate and its locks, the running streams and their set-up
    FilterDescriptor* m_FilterDescriptor = nullptr;           // owned; paged
    ClockSync* m_ClockSync = nullptr;                         // owned; made on demand
    AudioControlInterface* m_AudioControlInterface = nullptr; // owned
    ULONG m_RunningStreams = 0;                               // running audio pins
    UCHAR m_Flag = 0;
};
