// The filter that a device publishes: a descriptor that starts empty and grows by a pin pair for
// every audio stream and every MIDI port found, and is complete when the filter factory is made
// from it.
//
// Built at PASSIVE_LEVEL while the device starts; not changed afterwards.
#pragma once

#include "usbdriver/util.h"

constexpr ULONG kMaxFilterPins = 32;
constexpr ULONG kMaxFilterNodes = 32;
constexpr ULONG kMaxFilterConnections = 32;
constexpr ULONG kNoPin = 0xFFFFFFFF; // in place of a pin ID

class FilterDescriptor final : public PoolObject {
public:
    FilterDescriptor();
    FilterDescriptor(const FilterDescriptor&) = delete;
    FilterDescriptor& operator=(const FilterDescriptor&) = delete;

    // A streaming pin, its bridge pin, the converter node between them. Adds nothing, and returns
    // STATUS_INSUFFICIENT_RESOURCES, when the descriptor is full.
    NTSTATUS AddAudioPins(bool input);
    // A streaming pin for a MIDI port (UsbMidiPin::Descriptor has the arguments), connected
    // straight to its bridge pin. Returns the streaming pin's ID; adds nothing, and returns kNoPin,
    // when the descriptor is full.
    ULONG AddMidiPins(bool input, bool hidden, bool exclusive);
    void SetSampleRateRange(ULONG lowest, ULONG highest); // Hz, of all audio data ranges
    void SetMaximumChannels(bool input, ULONG channels);

    const KSFILTER_DESCRIPTOR* Descriptor() const { return &m_Descriptor; }

private:
    bool HasRoom(ULONG nodes, ULONG connections) const; // and for two pins
    // The WAVEFORMATEX and the DSOUND range of one direction.
    struct AudioRanges {
        static constexpr ULONG kCount = 2;
        AudioRanges();
        void SetSampleRates(ULONG lowest, ULONG highest);
        KSDATARANGE_AUDIO ranges[kCount];
        PKSDATARANGE list[kCount];
    };

    KSFILTER_DESCRIPTOR m_Descriptor = {}; // its pointers lead into this object
    KSAUTOMATION_TABLE m_AutomationTable;
    KSPIN_DESCRIPTOR_EX m_Pins[kMaxFilterPins] = {};
    KSNODE_DESCRIPTOR m_Nodes[kMaxFilterNodes] = {};
    KSTOPOLOGY_CONNECTION m_Connections[kMaxFilterConnections] = {};
    AudioRanges m_CaptureRanges;
    AudioRanges m_RenderRanges;
};

// Names the factory's device interface: writes "FriendlyName" to its key. STATUS_INVALID_PARAMETER
// when `name` is empty or longer than 129 characters. PASSIVE_LEVEL.
NTSTATUS SetFriendlyName(PKSFILTERFACTORY factory, const WCHAR* name);
