// Registry keys with their access rights, device keys and interfaces, plug and play.
#include "platform/nt/kernel.h"

#include "platform/nt/text.h"

#include "tests/driver/nt_support.h"

#include <cstring>

namespace kelvane::nt {
namespace {

constexpr char16_t kPath[] = u"\\Registry\\Machine\\System\\CurrentControlSet\\Services\\some";

class Key {
public:
    Key(const std::u16string& path, ACCESS_MASK access, HANDLE root = nullptr) {
        UNICODE_STRING name = viewString(path);
        OBJECT_ATTRIBUTES attributes;
        InitializeObjectAttributes(&attributes, &name, 0, root, nullptr);
        m_status = ZwOpenKey(&m_handle, access, &attributes);
    }
    ~Key() {
        if (NT_SUCCESS(m_status)) {
            ZwClose(m_handle);
        }
    }
    Key(const Key&) = delete;
    Key& operator=(const Key&) = delete;
    NTSTATUS status() const { return m_status; }
    HANDLE handle() const { return m_handle; }

    NTSTATUS query(const std::u16string& value, void* buffer, ULONG length, ULONG* needed) const {
        UNICODE_STRING name = viewString(value);
        return ZwQueryValueKey(m_handle, &name, KeyValuePartialInformation, buffer, length, needed);
    }
    NTSTATUS setDword(const std::u16string& value, ULONG data) const {
        UNICODE_STRING name = viewString(value);
        return ZwSetValueKey(m_handle, &name, 0, REG_DWORD, &data, sizeof(data));
    }

private:
    HANDLE m_handle = nullptr;
    NTSTATUS m_status;
};

TEST(RegistryKeys, AnswerQueriesByTheSizeOfTheBuffer) {
    RecordingMachine machine;
    machine->registry().setDword(kPath, u"Number", 0x12345678);
    const Key key(u"\\registry\\MACHINE\\system\\currentcontrolset\\services\\SOME", GENERIC_READ);
    ASSERT_EQ(key.status(), STATUS_SUCCESS);
    constexpr ULONG kHeader = FIELD_OFFSET(KEY_VALUE_PARTIAL_INFORMATION, Data);
    struct {
        ULONG length;
        NTSTATUS status;
        std::string data; // that comes back
    } const cases[] = {
        {0, STATUS_BUFFER_TOO_SMALL, ""},
        {kHeader - 1, STATUS_BUFFER_TOO_SMALL, ""},
        {kHeader, STATUS_BUFFER_OVERFLOW, "...."},
        {kHeader + 3, STATUS_BUFFER_OVERFLOW, "\x78\x56\x34."},
        {kHeader + 4, STATUS_SUCCESS, "\x78\x56\x34\x12"},
        {kHeader + 5, STATUS_SUCCESS, "\x78\x56\x34\x12"},
    };
    for (const auto& item : cases) {
        SCOPED_TRACE(item.length);
        char buffer[32];
        std::memset(buffer, '.', sizeof(buffer));
        ULONG needed = 0;
        EXPECT_EQ(key.query(u"number", buffer, item.length, &needed), item.status);
        EXPECT_EQ(needed, kHeader + 4);
        EXPECT_EQ(std::string(buffer + kHeader, item.data.size()), item.data);
    }
    ULONG needed;
    EXPECT_EQ(key.query(u"other", nullptr, 0, &needed), STATUS_OBJECT_NAME_NOT_FOUND);
}

TEST(RegistryKeys, RefuseWhatTheirHandlesWereNotOpenedFor) {
    RecordingMachine machine;
    machine->registry().setDword(kPath, u"Number", 0);
    struct {
        ACCESS_MASK access;
        NTSTATUS query, set;
    } const cases[] = {
        {KEY_QUERY_VALUE, STATUS_SUCCESS, STATUS_ACCESS_DENIED},
        {GENERIC_READ, STATUS_SUCCESS, STATUS_ACCESS_DENIED},
        {KEY_SET_VALUE, STATUS_ACCESS_DENIED, STATUS_SUCCESS},
        {KEY_ALL_ACCESS, STATUS_SUCCESS, STATUS_SUCCESS},
        {MAXIMUM_ALLOWED, STATUS_SUCCESS, STATUS_SUCCESS},
    };
    for (const auto& item : cases) {
        SCOPED_TRACE(item.access);
        const Key key(kPath, item.access);
        char buffer[32];
        ULONG needed;
        EXPECT_EQ(key.query(u"Number", buffer, sizeof(buffer), &needed), item.query);
        EXPECT_EQ(key.setDword(u"Number", item.access), item.set);
        EXPECT_EQ(machine->registry().dword(kPath, u"Number") == item.access, NT_SUCCESS(item.set));
    }
}

TEST(RegistryKeys, AreMadeAndDeleted) {
    RecordingMachine machine;
    machine->registry().create(kPath);
    const Key parent(kPath, KEY_ALL_ACCESS);
    const std::u16string child = u"Parameters";
    UNICODE_STRING name = viewString(child);
    OBJECT_ATTRIBUTES attributes;
    InitializeObjectAttributes(&attributes, &name, 0, parent.handle(), nullptr);
    for (const ULONG expected : {ULONG{REG_CREATED_NEW_KEY}, ULONG{REG_OPENED_EXISTING_KEY}}) {
        HANDLE handle;
        ULONG disposition;
        EXPECT_EQ(ZwCreateKey(&handle, KEY_ALL_ACCESS, &attributes, 0, nullptr, 0, &disposition),
                  STATUS_SUCCESS);
        EXPECT_EQ(disposition, expected);
        ZwClose(handle);
    }
    EXPECT_EQ(Key(u"Parameters\\Missing", KEY_READ, parent.handle()).status(),
              STATUS_OBJECT_NAME_NOT_FOUND);
    const Key key(child, KEY_ALL_ACCESS, parent.handle());
    EXPECT_EQ(key.setDword(u"a", 1), STATUS_SUCCESS);
    const std::u16string valueName = u"A";
    UNICODE_STRING value = viewString(valueName);
    EXPECT_EQ(ZwDeleteValueKey(key.handle(), &value), STATUS_SUCCESS);
    EXPECT_EQ(ZwDeleteValueKey(key.handle(), &value), STATUS_OBJECT_NAME_NOT_FOUND);
    EXPECT_EQ(ZwDeleteKey(parent.handle()), STATUS_CANNOT_DELETE); // it has a subkey
    EXPECT_EQ(ZwDeleteKey(key.handle()), STATUS_SUCCESS);
    EXPECT_EQ(key.setDword(u"a", 1), STATUS_KEY_DELETED);
}

// A bus device that answers as a USB device with a serial number does.
NTSTATUS answerPnp(std::vector<int>& minors, IRP* irp) {
    const IO_STACK_LOCATION& location = *IoGetCurrentIrpStackLocation(irp);
    minors.push_back(location.MinorFunction);
    if (location.MinorFunction != IRP_MN_QUERY_ID) {
        return complete(irp, STATUS_SUCCESS);
    }
    const bool isDevice = location.Parameters.QueryId.IdType == BusQueryDeviceID;
    const std::u16string id = isDevice ? u"USB\\VID_1209&PID_0001" : u"42";
    auto* copy = static_cast<WCHAR*>(
        ExAllocatePoolWithTag(PagedPool, (id.size() + 1) * sizeof(WCHAR), 'diuB'));
    std::memcpy(copy, id.c_str(), (id.size() + 1) * sizeof(WCHAR));
    return complete(irp, STATUS_SUCCESS, reinterpret_cast<ULONG_PTR>(copy));
}

TEST(DeviceKeys, BelongToTheDeviceAndStayWithIt) {
    RecordingMachine machine;
    std::vector<int> minors;
    for (int plug = 0; plug < 2; plug++) { // the second time it finds what it left
        TestDevice pdo([&](IRP* irp) { return answerPnp(minors, irp); });
        EXPECT_EQ(instancePath(pdo.object()), u"USB\\VID_1209&PID_0001\\42");
        EXPECT_EQ(driverKeyPath(pdo.object()),
                  u"\\Registry\\Machine\\System\\CurrentControlSet\\Control\\Class\\"
                  u"{4d36e96c-e325-11ce-bfc1-08002be10318}\\0000");
        HANDLE key;
        ASSERT_EQ(
            IoOpenDeviceRegistryKey(pdo.object(), PLUGPLAY_REGKEY_DRIVER, KEY_ALL_ACCESS, &key),
            STATUS_SUCCESS);
        const std::u16string valueName = u"Count";
        UNICODE_STRING name = viewString(valueName);
        ULONG count = machine->registry().dword(driverKeyPath(pdo.object()), valueName).value_or(0);
        EXPECT_EQ(count, static_cast<ULONG>(plug));
        count++;
        EXPECT_EQ(ZwSetValueKey(key, &name, 0, REG_DWORD, &count, sizeof(count)), STATUS_SUCCESS);
        ZwClose(key);
    }
}

TEST(DeviceInterface, IsFoundWhileItIsEnabled) {
    RecordingMachine machine;
    std::vector<int> minors;
    TestDevice pdo([&](IRP* irp) { return answerPnp(minors, irp); });
    constexpr GUID kAudio = {STATIC_KSCATEGORY_AUDIO};
    const std::u16string referenceText = u"GLOBAL";
    UNICODE_STRING reference = viewString(referenceText);
    UNICODE_STRING link;
    ASSERT_EQ(IoRegisterDeviceInterface(pdo.object(), &kAudio, &reference, &link), STATUS_SUCCESS);
    EXPECT_EQ(toUtf8(copyString(link)),
              "\\??\\USB#VID_1209&PID_0001#42#{6994ad04-93ef-11d0-a3cc-00a0c9223196}\\GLOBAL");
    const auto found = [&] {
        WCHAR* list;
        EXPECT_EQ(IoGetDeviceInterfaces(&kAudio, nullptr, 0, &list), STATUS_SUCCESS);
        std::u16string first = copyString(list);
        ExFreePool(list);
        return first;
    };
    EXPECT_EQ(found(), u"");
    EXPECT_EQ(IoSetDeviceInterfaceState(&link, TRUE), STATUS_SUCCESS);
    EXPECT_EQ(found(), copyString(link));
    EXPECT_EQ(IoSetDeviceInterfaceState(&link, FALSE), STATUS_SUCCESS);
    EXPECT_EQ(found(), u"");
    HANDLE key;
    EXPECT_EQ(IoOpenDeviceInterfaceRegistryKey(&link, KEY_READ, &key), STATUS_SUCCESS);
    ZwClose(key);
    RtlFreeUnicodeString(&link);
}

// A function driver that lets everything through and leaves when it must.
DEVICE_OBJECT* s_function;

NTSTATUS NTAPI addFunction(PDRIVER_OBJECT driver, PDEVICE_OBJECT pdo) {
    const NTSTATUS status = IoCreateDevice(driver, sizeof(DEVICE_OBJECT*), nullptr, FILE_DEVICE_KS,
                                           0, FALSE, &s_function);
    if (NT_SUCCESS(status)) {
        *static_cast<DEVICE_OBJECT**>(s_function->DeviceExtension) =
            IoAttachDeviceToDeviceStack(s_function, pdo);
        s_function->Flags &= ~static_cast<ULONG>(DO_DEVICE_INITIALIZING);
    }
    return status;
}

NTSTATUS NTAPI passOn(PDEVICE_OBJECT device, PIRP irp) {
    DEVICE_OBJECT* below = *static_cast<DEVICE_OBJECT**>(device->DeviceExtension);
    const IO_STACK_LOCATION location = *IoGetCurrentIrpStackLocation(irp);
    if (location.MajorFunction != IRP_MJ_PNP && location.MajorFunction != IRP_MJ_POWER) {
        return complete(irp, STATUS_SUCCESS);
    }
    IoSkipCurrentIrpStackLocation(irp);
    const NTSTATUS status = IoCallDriver(below, irp);
    if (location.MajorFunction == IRP_MJ_PNP && location.MinorFunction == IRP_MN_REMOVE_DEVICE) {
        IoDetachDevice(below);
        IoDeleteDevice(device);
    }
    return status;
}

NTSTATUS NTAPI functionEntry(PDRIVER_OBJECT driver, PUNICODE_STRING path) {
    EXPECT_EQ(copyString(*path), serviceKeyPath(u"function"));
    driver->DriverExtension->AddDevice = addFunction;
    std::fill(std::begin(driver->MajorFunction), std::end(driver->MajorFunction), passOn);
    return STATUS_SUCCESS;
}

TEST(PlugAndPlay, StartsPowersAndRemovesADevice) {
    RecordingMachine machine;
    DRIVER_OBJECT* driver = loadDriver(functionEntry, u"function");
    ASSERT_NE(driver, nullptr);
    NTSTATUS start = STATUS_SUCCESS;
    std::vector<int> minors;
    {
        TestDevice pdo([&](IRP* irp) {
            const UCHAR minor = IoGetCurrentIrpStackLocation(irp)->MinorFunction;
            if (minor == IRP_MN_START_DEVICE && !NT_SUCCESS(start)) {
                minors.push_back(minor);
                return complete(irp, start);
            }
            return answerPnp(minors, irp);
        });
        const auto take = [&] {
            return std::exchange(minors, {});
        };
        const auto ids = std::vector<int>{IRP_MN_QUERY_ID, IRP_MN_QUERY_ID};
        instancePath(pdo.object());
        EXPECT_EQ(take(), ids);
        start = STATUS_DEVICE_NOT_READY;
        EXPECT_EQ(startDevice(driver, pdo.object()), STATUS_DEVICE_NOT_READY);
        EXPECT_EQ(take(), (std::vector<int>{IRP_MN_QUERY_CAPABILITIES, IRP_MN_START_DEVICE,
                                            IRP_MN_REMOVE_DEVICE}));
        start = STATUS_SUCCESS;
        EXPECT_EQ(startDevice(driver, pdo.object()), STATUS_SUCCESS);
        EXPECT_EQ(setDevicePower(pdo.object(), PowerDeviceD3), STATUS_SUCCESS);
        EXPECT_EQ(removeDevice(pdo.object()), STATUS_SUCCESS);
        EXPECT_EQ(take(), (std::vector<int>{IRP_MN_QUERY_CAPABILITIES, IRP_MN_START_DEVICE,
                                            IRP_MN_SET_POWER, IRP_MN_QUERY_REMOVE_DEVICE,
                                            IRP_MN_REMOVE_DEVICE}));
        // A file that is open puts the end of a surprise removal off.
        EXPECT_EQ(startDevice(driver, pdo.object()), STATUS_SUCCESS);
        WCHAR buffer[64];
        ULONG length;
        IoGetDeviceProperty(pdo.object(), DevicePropertyPhysicalDeviceObjectName, sizeof(buffer),
                            buffer, &length);
        UNICODE_STRING name;
        RtlInitUnicodeString(&name, buffer);
        FILE_OBJECT* file;
        DEVICE_OBJECT* top;
        ASSERT_EQ(IoGetDeviceObjectPointer(&name, FILE_READ_DATA, &file, &top), STATUS_SUCCESS);
        EXPECT_EQ(top, s_function);
        EXPECT_EQ(removeDevice(pdo.object()), STATUS_DEVICE_BUSY);
        take();
        EXPECT_EQ(surpriseRemove(pdo.object()), STATUS_SUCCESS);
        EXPECT_EQ(take(), (std::vector<int>{IRP_MN_SURPRISE_REMOVAL}));
        ObDereferenceObject(file);
        EXPECT_EQ(take(), (std::vector<int>{IRP_MN_REMOVE_DEVICE}));
    }
    unloadDriver(driver);
    machine.end();
    EXPECT_TRUE(machine.breaches().empty()) << machine.breaches()[0].report();
}

} // namespace
} // namespace kelvane::nt
