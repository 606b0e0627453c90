// A small driver of the class driver's for its tests: static descriptors, callbacks that log and
// do what the test wants, on a bus of one device. And the application's side of it.
#pragma once

#include "platform/nt/kernel.h"

#include "client/kshandle.h"
#include "client/pinformat.h"
#include "platform/nt/machine.h"
#include "platform/nt/pnp.h"
#include "platform/nt/rules.h"

#include <gtest/gtest.h>

#include <array>
#include <cstddef>
#include <cstring>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace kelvane::ks_test {

using client::makeProperty;

using Log = std::vector<std::string>;

// What the test sets and reads. One at a time: the driver's callbacks find it through `current`.
struct Script {
    Log log;
    std::map<std::string, NTSTATUS> status; // by callback name; STATUS_SUCCESS without
    std::function<NTSTATUS(PKSPIN)> process = [](PKSPIN) {
        return STATUS_PENDING;
    };
    std::function<NTSTATUS(PKSPIN, const KSDATAFORMAT*, const KSDATARANGE*)> setFormat;
    std::function<NTSTATUS(PKSPIN, PIRP)> createPin;
    std::function<void(PKSDEVICE)> postStart;
    PKSDEVICE device = nullptr;
    ULONG value = 7; // of the filter's property 1
    static inline Script* current = nullptr;

    NTSTATUS answer(const std::string& name) {
        log.push_back(name);
        const auto found = status.find(name);
        return found == status.end() ? STATUS_SUCCESS : found->second;
    }
};

inline Script& script() {
    return *Script::current;
}

inline constexpr GUID kCategory = {STATIC_KSCATEGORY_AUDIO};
inline constexpr GUID kCategories[] = {{STATIC_KSCATEGORY_AUDIO}, {STATIC_KSCATEGORY_RENDER}};
inline constexpr GUID kOwnSet = {0x11111111, 0, 0, {1, 2, 3, 4, 5, 6, 7, 8}};
inline constexpr GUID kNodeType = {STATIC_KSNODETYPE_DAC};
// STATIC_KSDATAFORMAT_SUBTYPE_PCM wants the multimedia headers.
inline constexpr GUID kPcm = {1, 0, 0x10, {0x80, 0x00, 0x00, 0xAA, 0x00, 0x38, 0x9B, 0x71}};
inline constexpr GUID kAudio = {STATIC_KSDATAFORMAT_TYPE_AUDIO};
inline constexpr GUID kWaveFormat = {STATIC_KSDATAFORMAT_SPECIFIER_WAVEFORMATEX};
inline constexpr GUID kDsound = {STATIC_KSDATAFORMAT_SPECIFIER_DSOUND};
inline constexpr GUID kNone = {STATIC_KSDATAFORMAT_SPECIFIER_NONE};

enum PinId : ULONG { kRender, kCapture, kBridge, kWorker, kFifo, kPinCount };

// --- Callbacks -----------------------------------------------------------------------------------

inline NTSTATUS NTAPI onAdd(PKSDEVICE device) {
    script().device = device;
    return script().answer("Add");
}
inline NTSTATUS NTAPI onStart(PKSDEVICE, PIRP, PCM_RESOURCE_LIST, PCM_RESOURCE_LIST) {
    return script().answer("Start");
}
extern const KSFILTER_DESCRIPTOR kFilterDescriptor;
inline NTSTATUS NTAPI onPostStart(PKSDEVICE device) {
    const NTSTATUS status = script().answer("PostStart");
    if (NT_SUCCESS(status)) {
        WCHAR reference[] = L"GLOBAL";
        EXPECT_EQ(STATUS_SUCCESS,
                  KsCreateFilterFactory(device->FunctionalDeviceObject, &kFilterDescriptor,
                                        reference, nullptr, 0, nullptr, nullptr, nullptr));
        if (script().postStart) {
            script().postStart(device);
        }
    }
    return status;
}
inline void NTAPI onStop(PKSDEVICE, PIRP) {
    script().answer("Stop");
}
inline void NTAPI onRemove(PKSDEVICE, PIRP) {
    script().answer("Remove");
}
inline void NTAPI onSurprise(PKSDEVICE, PIRP) {
    script().answer("SurpriseRemoval");
}
inline NTSTATUS NTAPI onQueryRemove(PKSDEVICE, PIRP) {
    return script().answer("QueryRemove");
}
inline void NTAPI onCancelRemove(PKSDEVICE, PIRP) {
    script().answer("CancelRemove");
}
inline NTSTATUS NTAPI onCapabilities(PKSDEVICE, PIRP, PDEVICE_CAPABILITIES capabilities) {
    capabilities->SurpriseRemovalOK = 1;
    return script().answer("QueryCapabilities");
}
inline void NTAPI onPower(PKSDEVICE, PIRP, DEVICE_POWER_STATE to, DEVICE_POWER_STATE from) {
    script().answer("SetPower D" + std::to_string(from - PowerDeviceD0) + "-D" +
                    std::to_string(to - PowerDeviceD0));
}

