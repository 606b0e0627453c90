// Numbers of the published USB standards: USB 2.0 chapter 9, USB Device Class Definition for Audio
// Devices 2.0 (UAC2) appendix A, USB Device Class Definition for MIDI Devices 1.0 (USB-MIDI)
// appendix A. Spelt differently from the standards, whose capitals are macros in the kernel's
// headers.
#pragma once

#include <cstddef>
#include <cstdint>

namespace kelvane::devices::usb {

// Descriptor types.
constexpr std::uint8_t kDevice = 1;
constexpr std::uint8_t kConfiguration = 2;
constexpr std::uint8_t kString = 3;
constexpr std::uint8_t kInterface = 4;
constexpr std::uint8_t kEndpoint = 5;
constexpr std::uint8_t kDeviceQualifier = 6;
constexpr std::uint8_t kInterfaceAssociation = 11;
constexpr std::uint8_t kDfuFunctional = 0x21; // USB Device Firmware Upgrade 1.1, 4.1.3
constexpr std::uint8_t kCsInterface = 0x24;
constexpr std::uint8_t kCsEndpoint = 0x25;

constexpr std::size_t kDeviceLength = 18;
constexpr std::size_t kConfigurationLength = 9;
constexpr std::size_t kInterfaceLength = 9;
constexpr std::size_t kEndpointLength = 7;
constexpr std::uint16_t kEnglishUs = 0x0409;

// Standard requests.
constexpr std::uint8_t kGetStatus = 0;
constexpr std::uint8_t kClearFeature = 1;
constexpr std::uint8_t kSetFeature = 3;
constexpr std::uint8_t kSetAddress = 5;
constexpr std::uint8_t kGetDescriptor = 6;
constexpr std::uint8_t kSetDescriptor = 7;
constexpr std::uint8_t kGetConfiguration = 8;
constexpr std::uint8_t kSetConfiguration = 9;
constexpr std::uint8_t kGetInterface = 10;
constexpr std::uint8_t kSetInterface = 11;

// Feature selectors.
constexpr std::uint16_t kEndpointHalt = 0;
constexpr std::uint16_t kDeviceRemoteWakeup = 1;

// bmRequestType.
constexpr std::uint8_t kTypeMask = 0x60;
constexpr std::uint8_t kTypeStandard = 0x00;
constexpr std::uint8_t kTypeClass = 0x20;
constexpr std::uint8_t kTypeVendor = 0x40;
constexpr std::uint8_t kRecipientMask = 0x1F;
constexpr std::uint8_t kToDevice = 0;
constexpr std::uint8_t kToInterface = 1;
constexpr std::uint8_t kToEndpoint = 2;
constexpr std::uint8_t kToOther = 3;

// Interface classes.
constexpr std::uint8_t kAudio = 0x01;
constexpr std::uint8_t kAudioControl = 0x01;
constexpr std::uint8_t kAudioStreaming = 0x02;
constexpr std::uint8_t kMidiStreaming = 0x03;
constexpr std::uint8_t kAudioVersion2 = 0x20; // bInterfaceProtocol IP_VERSION_02_00
constexpr std::uint8_t kApplicationSpecific = 0xFE;
constexpr std::uint8_t kFirmwareUpgrade = 0x01; // subclass of it
constexpr std::uint8_t kUpgradeMode = 0x02;     // protocol of that: the device waits for firmware

// UAC2 AudioControl interface descriptor subtypes.
constexpr std::uint8_t kHeader = 1;
constexpr std::uint8_t kInputTerminal = 2;
constexpr std::uint8_t kOutputTerminal = 3;
constexpr std::uint8_t kSelectorUnit = 5;
constexpr std::uint8_t kFeatureUnit = 6;
constexpr std::uint8_t kClockSource = 10;
constexpr std::uint8_t kClockSelector = 11;
constexpr std::uint8_t kClockMultiplier = 12;

// UAC2 AudioStreaming interface descriptor subtypes.
constexpr std::uint8_t kAsGeneral = 1;
constexpr std::uint8_t kFormatType = 2;
constexpr std::uint8_t kFormatTypeI = 1;
constexpr std::uint8_t kEpGeneral = 1;

// USB-MIDI descriptor subtypes of a MIDIStreaming interface, of its endpoints, and jack types.
constexpr std::uint8_t kMsHeader = 1;
constexpr std::uint8_t kMidiInJack = 2;
constexpr std::uint8_t kMidiOutJack = 3;
constexpr std::uint8_t kMsGeneral = 1;
constexpr std::uint8_t kEmbedded = 1;
constexpr std::uint8_t kExternal = 2;
constexpr std::size_t kMostCables = 16; // of one endpoint: a cable number has 4 bits

// UAC2 class-specific requests and control selectors.
constexpr std::uint8_t kCur = 1;
constexpr std::uint8_t kRange = 2;
constexpr std::uint8_t kSamplingFrequency = 1; // CS_SAM_FREQ_CONTROL
constexpr std::uint8_t kClockValid = 2;        // CS_CLOCK_VALID_CONTROL
constexpr std::uint8_t kClockSelection = 1;    // CX_CLOCK_SELECTOR_CONTROL
constexpr std::uint8_t kSelection = 1;         // SU_SELECTOR_CONTROL
constexpr std::uint8_t kMute = 1;              // FU_MUTE_CONTROL
constexpr std::uint8_t kVolume = 2;            // FU_VOLUME_CONTROL

} // namespace kelvane::devices::usb
