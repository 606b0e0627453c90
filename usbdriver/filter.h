// The filter that a device publishes: a descriptor that starts empty and grows by a pin pair for
// every audio stream found, and is complete when the filter factory is made from it.
//
// Built at PASSIVE_LEVEL while the device starts; not changed afterwards.
#pragma once

#include "usbdriver/util.h"

constexpr ULONG kMaxFilterPins = 32;
constexpr ULONG kMaxFilterNodes = 32;
constexpr ULONG kMaxFilterConnections = 32;

class FilterDescriptor final : public PoolObject {
public:
    FilterDescriptor();
    FilterDescriptor(const FilterDescriptor&) = delete;
    FilterDescriptor& operator=(const FilterDescriptor&) = delete;

    // A streaming pin, its bridge pin, the converter node between them. Adds nothing, and returns
    // STATUS_INSUFFICIENT_RESOURCES, when the descriptor is full.
    NTSTATUS AddAudioPins(bool input);
    void SetSampleRateRange(ULONG lowest, ULONG highest); // Hz, of all audio data ranges
    void SetMaximumChannels(bool input, ULONG channels);

    const KSFILTER_DESCRIPTOR* Descriptor() const { return &m_Descriptor; }

private:
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