inline NTSTATUS NTAPI onFilterCreate(PKSFILTER, PIRP) {
    return script().answer("FilterCreate");
}
inline NTSTATUS NTAPI onFilterClose(PKSFILTER, PIRP) {
    return script().answer("FilterClose");
}

inline NTSTATUS NTAPI onPinCreate(PKSPIN pin, PIRP irp) {
    const NTSTATUS status = script().answer("PinCreate");
    return NT_SUCCESS(status) && script().createPin ? script().createPin(pin, irp) : status;
}
inline NTSTATUS NTAPI onPinClose(PKSPIN, PIRP) {
    return script().answer("PinClose");
}
inline NTSTATUS NTAPI onProcess(PKSPIN pin) {
    return script().process(pin);
}
inline void NTAPI onReset(PKSPIN) {
    script().answer("Reset");
}
inline NTSTATUS NTAPI onSetFormat(PKSPIN pin, PKSDATAFORMAT old, PKSMULTIPLE_ITEM,
                                  const KSDATARANGE* range, const KSATTRIBUTE_LIST*) {
    const NTSTATUS status = script().answer("SetDataFormat");
    return NT_SUCCESS(status) && script().setFormat ? script().setFormat(pin, old, range) : status;
}
inline NTSTATUS NTAPI onSetState(PKSPIN, KSSTATE to, KSSTATE from) {
    return script().answer("State " + std::to_string(from) + "-" + std::to_string(to));
}

inline NTSTATUS NTAPI onIntersect(PVOID, PIRP, PKSP_PIN, PKSDATARANGE caller, PKSDATARANGE,
                                  ULONG bufferSize, PVOID data, PULONG dataSize) {
    script().answer("Intersect");
    *dataSize = sizeof(KSDATAFORMAT);
    if (bufferSize < sizeof(KSDATAFORMAT)) {
        return bufferSize == 0 ? STATUS_BUFFER_OVERFLOW : STATUS_BUFFER_TOO_SMALL;
    }
    std::memcpy(data, caller, sizeof(KSDATAFORMAT));
    return STATUS_SUCCESS;
}

// The filter's own properties: 1 is a number, 2 a list of three, 3 a number that fails.
inline NTSTATUS NTAPI onGet(PIRP irp, PKSIDENTIFIER request, PVOID data) {
    const ULONG list[] = {44100, 48000, 96000};
    const ULONG length =
        IoGetCurrentIrpStackLocation(irp)->Parameters.DeviceIoControl.OutputBufferLength;
    switch (request->Id) {
    case 1:
        *static_cast<ULONG*>(data) = script().value;
        return STATUS_SUCCESS;
    case 2:
        if (length != 0) {
            std::memcpy(data, list, std::min<std::size_t>(length, sizeof(list)));
        }
        irp->IoStatus.Information = sizeof(list);
        return length < sizeof(list) ? STATUS_BUFFER_OVERFLOW : STATUS_SUCCESS;
    default:
        return STATUS_DEVICE_NOT_READY;
    }
}
inline NTSTATUS NTAPI onSet(PIRP, PKSIDENTIFIER, PVOID data) {
    script().value = *static_cast<ULONG*>(data);
    return STATUS_SUCCESS;
}
inline NTSTATUS NTAPI onPinName(PIRP irp, PKSIDENTIFIER, PVOID) {
    irp->IoStatus.Information = 0;
    return script().answer("PinName");
}
// Adds one to each byte of the data.
inline NTSTATUS NTAPI onMethod(PIRP irp, PKSIDENTIFIER, PVOID data) {
    const ULONG length =
        IoGetCurrentIrpStackLocation(irp)->Parameters.DeviceIoControl.OutputBufferLength;
    for (ULONG i = 0; i < length; ++i) {
        ++static_cast<UCHAR*>(data)[i];
    }
    irp->IoStatus.Information = length;
    return STATUS_SUCCESS;
}

