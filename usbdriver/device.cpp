// The life of a device: construction, start, removal. Its clock is in device_clock.cpp, its
// MIDI in device_midi.cpp.
#include "usbdriver/device.h"

#include "usbdriver/audiocontrol.h"
#include "usbdriver/audstream.h"
#include "usbdriver/clocksync.h"
#include "usbdriver/filter.h"
#include "usbdriver/registry.h"

namespace {

// USB device classes as the interfaces carry them (USB Audio 2.0, A.4, A.5; DFU 1.1, 4.2.1).
constexpr UCHAR kClassAudio = 0x01;
constexpr UCHAR kSubClassAudioControl = 0x01;
constexpr UCHAR kSubClassAudioStreaming = 0x02;
constexpr UCHAR kSubClassMidiStreaming = 0x03;
constexpr UCHAR kClassApplicationSpecific = 0xFE;
constexpr UCHAR kSubClassDfu = 0x01;

// The makers whose devices the driver serves.
constexpr USHORT kVendorIds[] = {KELVANE_VENDOR_ID, 0x20B1};

bool IsInterface(const CUsbInterface* provider, UCHAR interfaceClass, UCHAR subClass) {
    return provider != nullptr && provider->GetInterfaceClass() == interfaceClass &&
           provider->GetInterfaceSubClass() == subClass;
}

} // namespace

// --- Construction -------------------------------------------------------------------------------

UsbAudioDevice::UsbAudioDevice(PKSDEVICE device) : m_KsDevice(device) {
    DbgPrint("UsbAudioDevice::UsbAudioDevice()\n");
    KeInitializeMutex(&m_StreamsMutex, 0);
    m_FilterDescriptor = new (PagedPool) FilterDescriptor;
    OpenRegistryKey();
    if (!NT_SUCCESS(ReadSetting(L"UrbSize", &m_UrbSize))) {
        m_UrbSize = kDefaultUrbSize;
    }
}

UsbAudioDevice::~UsbAudioDevice() {
    DbgPrint("UsbAudioDevice::~UsbAudioDevice()\n");
    if (m_RegistryKey != nullptr) {
        ZwClose(m_RegistryKey);
    }
    delete m_FilterDescriptor;
    delete m_ClockSync;
}

void UsbAudioDevice::OpenRegistryKey() {
    if (m_KsDevice->PhysicalDeviceObject == nullptr) {
        return;
    }
    const NTSTATUS status = IoOpenDeviceRegistryKey(
        m_KsDevice->PhysicalDeviceObject, PLUGPLAY_REGKEY_DRIVER, KEY_QUERY_VALUE, &m_RegistryKey);
    if (NT_ERROR(status)) {
        TraceFailed("UsbAudioDevice::UsbAudioDevice", "IoOpenDeviceRegistryKey", status);
    }
}

NTSTATUS UsbAudioDevice::ReadSetting(const WCHAR* name, ULONG* value) const {
    return m_RegistryKey != nullptr ? RegQueryValue(m_RegistryKey, name, value)
                                    : STATUS_DEVICE_NOT_CONNECTED;
}

// The key is open for queries only, so this is refused; what is remembered of a device is what its
// installation wrote. No operation depends on the outcome.
void UsbAudioDevice::WriteSetting(const WCHAR* name, ULONG value) const {
    if (m_RegistryKey != nullptr) {
        RegSetValue(m_RegistryKey, name, value);
    }
}

UsbAudioDevice* UsbAudioDevice::FromKsPin(PKSPIN pin) {
    const PKSFILTER filter = KsPinGetParentFilter(pin);
    const PKSDEVICE device = filter == nullptr ? nullptr : KsFilterGetDevice(filter);
    return device == nullptr ? nullptr : FromKsDevice(device);
}

// --- Start --------------------------------------------------------------------------------------

NTSTATUS UsbAudioDevice::PostStart() {
    constexpr char kFunction[] = "UsbAudioDevice::PostStart";
    CheckPageable();
    if (m_FilterDescriptor == nullptr) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    NTSTATUS status = m_UsbDev.Open(m_KsDevice->PhysicalDeviceObject);
    if (!NT_SUCCESS(status)) {
        DbgPrint("UsbAudioDevice::PostStart() : m_UsbDev.Open() returned error %x\n", status);
        return status;
    }
    WCHAR product[32] = {};
    // A device without one is asked for string 0, its language table: that becomes the name.
    status = m_UsbDev.GetStringDescriptor(m_UsbDev.GetProductStringIndex(), product,
                                          sizeof(product), kLanguageEnglishUs);
    if (!NT_SUCCESS(status)) {
        DbgPrint("%s() Error - GetStringDescriptor() failed with NTSTATUS 0x%x\n", kFunction,
                 status);
        return status;
    }
    if (IsInDfuMode()) {
        DbgPrint("%s() Device is in DFU mode...\n", kFunction);
    } else {
        status = StartAudio();
        if (!NT_SUCCESS(status)) {
            return status;
        }
    }
    PublishFilter(product);
    return STATUS_SUCCESS;
}

