// IRPs on device stacks, requests on files, cancellation.
#include "platform/nt/kernel.h"

#include "platform/nt/text.h"

#include "tests/driver/nt_support.h"

#include <array>
#include <cstring>

namespace kelvane::nt {
namespace {

// What a completion routine saw.
struct Seen {
    std::vector<std::string>* log;
    const char* name;
    NTSTATUS result; // that it returns
};

NTSTATUS NTAPI note(PDEVICE_OBJECT device, PIRP irp, PVOID context) {
    const auto& seen = *static_cast<Seen*>(context);
    seen.log->push_back(std::string(seen.name) + (device == nullptr ? " top" : "") +
                        (irp->PendingReturned != FALSE ? " pending" : ""));
    if (irp->PendingReturned != FALSE && seen.result != STATUS_MORE_PROCESSING_REQUIRED) {
        IoMarkIrpPending(irp);
    }
    return seen.result;
}

TEST(Irp, ClimbsTheStackThroughTheCompletionRoutines) {
    RecordingMachine machine;
    for (const bool pends : {false, true}) {
        SCOPED_TRACE(pends ? "pending" : "at once");
        std::vector<std::string> log;
        IRP* kept = nullptr;
        TestDevice bottom([&](IRP* irp) -> NTSTATUS {
            EXPECT_EQ(IoGetCurrentIrpStackLocation(irp)->Parameters.Others.Argument1, &log);
            if (!pends) {
                return complete(irp, STATUS_SUCCESS, 5);
            }
            IoMarkIrpPending(irp);
            kept = irp;
            return STATUS_PENDING;
        });
        // Passes on as it stands: no location and no routine of its own.
        TestDevice skipping(
            [&](IRP* irp) {
                IoSkipCurrentIrpStackLocation(irp);
                return IoCallDriver(bottom.object(), irp);
            },
            bottom.object());
        Seen middle{&log, "middle", STATUS_SUCCESS};
        TestDevice copying(
            [&](IRP* irp) {
                IoCopyCurrentIrpStackLocationToNext(irp);
                IoSetCompletionRoutine(irp, note, &middle, TRUE, TRUE, TRUE);
                return IoCallDriver(skipping.object(), irp);
            },
            skipping.object());
        Seen top{&log, "owner", STATUS_MORE_PROCESSING_REQUIRED};
        IRP* irp = ownIrp(copying.object()->StackSize);
        EXPECT_EQ(irp->StackCount, 3);
        IoGetNextIrpStackLocation(irp)->Parameters.Others.Argument1 = &log;
        IoSetCompletionRoutine(irp, note, &top, TRUE, TRUE, TRUE);
        EXPECT_EQ(IoCallDriver(copying.object(), irp), pends ? STATUS_PENDING : STATUS_SUCCESS);
        if (pends) {
            EXPECT_TRUE(log.empty());
            complete(kept, STATUS_SUCCESS, 5);
        }
        const char* mark = pends ? " pending" : "";
        EXPECT_EQ(log, (std::vector<std::string>{std::string("middle") + mark,
                                                 std::string("owner top") + mark}));
        EXPECT_EQ(irp->IoStatus.Information, 5u);
        IoReuseIrp(irp, STATUS_NOT_SUPPORTED);
        EXPECT_EQ(irp->CurrentLocation, 4);
        IoFreeIrp(irp);
    }
    EXPECT_TRUE(machine.breaches().empty());
}

TEST(Irp, CallsCompletionRoutinesForTheChosenOutcomesOnly) {
    RecordingMachine machine;
    struct {
        bool success, error, cancel;
        NTSTATUS status;
        bool cancelled, called;
    } const cases[] = {
        {true, false, false, STATUS_SUCCESS, false, true},
        {false, true, false, STATUS_SUCCESS, false, false},
        {false, true, false, STATUS_UNSUCCESSFUL, false, true},
        {true, false, false, STATUS_CANCELLED, true, false},
        {false, false, true, STATUS_CANCELLED, true, true},
        {false, false, true, STATUS_CANCELLED, false, false},
        {true, false, false, STATUS_TIMEOUT, false, true}, // a success-class status
    };
    for (const auto& item : cases) {
        SCOPED_TRACE(&item - cases);
        TestDevice bottom([&](IRP* irp) {
            irp->Cancel = item.cancelled;
            return complete(irp, item.status);
        });
        std::vector<std::string> log;
        Seen seen{&log, "called", STATUS_SUCCESS};
        TestDevice top(
            [&](IRP* irp) {
                IoCopyCurrentIrpStackLocationToNext(irp);
                IoSetCompletionRoutine(irp, note, &seen, item.success, item.error, item.cancel);
                return IoCallDriver(bottom.object(), irp);
            },
            bottom.object());
        IRP* irp = ownIrp(2);
        EXPECT_EQ(IoCallDriver(top.object(), irp), item.status);
        EXPECT_EQ(!log.empty(), item.called);
        IoFreeIrp(irp);
    }
}

NTSTATUS NTAPI freeMemory(PDEVICE_OBJECT, PIRP irp, PVOID) {
    ExFreePool(irp);
    return STATUS_MORE_PROCESSING_REQUIRED;
}

NTSTATUS NTAPI makeAnew(PDEVICE_OBJECT, PIRP irp, PVOID) {
    IoInitializeIrp(irp, IoSizeOfIrp(1), 1);
    return STATUS_MORE_PROCESSING_REQUIRED;
}

TEST(Irp, InMemoryOfItsOwnersGoesOrBeginsAnewAsItComesBack) {
    RecordingMachine machine;
    TestDevice device([](IRP* irp) { return complete(irp, STATUS_SUCCESS); });
    IRP* irp = pooledIrp();
    for (const PIO_COMPLETION_ROUTINE routine : {makeAnew, makeAnew, freeMemory}) {
        prepare(irp);
        IoSetCompletionRoutine(irp, routine, nullptr, TRUE, TRUE, TRUE);
        EXPECT_EQ(IoCallDriver(device.object(), irp), STATUS_SUCCESS);
    }
    EXPECT_TRUE(machine.breaches().empty()) << machine.breaches()[0].report();
}

void NTAPI cancelHeld(PDEVICE_OBJECT, PIRP irp) {
    IoReleaseCancelSpinLock(irp->CancelIrql);
    complete(irp, STATUS_CANCELLED);
}

struct SyncCase {
    const char* name;
    TestDevice::Dispatch dispatch;
    NTSTATUS returned;
    bool signalled; // event and status block
    NTSTATUS result;
};

TEST(Irp, SynchronousRequestsTellTheirEnd) {
    RecordingMachine machine;
    const auto pendFor = [](LONGLONG time, NTSTATUS status) {
        return [=](IRP* irp) -> NTSTATUS {
            IoMarkIrpPending(irp);
            IoSetCancelRoutine(irp, cancelHeld);
            Machine::current().scheduler().at(Machine::current().scheduler().now() +
                                                  static_cast<Time>(time) * kMillisecond,
                                              [irp, status] {
                                                  IoSetCancelRoutine(irp, nullptr);
                                                  complete(irp, status, 3);
                                              });
            return STATUS_PENDING;
        };
    };
    const SyncCase cases[] = {
        {"at once", [](IRP* irp) { return complete(irp, STATUS_SUCCESS, 3); }, STATUS_SUCCESS, true,
         STATUS_SUCCESS},
        // A request that fails at once tells it by its return alone.
        {"fails at once", [](IRP* irp) { return complete(irp, STATUS_UNSUCCESSFUL); },
         STATUS_UNSUCCESSFUL, false, 0},
        {"pends", pendFor(5, STATUS_SUCCESS), STATUS_PENDING, true, STATUS_SUCCESS},
        {"pends and fails", pendFor(5, STATUS_UNSUCCESSFUL), STATUS_PENDING, true,
         STATUS_UNSUCCESSFUL},
    };
    for (const SyncCase& item : cases) {
        SCOPED_TRACE(item.name);
        TestDevice device(item.dispatch);
        KEVENT event;
        KeInitializeEvent(&event, NotificationEvent, FALSE);
        IO_STATUS_BLOCK result{};
        IRP* irp = IoBuildDeviceIoControlRequest(0x220003, device.object(), nullptr, 0, nullptr, 0,
                                                 TRUE, &event, &result);
        EXPECT_EQ(IoCallDriver(device.object(), irp), item.returned);
        LARGE_INTEGER time = milliseconds(100);
        EXPECT_EQ(KeWaitForSingleObject(&event, Executive, KernelMode, FALSE, &time),
                  item.signalled ? STATUS_SUCCESS : STATUS_TIMEOUT);
        EXPECT_EQ(result.Status, item.result);
        EXPECT_EQ(result.Information, item.signalled ? 3u : 0u);
    }
    EXPECT_TRUE(machine.breaches().empty()) << machine.breaches()[0].report();
}

TEST(Irp, CancelRunsTheCancelRoutineOnce) {
    RecordingMachine machine;
    TestDevice device([](IRP* irp) {
        IoMarkIrpPending(irp);
        IoSetCancelRoutine(irp, cancelHeld);
        return STATUS_PENDING;
    });
    IRP* irp = ownIrp();
    IoCallDriver(device.object(), irp);
    EXPECT_TRUE(IoCancelIrp(irp));
    EXPECT_EQ(irp->IoStatus.Status, STATUS_CANCELLED);
    EXPECT_EQ(KeGetCurrentIrql(), PASSIVE_LEVEL);
    EXPECT_FALSE(IoCancelIrp(irp)); // nothing to cancel any more
    IoFreeIrp(irp);
}

std::u16string nameOf(DEVICE_OBJECT* device) {
    WCHAR name[64];
    ULONG length;
    IoGetDeviceProperty(device, DevicePropertyPhysicalDeviceObjectName, sizeof(name), name,
                        &length);
    return copyString(name);
}

TEST(Device, NamesThatTheMachineMakesUpAreTheSameInEachRun) {
    const auto madeUp = [] {
        RecordingMachine machine;
        TestDevice device([](IRP* irp) { return complete(irp, STATUS_NOT_SUPPORTED); });
        return nameOf(device.object());
    };
    EXPECT_EQ(madeUp(), madeUp());
}

struct MethodCase {
    ULONG method;
    const char* name;
};

TEST(Irp, BuildsBuffersByTheTransferMethod) {
    RecordingMachine machine;
    for (const MethodCase& item : {MethodCase{METHOD_BUFFERED, "buffered"},
                                   {METHOD_IN_DIRECT, "in direct"},
                                   {METHOD_OUT_DIRECT, "out direct"},
                                   {METHOD_NEITHER, "neither"}}) {
        SCOPED_TRACE(item.name);
        char input[4] = "abc";
        char output[8] = "-------";
        TestDevice device([&](IRP* irp) {
            const auto& control = IoGetCurrentIrpStackLocation(irp)->Parameters.DeviceIoControl;
            const auto* in = static_cast<const char*>(irp->AssociatedIrp.SystemBuffer);
            auto* out = static_cast<char*>(irp->AssociatedIrp.SystemBuffer);
            if (item.method == METHOD_NEITHER) {
                in = static_cast<const char*>(control.Type3InputBuffer);
                out = static_cast<char*>(irp->UserBuffer);
                EXPECT_EQ(in, input);
                EXPECT_EQ(out, output);
            } else {
                EXPECT_NE(in, input); // a copy
            }
            if (irp->MdlAddress != nullptr) {
                EXPECT_EQ(MmGetMdlByteCount(irp->MdlAddress), sizeof(output));
                out = static_cast<char*>(
                    MmGetSystemAddressForMdlSafe(irp->MdlAddress, NormalPagePriority));
            }
            const std::string text = in;
            std::memcpy(out, (text + text).c_str(), 7);
            return complete(irp, STATUS_SUCCESS, 7);
        });
        IO_STATUS_BLOCK result;
        IRP* irp = IoBuildDeviceIoControlRequest(CTL_CODE(1, 1, item.method, 0), device.object(),
                                                 input, sizeof(input), output, sizeof(output),
                                                 FALSE, nullptr, &result);
        IoCallDriver(device.object(), irp);
        EXPECT_STREQ(output, "abcabc");
    }
    EXPECT_TRUE(machine.breaches().empty());
}

TEST(Irp, AllocationFailsWhenTheMachineSaysSo) {
    RecordingMachine machine;
    TestDevice device([](IRP* irp) { return complete(irp, STATUS_SUCCESS); });
    IO_STATUS_BLOCK result;
    const std::function<bool()> allocators[] = {
        [] { return IoAllocateIrp(1, FALSE) != nullptr; },
        [&] {
            return IoBuildDeviceIoControlRequest(0x220003, device.object(), nullptr, 0, nullptr, 0,
                                                 TRUE, nullptr, &result) != nullptr;
        },
        [&] { return IoAllocateWorkItem(device.object()) != nullptr; },
        [] { return IoAllocateMdl(nullptr, 1, FALSE, FALSE, nullptr) != nullptr; },
        [] { return ExAllocatePoolWithTag(NonPagedPool, 1, 'tseT') != nullptr; },
    };
    for (const auto& allocate : allocators) {
        machine->pool().failAllocation(1);
        EXPECT_FALSE(allocate());
    }
    const PoolCounters counters = machine->pool().counters();
    EXPECT_EQ(counters.failures, std::size(allocators));
    EXPECT_EQ(counters.allocations, std::size(allocators));
    EXPECT_EQ(counters.blocks, 0u);
}

// A device that keeps its requests until they are cancelled, and logs what comes.
class FileDevice {
public:
    FileDevice() : device([this](IRP* irp) { return dispatch(irp); }) {
        const std::u16string name = u"\\DosDevices\\Device";
        UNICODE_STRING link = viewString(name);
        UNICODE_STRING target = viewString(m_target);
        IoCreateSymbolicLink(&link, &target);
    }
    ~FileDevice() {
        const std::u16string name = u"\\??\\device";
        UNICODE_STRING link = viewString(name);
        EXPECT_EQ(IoDeleteSymbolicLink(&link), STATUS_SUCCESS);
    }