// --- Tables --------------------------------------------------------------------------------------

inline constexpr KSDATARANGE_AUDIO audioRange(const GUID& specifier) {
    KSDATARANGE_AUDIO range = {};
    range.DataRange.FormatSize = sizeof(range);
    range.DataRange.MajorFormat = kAudio;
    range.DataRange.SubFormat = kPcm;
    range.DataRange.Specifier = specifier;
    range.MaximumChannels = 2;
    range.MinimumBitsPerSample = 16;
    range.MaximumBitsPerSample = 24;
    range.MinimumSampleFrequency = 44100;
    range.MaximumSampleFrequency = 48000;
    return range;
}
inline KSDATARANGE_AUDIO g_waveRange = audioRange(kWaveFormat);
inline KSDATARANGE_AUDIO g_dsoundRange = audioRange(kDsound);
inline const PKSDATARANGE kRanges[] = {&g_waveRange.DataRange, &g_dsoundRange.DataRange};

inline const KSPIN_DISPATCH kPinDispatch = {onPinCreate, onPinClose, onProcess, onReset,
                                            onSetFormat, onSetState, nullptr,   nullptr,
                                            nullptr,     nullptr};

inline KSPIN_DESCRIPTOR_EX pinDescriptor(KSPIN_DATAFLOW flow, KSPIN_COMMUNICATION communication,
                                         ULONG flags, ULONG instances) {
    KSPIN_DESCRIPTOR_EX descriptor = {};
    descriptor.Dispatch = &kPinDispatch;
    descriptor.PinDescriptor.DataRangesCount = 2;
    descriptor.PinDescriptor.DataRanges = kRanges;
    descriptor.PinDescriptor.DataFlow = flow;
    descriptor.PinDescriptor.Communication = communication;
    descriptor.PinDescriptor.Category = &kCategory;
    descriptor.Flags = flags;
    descriptor.InstancesPossible = instances;
    descriptor.IntersectHandler = onIntersect;
    return descriptor;
}

inline constexpr ULONG kAudioPinFlags =
    KSPIN_FLAG_DISPATCH_LEVEL_PROCESSING | KSPIN_FLAG_DO_NOT_INITIATE_PROCESSING |
    KSPIN_FLAG_PROCESS_IN_RUN_STATE_ONLY | KSPIN_FLAG_FIXED_FORMAT;

inline const KSPIN_DESCRIPTOR_EX kPins[kPinCount] = {
    pinDescriptor(KSPIN_DATAFLOW_IN, KSPIN_COMMUNICATION_SINK, kAudioPinFlags, 1),
    pinDescriptor(KSPIN_DATAFLOW_OUT, KSPIN_COMMUNICATION_SINK, 0, 1),
    pinDescriptor(KSPIN_DATAFLOW_OUT, KSPIN_COMMUNICATION_NONE, 0, 1),
    pinDescriptor(KSPIN_DATAFLOW_IN, KSPIN_COMMUNICATION_SINK, KSPIN_FLAG_ASYNCHRONOUS_PROCESSING,
                  KSINSTANCE_INDETERMINATE),
    pinDescriptor(KSPIN_DATAFLOW_IN, KSPIN_COMMUNICATION_SINK,
                  KSPIN_FLAG_ENFORCE_FIFO | KSPIN_FLAG_DO_NOT_INITIATE_PROCESSING |
                      KSPIN_FLAG_DISTINCT_TRAILING_EDGE | KSPIN_FLAG_GENERATE_EOS_EVENTS,
                  2),
};

inline const KSPROPERTY_ITEM kOwnProperties[] = {
    {1, {onGet}, sizeof(KSPROPERTY), sizeof(ULONG), {onSet}, nullptr, 0, nullptr, nullptr, 0},
    {2, {onGet}, sizeof(KSPROPERTY) + 8, 0, {nullptr}, nullptr, 0, nullptr, nullptr, 0},
    {3, {onGet}, sizeof(KSPROPERTY), sizeof(ULONG), {nullptr}, nullptr, 0, nullptr, nullptr, 0},
};
inline const KSPROPERTY_ITEM kNameProperty[] = {
    {KSPROPERTY_PIN_NAME,
     {onPinName},
     sizeof(KSP_PIN),
     0,
     {nullptr},
     nullptr,
     0,
     nullptr,
     nullptr,
     0},
};
inline constexpr GUID kPinSetGuid = {STATIC_KSPROPSETID_Pin};
inline const KSPROPERTY_SET kPropertySets[] = {{&kPinSetGuid, 1, kNameProperty, 0, nullptr},
                                               {&kOwnSet, 3, kOwnProperties, 0, nullptr}};