bool UsbAudioDevice::IsInDfuMode() const {
    return m_UsbDev.GetNumInterfaces() == 1 &&
           IsInterface(m_UsbDev.GetInterface(0), kClassApplicationSpecific, kSubClassDfu);
}

NTSTATUS UsbAudioDevice::StartAudio() {
    constexpr char kFunction[] = "UsbAudioDevice::PostStart";
    const NTSTATUS enumerated = Enumerate();
    if (!NT_SUCCESS(enumerated)) {
        DbgPrint("%s() Error - Enumerate() failed with NTSTATUS 0x%x\n", kFunction, enumerated);
        return enumerated;
    }
    if (m_AudioControlInterface == nullptr) {
        DbgPrint("%s() Error - no audio control interface\n", kFunction);
        return STATUS_DEVICE_NOT_READY;
    }
    if (m_UsbDev.GetProductId() == KELVANE_PRIMED_PRODUCT_ID) {
        PrimeClock(enumerated);
    }
    ULONG rate = 0;
    const NTSTATUS status = m_AudioControlInterface->getSampleRate(&rate);
    if (!NT_SUCCESS(status)) {
        DbgPrint("%s() Error - AudioControlInterface->getSampleRate() failed with NTSTATUS 0x%x\n",
                 kFunction, status);
        return status;
    }
    m_SampleRate = RestoreSampleRate(rate);
    ForEachStream([this](UsbAudioStream* stream) { stream->SetSampleRate(m_SampleRate, false); });
    MeasureUrbSizeMin();
    if (m_AudioStream_In != nullptr && m_AudioStream_Out != nullptr) {
        EnableAsynchronousClocking(true);
    }
    return STATUS_SUCCESS;
}

// One product's clock is taken to 96000 Hz once before it is used. The device may refuse:
// what is checked afterwards is, deliberately, the enumeration's status.
void UsbAudioDevice::PrimeClock(NTSTATUS enumerated) {
    constexpr char kFunction[] = "UsbAudioDevice::PostStart";
    m_AudioControlInterface->setSampleRate(96000);
    DbgPrint("setting AudioControlInterface->setSampleRate(96000)\n");
    if (!NT_SUCCESS(enumerated)) {
        DbgPrint("%s() Error - AudioControlInterface->setSampleRate(96000) failed with NTSTATUS "
                 "0x%x\n",
                 kFunction, enumerated);
    }
    m_AudioControlInterface->setSampleRate(44100);
    DbgPrint("setting AudioControlInterface->setSampleRate(44100)\n");
    if (!NT_SUCCESS(enumerated)) {
        DbgPrint("%s() Error - AudioControlInterface->setSampleRate(44100) failed with NTSTATUS "
                 "0x%x\n",
                 kFunction, enumerated);
    }
}

ULONG UsbAudioDevice::RestoreSampleRate(ULONG deviceRate) {
    ULONG saved = 0;
    if (!NT_SUCCESS(ReadSetting(L"SampleRate", &saved)) ||
        !NT_SUCCESS(m_AudioControlInterface->setSampleRate(saved))) {
        return deviceRate;
    }
    DbgPrint("UsbAudioDevice::PostStart() Using saved sample rate: %d\n", saved);
    return saved;
}

// The result of a first run only says whether anything could be measured; the second run's counts.
void UsbAudioDevice::MeasureUrbSizeMin() {
    if (UsbAudioStream* const output = GetAudioStream(false)) {
        m_UrbSizeMin = 1;
        if (output->TestUrbLatency() != 0) {
            m_UrbSizeMin = static_cast<ULONG>(output->TestUrbLatency());
        }
        DbgPrint("%s() m_UrbSizeMin = %d\n", "UsbAudioDevice::PostStart", m_UrbSizeMin);
    }
    if (m_UrbSizeMin > kMaxUrbSizeMin) {
        m_UrbSizeMin = kMaxUrbSizeMin;
    }
    if (m_UrbSize < m_UrbSizeMin) {
        SetUrbSize(m_UrbSizeMin);
    }
}