    std::vector<std::string> log;
    TestDevice device;
    PDRIVER_CANCEL cancelRoutine = cancelHeld;
    std::vector<IRP*> held; // in the order of their coming

private:
    NTSTATUS dispatch(IRP* irp) {
        const IO_STACK_LOCATION& location = *IoGetCurrentIrpStackLocation(irp);
        static constexpr const char* kNames[] = {"create", "", "close"};
        const UCHAR major = location.MajorFunction;
        if (major == IRP_MJ_PNP) {
            return complete(irp, STATUS_NOT_SUPPORTED);
        }
        const FILE_OBJECT& file = *location.FileObject;
        log.push_back((major <= IRP_MJ_CLOSE            ? kNames[major]
                       : major == IRP_MJ_CLEANUP        ? "cleanup"
                       : major == IRP_MJ_DEVICE_CONTROL ? "control"
                                                        : "?") +
                      (" " + toUtf8(copyString(file.FileName))) +
                      (file.RelatedFileObject != nullptr ? " related" : ""));
        if (major == IRP_MJ_DEVICE_CONTROL) {
            IoMarkIrpPending(irp);
            held.push_back(irp);
            irp->Tail.Overlay.DriverContext[0] = &held;
            IoSetCancelRoutine(irp, cancelRoutine);
            return STATUS_PENDING;
        }
        const bool refuse = copyString(file.FileName) == u"\\no";
        return complete(irp, refuse ? STATUS_NO_SUCH_FILE : STATUS_SUCCESS);
    }
    std::u16string m_target = nameOf(device.object());
};

// Ends every request of the list that the IRP is in.
void NTAPI cancelAllHeld(PDEVICE_OBJECT, PIRP irp) {
    IoReleaseCancelSpinLock(irp->CancelIrql);
    auto& held = *static_cast<std::vector<IRP*>*>(irp->Tail.Overlay.DriverContext[0]);
    for (IRP* one : std::exchange(held, {})) {
        IoSetCancelRoutine(one, nullptr);
        complete(one, STATUS_CANCELLED);
    }
}

NTSTATUS open(HANDLE& handle, const std::u16string& path, HANDLE root = nullptr) {
    UNICODE_STRING name = viewString(path);
    OBJECT_ATTRIBUTES attributes;
    InitializeObjectAttributes(&attributes, &name, OBJ_CASE_INSENSITIVE, root, nullptr);
    IO_STATUS_BLOCK result;
    return ZwOpenFile(&handle, GENERIC_READ | SYNCHRONIZE, &attributes, &result, 0, 0);
}

TEST(File, GoesFromCreateToClose) {
    RecordingMachine machine;
    {
        FileDevice target;
        HANDLE file, pin, none;
        EXPECT_EQ(open(none, u"\\??\\other"), STATUS_OBJECT_NAME_NOT_FOUND);
        EXPECT_EQ(open(none, u"\\??\\Device\\no"), STATUS_NO_SUCH_FILE);
        ASSERT_EQ(open(file, u"\\??\\DEVICE\\GLOBAL"), STATUS_SUCCESS);
        ASSERT_EQ(open(pin, u"{pin}", file), STATUS_SUCCESS);
        IO_STATUS_BLOCK result{};
        HANDLE event;
        ZwCreateEvent(&event, EVENT_ALL_ACCESS, nullptr, SynchronizationEvent, FALSE);
        EXPECT_EQ(ZwDeviceIoControlFile(pin, event, nullptr, nullptr, &result, IOCTL_KS_PROPERTY,
                                        nullptr, 0, nullptr, 0),
                  STATUS_PENDING);
        IO_STATUS_BLOCK cancelled;
        EXPECT_EQ(ZwCancelIoFile(pin, &cancelled), STATUS_SUCCESS);
        EXPECT_EQ(ZwWaitForSingleObject(event, FALSE, nullptr), STATUS_SUCCESS);
        EXPECT_EQ(result.Status, STATUS_CANCELLED);
        ZwClose(event);
        // The related file outlives its handle: the pin refers to it.
        ZwClose(file);
        ZwClose(pin);
        EXPECT_EQ(target.log,
                  (std::vector<std::string>{"create \\no", "create \\GLOBAL",
                                            "create {pin} related", "control {pin} related",
                                            "cleanup \\GLOBAL", "cleanup {pin} related",
                                            "close {pin} related", "close \\GLOBAL"}));
    }
    machine.end();
    EXPECT_TRUE(machine.breaches().empty()) << machine.breaches()[0].report();
}

TEST(File, CancellingOneRequestMayEndTheOthers) {
    RecordingMachine machine;
    {
        FileDevice target;
        target.cancelRoutine = cancelAllHeld;
        HANDLE file;
        ASSERT_EQ(open(file, u"\\??\\Device"), STATUS_SUCCESS);
        std::array<IO_STATUS_BLOCK, 8> results{};
        for (IO_STATUS_BLOCK& result : results) {
            EXPECT_EQ(ZwDeviceIoControlFile(file, nullptr, nullptr, nullptr, &result,
                                            IOCTL_KS_PROPERTY, nullptr, 0, nullptr, 0),
                      STATUS_PENDING);
        }
        IO_STATUS_BLOCK cancelled;
        EXPECT_EQ(ZwCancelIoFile(file, &cancelled), STATUS_SUCCESS);
        for (const IO_STATUS_BLOCK& result : results) {
            EXPECT_EQ(result.Status, STATUS_CANCELLED);
        }
        ZwClose(file);
    }
    machine.end();
    EXPECT_TRUE(machine.breaches().empty()) << machine.breaches()[0].report();
}

} // namespace
} // namespace kelvane::nt