inline const KSMETHOD_ITEM kMethods[] = {
    {1, {onMethod}, sizeof(KSMETHOD) + 8, 2, nullptr, KSMETHOD_TYPE_MODIFY},
    {2, {onMethod}, sizeof(KSMETHOD), 0, nullptr, KSMETHOD_TYPE_WRITE},
};
inline const KSMETHOD_SET kMethodSets[] = {{&kOwnSet, 2, kMethods, 0, nullptr}};
inline const KSEVENT_ITEM kEvents[] = {{5, sizeof(KSEVENTDATA), 0, nullptr, nullptr, nullptr}};
inline const KSEVENT_SET kEventSets[] = {{&kOwnSet, 1, kEvents}};
inline const KSAUTOMATION_TABLE kFilterTable = {2, sizeof(KSPROPERTY_ITEM), kPropertySets,
                                                1, sizeof(KSMETHOD_ITEM),   kMethodSets,
                                                1, sizeof(KSEVENT_ITEM),    kEventSets};
inline const KSNODE_DESCRIPTOR kNodes[] = {{nullptr, &kNodeType, nullptr}};
inline const KSTOPOLOGY_CONNECTION kConnections[] = {{KSFILTER_NODE, kRender, 0, 1},
                                                     {0, 0, KSFILTER_NODE, kBridge}};
inline const KSFILTER_DISPATCH kFilterDispatch = {onFilterCreate, onFilterClose, nullptr, nullptr};
inline const KSFILTER_DESCRIPTOR kFilterDescriptor = {&kFilterDispatch,
                                                      &kFilterTable,
                                                      KSFILTER_DESCRIPTOR_VERSION,
                                                      0,
                                                      nullptr,
                                                      kPinCount,
                                                      sizeof(KSPIN_DESCRIPTOR_EX),
                                                      kPins,
                                                      2,
                                                      kCategories,
                                                      1,
                                                      sizeof(KSNODE_DESCRIPTOR),
                                                      kNodes,
                                                      2,
                                                      kConnections,
                                                      nullptr};

inline const KSDEVICE_DISPATCH kDeviceDispatch = {
    onAdd,          onStart,  onPostStart,    nullptr,    nullptr, onStop,  onQueryRemove,
    onCancelRemove, onRemove, onCapabilities, onSurprise, nullptr, onPower, nullptr};
inline const KSDEVICE_DESCRIPTOR kDeviceDescriptor = {&kDeviceDispatch, 0, nullptr, 0};

inline NTSTATUS NTAPI driverEntry(PDRIVER_OBJECT driver, PUNICODE_STRING path) {
    return KsInitializeDriver(driver, path, &kDeviceDescriptor);
}

// --- The bus -------------------------------------------------------------------------------------

inline NTSTATUS NTAPI onBusRequest(PDEVICE_OBJECT, PIRP irp) {
    const IO_STACK_LOCATION* location = IoGetCurrentIrpStackLocation(irp);
    NTSTATUS status = irp->IoStatus.Status;
    if (location->MajorFunction == IRP_MJ_POWER) {
        status = script().answer("bus power");
    } else if (location->MajorFunction == IRP_MJ_PNP) {
        switch (location->MinorFunction) {
        case IRP_MN_START_DEVICE:
            status = script().answer("bus start");
            break;
        case IRP_MN_QUERY_CAPABILITIES:
        case IRP_MN_QUERY_REMOVE_DEVICE:
        case IRP_MN_CANCEL_REMOVE_DEVICE:
            status = STATUS_SUCCESS;
            break;
        case IRP_MN_SURPRISE_REMOVAL:
            status = script().answer("bus surprise");
            break;
        case IRP_MN_REMOVE_DEVICE:
            status = script().answer("bus remove");
            break;
        default:
            break;
        }
    }
    irp->IoStatus.Status = status;
    IoCompleteRequest(irp, IO_NO_INCREMENT);
    return status;
}

// --- The application -----------------------------------------------------------------------------

using File = client::Handle;

inline File makeEvent() {
    HANDLE handle = nullptr;
    EXPECT_EQ(STATUS_SUCCESS,
              ZwCreateEvent(&handle, EVENT_ALL_ACCESS, nullptr, NotificationEvent, FALSE));
    return File(handle);
}
inline bool isSet(const File& event) {
    LARGE_INTEGER now;
    now.QuadPart = 0;
    return ZwWaitForSingleObject(event.get(), FALSE, &now) == STATUS_SUCCESS;
}

