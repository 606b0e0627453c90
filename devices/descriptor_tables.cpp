#include "devices/descriptor_tables.h"

#include "devices/usb_spec.h"

namespace kelvane::devices {

namespace {

using F = FieldLayout;

// USB 2.0, 9.6, and the interface association of its ECN.
constexpr F kDeviceFields[] = {
    {"bcdUSB", 2},       {"bDeviceClass"}, {"bDeviceSubClass"}, {"bDeviceProtocol"},
    {"bMaxPacketSize0"}, {"idVendor", 2},  {"idProduct", 2},    {"bcdDevice", 2},
    {"iManufacturer"},   {"iProduct"},     {"iSerialNumber"},   {"bNumConfigurations"},
};
constexpr F kConfigurationFields[] = {
    {"wTotalLength", 2}, {"bNumInterfaces"}, {"bConfigurationValue"},
    {"iConfiguration"},  {"bmAttributes"},   {"bMaxPower"},
};
constexpr F kInterfaceFields[] = {
    {"bInterfaceNumber"},   {"bAlternateSetting"},  {"bNumEndpoints"}, {"bInterfaceClass"},
    {"bInterfaceSubClass"}, {"bInterfaceProtocol"}, {"iInterface"},
};
constexpr F kEndpointFields[] = {
    {"bEndpointAddress"}, {"bmAttributes"}, {"wMaxPacketSize", 2}, {"bInterval"}};
constexpr F kAudio1EndpointFields[] = {{"bEndpointAddress"},  {"bmAttributes"},
                                       {"wMaxPacketSize", 2}, {"bInterval"},
                                       {"bRefresh"},          {"bSynchAddress"}};
constexpr F kAssociationFields[] = {{"bFirstInterface"},   {"bInterfaceCount"},
                                    {"bFunctionClass"},    {"bFunctionSubClass"},
                                    {"bFunctionProtocol"}, {"iFunction"}};

// HID 6.2.1, DFU 4.1.3.
constexpr F kHidFields[] = {{"bcdHID", 2},
                            {"bCountryCode"},
                            {"bNumDescriptors"},
                            {"bClassDescriptorType", 1, "bNumDescriptors", 2},
                            {"wDescriptorLength", 2}};
constexpr F kUpgradeFields[] = {
    {"bmAttributes"}, {"wDetachTimeOut", 2}, {"wTransferSize", 2}, {"bcdDFUVersion", 2}};

// UAC2, 4.7.2.
constexpr F kHeader2[] = {{"bcdADC", 2}, {"bCategory"}, {"wTotalLength", 2}, {"bmControls"}};
constexpr F kInputTerminal2[] = {{"bTerminalID"},   {"wTerminalType", 2}, {"bAssocTerminal"},
                                 {"bCSourceID"},    {"bNrChannels"},      {"bmChannelConfig", 4},
                                 {"iChannelNames"}, {"bmControls", 2},    {"iTerminal"}};
constexpr F kOutputTerminal2[] = {{"bTerminalID"}, {"wTerminalType", 2}, {"bAssocTerminal"},
                                  {"bSourceID"},   {"bCSourceID"},       {"bmControls", 2},
                                  {"iTerminal"}};
constexpr F kMixerUnit2[] = {{"bUnitID"},
                             {"bNrInPins"},
                             {"baSourceID", 1, "bNrInPins"},
                             {"bNrChannels"},
                             {"bmChannelConfig", 4},
                             {"iChannelNames"},
                             {"bmMixerControls", 1, kToTheEnd},
                             {"bmControls"},
                             {"iMixer"}};
constexpr F kSelectorUnit2[] = {
    {"bUnitID"}, {"bNrInPins"}, {"baSourceID", 1, "bNrInPins"}, {"bmControls"}, {"iSelector"}};
constexpr F kFeatureUnit2[] = {
    {"bUnitID"}, {"bSourceID"}, {"bmaControls", 4, kToTheEnd}, {"iFeature"}};
constexpr F kEffectUnit2[] = {
    {"bUnitID"}, {"wEffectType", 2}, {"bSourceID"}, {"bmaControls", 4, kToTheEnd}, {"iEffects"}};
constexpr F kProcessingUnit2[] = {{"bUnitID"},       {"wProcessType", 2},
                                  {"bNrInPins"},     {"baSourceID", 1, "bNrInPins"},
                                  {"bNrChannels"},   {"bmChannelConfig", 4},
                                  {"iChannelNames"}, {"bmControls", 2},
                                  {"iProcessing"},   {"processSpecific", 1, kToTheEnd}};
constexpr F kExtensionUnit2[] = {
    {"bUnitID"},     {"wExtensionCode", 2},  {"bNrInPins"},     {"baSourceID", 1, "bNrInPins"},
    {"bNrChannels"}, {"bmChannelConfig", 4}, {"iChannelNames"}, {"bmControls"},
    {"iExtension"}};
constexpr F kClockSourceFields[] = {
    {"bClockID"}, {"bmAttributes"}, {"bmControls"}, {"bAssocTerminal"}, {"iClockSource"}};
constexpr F kClockSelectorFields[] = {{"bClockID"},
                                      {"bNrInPins"},
                                      {"baCSourceID", 1, "bNrInPins"},
                                      {"bmControls"},
                                      {"iClockSelector"}};
constexpr F kClockMultiplierFields[] = {
    {"bClockID"}, {"bCSourceID"}, {"bmControls"}, {"iClockMultiplier"}};
constexpr F kRateConverterFields[] = {
    {"bUnitID"}, {"bSourceID"}, {"bCSourceInID"}, {"bCSourceOutID"}, {"iSRC"}};

// UAC2, 4.9 and 4.10; Formats 2.3.
constexpr F kGeneral2[] = {{"bTerminalLink"}, {"bmControls"},  {"bFormatType"},
                           {"bmFormats", 4},  {"bNrChannels"}, {"bmChannelConfig", 4},
                           {"iChannelNames"}};
constexpr F kFormatIII2[] = {{"bFormatType"}, {"bSubslotSize"}, {"bBitResolution"}};
// The last is no standard's: the highest rate in Hz that the setting carries.
constexpr F kFormatI2[] = {
    {"bFormatType"}, {"bSubslotSize"}, {"bBitResolution"}, {"maximumSampleRate", 4}};
constexpr F kFormatII2[] = {{"bFormatType"}, {"wMaxBitRate", 2}, {"wSlotsPerFrame", 2}};
constexpr F kFormatIV2[] = {{"bFormatType"}};
constexpr F kFormatOther[] = {{"bFormatType"}, {"formatSpecific", 1, kToTheEnd}};
constexpr F kEpGeneral2[] = {
    {"bmAttributes"}, {"bmControls"}, {"bLockDelayUnits"}, {"wLockDelay", 2}};
constexpr F kOpaque[] = {{"data", 1, kToTheEnd}};

// Audio 1.0, 4.3 to 4.6; Formats 2.2.
constexpr F kHeader1[] = {
    {"bcdADC", 2}, {"wTotalLength", 2}, {"bInCollection"}, {"baInterfaceNr", 1, "bInCollection"}};
constexpr F kInputTerminal1[] = {{"bTerminalID"}, {"wTerminalType", 2},  {"bAssocTerminal"},
                                 {"bNrChannels"}, {"wChannelConfig", 2}, {"iChannelNames"},
                                 {"iTerminal"}};
constexpr F kOutputTerminal1[] = {
    {"bTerminalID"}, {"wTerminalType", 2}, {"bAssocTerminal"}, {"bSourceID"}, {"iTerminal"}};
constexpr F kMixerUnit1[] = {
    {"bUnitID"},           {"bNrInPins"},     {"baSourceID", 1, "bNrInPins"}, {"bNrChannels"},
    {"wChannelConfig", 2}, {"iChannelNames"}, {"bmControls", 1, kToTheEnd},   {"iMixer"}};
constexpr F kSelectorUnit1[] = {
    {"bUnitID"}, {"bNrInPins"}, {"baSourceID", 1, "bNrInPins"}, {"iSelector"}};
constexpr F kFeatureUnit1[] = {
    {"bUnitID"}, {"bSourceID"}, {"bControlSize"}, {"bmaControls", 0, kToTheEnd}, {"iFeature"}};
constexpr F kProcessingUnit1[] = {{"bUnitID"},
                                  {"wProcessType", 2},
                                  {"bNrInPins"},
                                  {"baSourceID", 1, "bNrInPins"},
                                  {"bNrChannels"},
                                  {"wChannelConfig", 2},
                                  {"iChannelNames"},
                                  {"bControlSize"},
                                  {"bmControls", 1, "bControlSize"},
                                  {"iProcessing"},
                                  {"processSpecific", 1, kToTheEnd}};
constexpr F kExtensionUnit1[] = {{"bUnitID"},
                                 {"wExtensionCode", 2},
                                 {"bNrInPins"},
                                 {"baSourceID", 1, "bNrInPins"},
                                 {"bNrChannels"},
                                 {"wChannelConfig", 2},
                                 {"iChannelNames"},
                                 {"bControlSize"},
                                 {"bmControls", 1, "bControlSize"},
                                 {"iExtension"}};
constexpr F kGeneral1[] = {{"bTerminalLink"}, {"bDelay"}, {"wFormatTag", 2}};
// The last two stand in place of a list when bSamFreqType is 0.
constexpr F kFormatI1[] = {{"bFormatType"},      {"bNrChannels"},
                           {"bSubframeSize"},    {"bBitResolution"},
                           {"bSamFreqType"},     {"tSamFreq", 3, "bSamFreqType"},
                           {"tLowerSamFreq", 3}, {"tUpperSamFreq", 3}};
constexpr F kFormatII1[] = {{"bFormatType"},
                            {"wMaxBitRate", 2},
                            {"wSamplesPerFrame", 2},
                            {"bSamFreqType"},
                            {"tSamFreq", 3, "bSamFreqType"},
                            {"tLowerSamFreq", 3},
                            {"tUpperSamFreq", 3}};
constexpr F kEpGeneral1[] = {{"bmAttributes"}, {"bLockDelayUnits"}, {"wLockDelay", 2}};

// USB-MIDI, 6.1 and 6.2.
constexpr F kMidiHeader[] = {{"bcdMSC", 2}, {"wTotalLength", 2}};
constexpr F kMidiIn[] = {{"bJackType"}, {"bJackID"}, {"iJack"}};
constexpr F kMidiOut[] = {{"bJackType"},    {"bJackID"},
                          {"bNrInputPins"}, {"baSourceID", 1, "bNrInputPins", 2},
                          {"BaSourcePin"},  {"iJack"}};
constexpr F kMidiElement[] = {
    {"bElementID"},       {"bNrInputPins"},  {"baSourceID", 1, "bNrInputPins", 2},
    {"BaSourcePin"},      {"bNrOutputPins"}, {"bInTerminalLink"},
    {"bOutTerminalLink"}, {"bElCapsSize"},   {"bmElementCaps", 1, "bElCapsSize"},
    {"iElement"}};
constexpr F kMidiGeneral[] = {{"bNumEmbMIDIJack"}, {"baAssocJackID", 1, "bNumEmbMIDIJack"}};

constexpr std::uint8_t kHid = 0x21; // as DFU's: the interface tells which
constexpr std::uint8_t kI = usb::kCsInterface;
constexpr std::uint8_t kE = usb::kCsEndpoint;

constexpr DescriptorLayout kLayouts[] = {
    {Area::Anywhere, usb::kDevice, kAny, kAny, "DEVICE", kDeviceFields},
    {Area::Anywhere, usb::kConfiguration, kAny, kAny, "CONFIGURATION", kConfigurationFields},
    {Area::Anywhere, usb::kInterface, kAny, kAny, "INTERFACE", kInterfaceFields},
    {Area::Control1, usb::kEndpoint, kAny, kAny, "ENDPOINT", kAudio1EndpointFields, 2},
    {Area::Streaming1, usb::kEndpoint, kAny, kAny, "ENDPOINT", kAudio1EndpointFields, 2},
    {Area::Midi, usb::kEndpoint, kAny, kAny, "ENDPOINT", kAudio1EndpointFields, 2},
    {Area::Anywhere, usb::kEndpoint, kAny, kAny, "ENDPOINT", kEndpointFields},
    {Area::Anywhere, usb::kInterfaceAssociation, kAny, kAny, "INTERFACE_ASSOCIATION",
     kAssociationFields},
    {Area::Hid, kHid, kAny, kAny, "HID", kHidFields},
    {Area::Upgrade, usb::kDfuFunctional, kAny, kAny, "DFU_FUNCTIONAL", kUpgradeFields, 1},

    {Area::Control2, kI, 1, kAny, "HEADER", kHeader2},
    {Area::Control2, kI, 2, kAny, "INPUT_TERMINAL", kInputTerminal2},
    {Area::Control2, kI, 3, kAny, "OUTPUT_TERMINAL", kOutputTerminal2},
    {Area::Control2, kI, 4, kAny, "MIXER_UNIT", kMixerUnit2},
    {Area::Control2, kI, 5, kAny, "SELECTOR_UNIT", kSelectorUnit2},
    {Area::Control2, kI, 6, kAny, "FEATURE_UNIT", kFeatureUnit2},
    {Area::Control2, kI, 7, kAny, "EFFECT_UNIT", kEffectUnit2},
    {Area::Control2, kI, 8, kAny, "PROCESSING_UNIT", kProcessingUnit2},
    {Area::Control2, kI, 9, kAny, "EXTENSION_UNIT", kExtensionUnit2},
    {Area::Control2, kI, 10, kAny, "CLOCK_SOURCE", kClockSourceFields},
    {Area::Control2, kI, 11, kAny, "CLOCK_SELECTOR", kClockSelectorFields},
    {Area::Control2, kI, 12, kAny, "CLOCK_MULTIPLIER", kClockMultiplierFields},
    {Area::Control2, kI, 13, kAny, "SAMPLE_RATE_CONVERTER", kRateConverterFields},
    {Area::Streaming2, kI, 1, kAny, "AS_GENERAL", kGeneral2},
    {Area::Streaming2, kI, 2, 1, "FORMAT_TYPE_I", kFormatI2, 1},
    {Area::Streaming2, kI, 2, 2, "FORMAT_TYPE_II", kFormatII2},
    {Area::Streaming2, kI, 2, 3, "FORMAT_TYPE_III", kFormatIII2},
    {Area::Streaming2, kI, 2, 4, "FORMAT_TYPE_IV", kFormatIV2},
    {Area::Streaming2, kI, 2, kAny, "FORMAT_TYPE", kFormatOther},
    {Area::Streaming2, kI, 3, kAny, "ENCODER", kOpaque},
    {Area::Streaming2, kI, 4, kAny, "DECODER", kOpaque},
    {Area::Streaming2, kE, 1, kAny, "EP_GENERAL", kEpGeneral2},

    {Area::Control1, kI, 1, kAny, "HEADER", kHeader1},
    {Area::Control1, kI, 2, kAny, "INPUT_TERMINAL", kInputTerminal1},
    {Area::Control1, kI, 3, kAny, "OUTPUT_TERMINAL", kOutputTerminal1},
    {Area::Control1, kI, 4, kAny, "MIXER_UNIT", kMixerUnit1},
    {Area::Control1, kI, 5, kAny, "SELECTOR_UNIT", kSelectorUnit1},
    {Area::Control1, kI, 6, kAny, "FEATURE_UNIT", kFeatureUnit1},
    {Area::Control1, kI, 7, kAny, "PROCESSING_UNIT", kProcessingUnit1},
    {Area::Control1, kI, 8, kAny, "EXTENSION_UNIT", kExtensionUnit1},
    {Area::Streaming1, kI, 1, kAny, "AS_GENERAL", kGeneral1},
    {Area::Streaming1, kI, 2, 1, "FORMAT_TYPE_I", kFormatI1, 2},
    {Area::Streaming1, kI, 2, 2, "FORMAT_TYPE_II", kFormatII1, 2},
    {Area::Streaming1, kI, 2, 3, "FORMAT_TYPE_III", kFormatI1, 2},
    {Area::Streaming1, kI, 2, kAny, "FORMAT_TYPE", kFormatOther},
    {Area::Streaming1, kI, 3, kAny, "FORMAT_SPECIFIC", kOpaque},
    {Area::Streaming1, kE, 1, kAny, "EP_GENERAL", kEpGeneral1},

    {Area::Midi, kI, usb::kMsHeader, kAny, "MS_HEADER", kMidiHeader},
    {Area::Midi, kI, usb::kMidiInJack, kAny, "MIDI_IN_JACK", kMidiIn},
    {Area::Midi, kI, usb::kMidiOutJack, kAny, "MIDI_OUT_JACK", kMidiOut},
    {Area::Midi, kI, 4, kAny, "ELEMENT", kMidiElement},
    {Area::Midi, kE, usb::kMsGeneral, kAny, "MS_GENERAL", kMidiGeneral},
};

} // namespace

std::span<const DescriptorLayout> descriptorLayouts() {
    return kLayouts;
}

} // namespace kelvane::devices