void UsbAudioDevice::PublishFilter(const WCHAR* productString) {
    KsAcquireDevice(m_KsDevice);
    PKSFILTERFACTORY factory = nullptr;
    WCHAR reference[] = L"GLOBAL";
    const NTSTATUS status =
        KsCreateFilterFactory(m_KsDevice->FunctionalDeviceObject, m_FilterDescriptor->Descriptor(),
                              reference, nullptr, 0, nullptr, nullptr, &factory);
    if (NT_ERROR(status)) {
        TraceFailed("UsbAudioDevice::PostStart", "KsCreateFilterFactory", status);
    }
    SetFriendlyName(factory, productString);
    KsReleaseDevice(m_KsDevice);
}

// --- Enumeration --------------------------------------------------------------------------------

NTSTATUS UsbAudioDevice::Enumerate() {
    bool known = false;
    for (const USHORT vendor : kVendorIds) {
        known = known || m_UsbDev.GetVendorId() == vendor;
    }
    if (!known) {
        return STATUS_NOT_SUPPORTED;
    }
    for (ULONG i = 0; i < m_UsbDev.GetNumInterfaces(); ++i) {
        const CUsbInterface* const provider = m_UsbDev.GetInterface(i);
        if (provider == nullptr) {
            break;
        }
        if (IsInterface(provider, kClassAudio, kSubClassAudioControl)) {
            CreateAudioControl(i);
        } else if (IsInterface(provider, kClassAudio, kSubClassAudioStreaming)) {
            CreateAudioStream(i);
        } else if (IsInterface(provider, kClassAudio, kSubClassMidiStreaming)) {
            CreateMidiPipes(i);
        }
    }
    return STATUS_SUCCESS;
}

void UsbAudioDevice::CreateAudioControl(ULONG index) {
    const CUsbInterface* const behind = m_UsbDev.GetInterface(index + 1);
    if (m_AudioControlInterface != nullptr ||
        !IsInterface(behind, kClassAudio, kSubClassAudioStreaming)) {
        return;
    }
    auto* const audioControl = new (NonPagedPool) AudioControlInterface(this);
    if (audioControl == nullptr || !audioControl->Init(m_UsbDev.GetInterface(index))) {
        delete audioControl;
        return;
    }
    m_AudioControlInterface = audioControl;
    m_FilterDescriptor->SetSampleRateRange(audioControl->getMinSampleRate(),
                                           audioControl->getMaxSampleRate());
}

void UsbAudioDevice::CreateAudioStream(ULONG index) {
    DbgPrint("Creating AudioStream for interface %d\n", index);
    auto* const stream = new (NonPagedPool) UsbAudioStream;
    if (stream == nullptr || !stream->Init(m_UsbDev.GetInterface(index), m_UrbSize)) {
        delete stream;
        return;
    }
    RegisterStream(stream);
}

void UsbAudioDevice::RegisterStream(UsbAudioStream* stream) {
    DriverAssertAs("m_AudioControlInterface != NULL", m_AudioControlInterface != nullptr);
    const bool input = stream->IsInput();
    if (input) {
        DriverAssertAs("m_AudioStream_In == NULL", m_AudioStream_In == nullptr);
    } else {
        DriverAssertAs("m_AudioStream_Out == NULL", m_AudioStream_Out == nullptr);
    }
    UsbAudioStream*& slot = input ? m_AudioStream_In : m_AudioStream_Out;
    delete slot; // of several streams of a direction, the last one serves all its pins
    slot = stream;
    m_FilterDescriptor->AddAudioPins(input);
    m_FilterDescriptor->SetMaximumChannels(input, stream->GetNumChannels());
}

// --- Removal ------------------------------------------------------------------------------------

void UsbAudioDevice::SurpriseRemoval() {
    m_UsbDev.Disconnect();
}

void UsbAudioDevice::SetPower(DEVICE_POWER_STATE state) {
    if (state == PowerDeviceD0) {
        StartMidi();
    } else if (state == PowerDeviceD3) {
        StopMidi();
    }
    const MutexHolder holder(&m_StreamsMutex);
    if (state == PowerDeviceD0) {
        ForEachStream([](UsbAudioStream* stream) { stream->Resume(); });
    } else if (state == PowerDeviceD3) {
        ForEachStream([](UsbAudioStream* stream) { stream->Pause(); });
    }
}

void UsbAudioDevice::Remove() {
    DbgPrint("UsbAudioDevice::Remove()\n");
    RemoveMidi();
    delete m_AudioStream_In;
    m_AudioStream_In = nullptr;
    delete m_AudioStream_Out;
    m_AudioStream_Out = nullptr;
    delete m_AudioControlInterface;
    m_AudioControlInterface = nullptr;
    m_UsbDev.Close();
}