struct Reply {
    NTSTATUS status = STATUS_UNSUCCESSFUL;
    ULONG_PTR information = 0;
};

// A device control, waited for.
inline Reply control(const File& file, ULONG code, PVOID in, ULONG inBytes, PVOID out,
                     ULONG outBytes) {
    const File done = makeEvent();
    IO_STATUS_BLOCK io = {};
    NTSTATUS status = ZwDeviceIoControlFile(file.get(), done.get(), nullptr, nullptr, &io, code, in,
                                            inBytes, out, outBytes);
    if (status == STATUS_PENDING) {
        ZwWaitForSingleObject(done.get(), FALSE, nullptr);
        status = io.Status;
    }
    return {status, io.Information};
}

template <class Request, class Data>
Reply property(const File& file, const Request& request, Data& data, ULONG bytes = sizeof(Data)) {
    Request copy = request;
    return control(file, IOCTL_KS_PROPERTY, &copy, sizeof(copy), &data, bytes);
}

inline constexpr GUID kConnectionSet = {STATIC_KSPROPSETID_Connection};

// `state` is a KSSTATE, or what no pin has.
inline Reply setState(const File& pin, ULONG state) {
    return property(
        pin, makeProperty(kConnectionSet, KSPROPERTY_CONNECTION_STATE, KSPROPERTY_TYPE_SET), state);
}

// A format of 16-bit stereo PCM at 48 kHz and the KSPIN_CONNECT in front of it.
struct Connect : client::PinConnection {
    explicit Connect(ULONG pin) : PinConnection(client::makeConnection(pin, {})) {}
};

// One stream request with one or more frames of one buffer each.
class Frames {
public:
    Frames(std::size_t count, std::size_t bytes, bool write) : m_bytes(bytes) {
        m_data.resize(count * bytes);
        m_headers.resize(count);
        for (std::size_t i = 0; i < count; ++i) {
            m_headers[i] = {};
            m_headers[i].Size = sizeof(KSSTREAM_HEADER);
            m_headers[i].FrameExtent = static_cast<ULONG>(bytes);
            m_headers[i].DataUsed = write ? static_cast<ULONG>(bytes) : 0;
            m_headers[i].Data = m_data.data() + i * bytes;
        }
        m_code = write ? IOCTL_KS_WRITE_STREAM : IOCTL_KS_READ_STREAM;
    }
    // What is still queued comes back first: the class driver writes to the headers.
    ~Frames() {
        if (m_pin != nullptr && !done()) {
            IO_STATUS_BLOCK io = {};
            ZwCancelIoFile(m_pin, &io);
        }
    }
    Frames(const Frames&) = delete;
    Frames& operator=(const Frames&) = delete;
    NTSTATUS send(const File& pin) {
        const NTSTATUS status = ZwDeviceIoControlFile(
            pin.get(), m_done.get(), nullptr, nullptr, &m_io, m_code, nullptr, 0, m_headers.data(),
            static_cast<ULONG>(m_headers.size() * sizeof(KSSTREAM_HEADER)));
        m_pin = status == STATUS_PENDING ? pin.get() : nullptr;
        return status;
    }
    bool done() const { return isSet(m_done); }
    void wait() const { ZwWaitForSingleObject(m_done.get(), FALSE, nullptr); }
    NTSTATUS status() const { return m_io.Status; }
    ULONG_PTR information() const { return m_io.Information; }
    KSSTREAM_HEADER& header(std::size_t i = 0) { return m_headers[i]; }
    std::byte* data(std::size_t i = 0) { return m_data.data() + i * m_bytes; }

private:
    std::size_t m_bytes;
    std::vector<std::byte> m_data;
    std::vector<KSSTREAM_HEADER> m_headers;
    ULONG m_code;
    HANDLE m_pin = nullptr; // that has the frames
    IO_STATUS_BLOCK m_io = {};
    File m_done = makeEvent();
};

