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

    // A streaming pin, its bridge pin, the converter node between them. STATUS_NO_MORE_ENTRIES, and
    // nothing added, when the descriptor is full.
    NTSTATUS AddAudioPins(bool input);
    void SetSampleRateRange(ULONG lowest, ULONG highest); // Hz, of all audio data ranges
    void SetMaximumChannels(bool input, ULONG channels);

    const KSFILTER_DESCRIPTOR* Descriptor() const { return &m_Descriptor; }

private:
    // The WAVEFORMATEX and the DSOUND range of one direction.
    struct AudioRanges {
        KSDATARANGE_AUDIO ranges[2];
        PKSDATARANGE list[2];
        void Fill();
    };

    KSFILTER_DESCRIPTOR m_Descriptor;
    KSAUTOMATION_TABLE m_AutomationTable;
    KSPIN_DESCRIPTOR_EX m_Pins[kMaxFilterPins] = {};
    KSNODE_DESCRIPTOR m_Nodes[kMaxFilterNodes] = {};
    KSTOPOLOGY_CONNECTION m_Connections[kMaxFilterConnections] = {};
    AudioRanges m_CaptureRanges;
    AudioRanges m_RenderRanges;
};

// Names the factory's device interface: writes "FriendlyName" to its key. `name` is terminated
// within 130 characters. PASSIVE_LEVEL.
NTSTATUS SetFriendlyName(PKSFILTERFACTORY factory, const WCHAR* name);