// A machine with the driver and its device. What breaks a rule of the kernel fails the test, and so
// does what is left at the end.
class KsTest : public testing::Test {
protected:
    KsTest() {
        Script::current = &m_script;
        nt::MachineOptions options;
        options.breaches = [](const nt::Breach& breach) {
            ADD_FAILURE() << breach.report();
        };
        options.trapPagedAccess = true;
        m_machine = std::make_unique<nt::Machine>(std::move(options));
        m_bus = nt::makeDriver(u"KsTestBus");
        for (auto& major : m_bus->MajorFunction) {
            major = onBusRequest;
        }
        m_driver = nt::loadDriver(driverEntry, u"KsTest");
        EXPECT_NE(nullptr, m_driver);
        EXPECT_EQ(STATUS_SUCCESS, IoCreateDevice(m_bus, 0, nullptr, FILE_DEVICE_UNKNOWN,
                                                 FILE_AUTOGENERATED_DEVICE_NAME, FALSE, &m_pdo));
        m_pdo->Flags &= ~static_cast<ULONG>(DO_DEVICE_INITIALIZING);
    }
    ~KsTest() override {
        if (m_started) {
            EXPECT_EQ(STATUS_SUCCESS, nt::removeDevice(m_pdo));
        }
        IoDeleteDevice(m_pdo);
        nt::unloadDriver(m_driver);
        nt::unloadDriver(m_bus);
        m_machine.reset();
        Script::current = nullptr;
    }

    void start() {
        ASSERT_EQ(STATUS_SUCCESS, nt::startDevice(m_driver, m_pdo));
        m_started = true;
        m_script.log.clear();
    }

    std::vector<std::u16string> links() {
        std::vector<std::u16string> found;
        PWSTR list = nullptr;
        if (NT_SUCCESS(IoGetDeviceInterfaces(&kCategory, m_pdo, 0, &list))) {
            for (const auto* text = reinterpret_cast<const char16_t*>(list); *text != 0;
                 text += found.back().size() + 1) {
                found.emplace_back(text);
            }
            ExFreePool(list);
        }
        return found;
    }
    std::pair<NTSTATUS, File> tryOpenFilter() {
        const auto names = links();
        if (names.empty()) {
            return {STATUS_OBJECT_NAME_NOT_FOUND, File()};
        }
        UNICODE_STRING name;
        RtlInitUnicodeString(&name, reinterpret_cast<PCWSTR>(names[0].c_str()));
        OBJECT_ATTRIBUTES attributes;
        InitializeObjectAttributes(&attributes, &name, OBJ_KERNEL_HANDLE, nullptr, nullptr);
        IO_STATUS_BLOCK io = {};
        HANDLE handle = nullptr;
        const NTSTATUS status = ZwCreateFile(&handle, GENERIC_READ | GENERIC_WRITE, &attributes,
                                             &io, nullptr, 0, 0, FILE_OPEN, 0, nullptr, 0);
        return {status, File(handle)};
    }
    File openFilter() {
        auto [status, file] = tryOpenFilter();
        EXPECT_EQ(STATUS_SUCCESS, status);
        return std::move(file);
    }
    static std::pair<NTSTATUS, File> tryOpenPin(const File& filter, Connect connect) {
        HANDLE handle = nullptr;
        const NTSTATUS status =
            KsCreatePin(filter.get(), reinterpret_cast<PKSPIN_CONNECT>(&connect),
                        GENERIC_READ | GENERIC_WRITE, &handle);
        return {status, File(handle)};
    }
    static File openPin(const File& filter, ULONG id) {
        auto [status, file] = tryOpenPin(filter, Connect(id));
        EXPECT_EQ(STATUS_SUCCESS, status);
        return std::move(file);
    }
    static void sleep(LONGLONG milliseconds) {
        LARGE_INTEGER interval;
        interval.QuadPart = -10'000 * milliseconds;
        KeDelayExecutionThread(KernelMode, FALSE, &interval);
    }
    // The driver's side of the pin that was opened last.
    static PKSPIN ksPin(const File& pin) {
        PVOID file = nullptr;
        EXPECT_EQ(STATUS_SUCCESS, ObReferenceObjectByHandle(pin.get(), 0, *IoFileObjectType,
                                                            KernelMode, &file, nullptr));
        PKSPIN found = KsGetPinFromFileObject(static_cast<PFILE_OBJECT>(file));
        ObDereferenceObject(file);
        return found;
    }

    Script m_script;
    std::unique_ptr<nt::Machine> m_machine;
    DRIVER_OBJECT* m_bus = nullptr;
    DRIVER_OBJECT* m_driver = nullptr;
    DEVICE_OBJECT* m_pdo = nullptr;
    bool m_started = false;
};

} // namespace kelvane::ks_test
