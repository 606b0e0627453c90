// Files: opening a device by name, device control, closing.
#include "platform/nt/kernel.h"

#include "platform/nt/devices.h"
#include "platform/nt/io_build.h"
#include "platform/nt/irps.h"
#include "platform/nt/machine.h"
#include "platform/nt/objects.h"
#include "platform/nt/plug.h"
#include "platform/nt/text.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstring>

namespace kelvane::nt {

namespace {

constexpr ULONG kNameTag = 'I' | 'o' << 8 | 'N' << 16 | 'm' << 24;
constexpr ULONG kSynchronous = FILE_SYNCHRONOUS_IO_ALERT | FILE_SYNCHRONOUS_IO_NONALERT;

POBJECT_TYPE s_fileType = &kFileType;

// Sends a request of the I/O manager's own on a file, and waits for it.
NTSTATUS sendAndWait(DEVICE_OBJECT* device, IRP* irp, IO_STATUS_BLOCK& result) {
    KEVENT done;
    KeInitializeEvent(&done, NotificationEvent, FALSE);
    irp->UserIosb = &result;
    irp->UserEvent = &done;
    Machine::current().irps().find(irp, "ZwCreateFile")->event = &done;
    NTSTATUS status = IoCallDriver(device, irp);
    if (status == STATUS_PENDING) {
        KeWaitForSingleObject(&done, Executive, KernelMode, FALSE, nullptr);
        status = result.Status;
    }
    return status;
}

NTSTATUS sendSimple(FILE_OBJECT* file, UCHAR major) {
    DEVICE_OBJECT* device = IoGetRelatedDeviceObject(file);
    IRP* irp = makeIrp(device->StackSize, IrpOwner::IoManager);
    IO_STACK_LOCATION& next = *IoGetNextIrpStackLocation(irp);
    next.MajorFunction = major;
    next.FileObject = file;
    IO_STATUS_BLOCK result{};
    return sendAndWait(device, irp, result);
}

void closeLastHandle(void* body) {
    auto* file = static_cast<FILE_OBJECT*>(body);
    if ((file->Flags & FO_HANDLE_CREATED) != 0) {
        sendSimple(file, IRP_MJ_CLEANUP);
        file->Flags |= FO_CLEANUP_COMPLETE;
    }
}

void destroyFile(void* body) {
    auto* file = static_cast<FILE_OBJECT*>(body);
    if ((file->Flags & FO_HANDLE_CREATED) != 0) {
        sendSimple(file, IRP_MJ_CLOSE);
    }
    Machine& machine = Machine::current();
    if (file->FileName.Buffer != nullptr) {
        machine.pool().free(file->FileName.Buffer, kNameTag, "ZwClose");
    }
    if (file->RelatedFileObject != nullptr) {
        ObfDereferenceObject(file->RelatedFileObject);
    }
    DEVICE_OBJECT* device = file->DeviceObject;
    if (InterlockedDecrement(&device->ReferenceCount) == 0) {
        machine.plug().filesClosed(bottomOf(device));
    }
    ObfDereferenceObject(device);
}

struct Target {
    DEVICE_OBJECT* device = nullptr; // referenced
    FILE_OBJECT* related = nullptr;  // likewise
    std::u16string name;
};

NTSTATUS findTarget(const OBJECT_ATTRIBUTES& attributes, Target& target) {
    const std::u16string path =
        attributes.ObjectName == nullptr ? u"" : copyString(*attributes.ObjectName);
    ObjectManager& objects = Machine::current().objects();
    if (attributes.RootDirectory != nullptr) {
        void* root;
        const NTSTATUS status = objects.referenceByHandle(attributes.RootDirectory, &kFileType, 0,
                                                          &root, nullptr, "ZwCreateFile");
        if (!NT_SUCCESS(status)) {
            return status;
        }
        target.related = static_cast<FILE_OBJECT*>(root);
        target.device = target.related->DeviceObject;
        ObfReferenceObject(target.device);
        target.name = path;
        return STATUS_SUCCESS;
    }
    const auto found = objects.resolve(path);
    if (!found) {
        return STATUS_OBJECT_NAME_NOT_FOUND;
    }
    if (ObjectHeader::of(found->body).type != &kDeviceType) {
        objects.dereference(found->body, "ZwCreateFile");
        return STATUS_OBJECT_TYPE_MISMATCH;
    }
    target.device = static_cast<DEVICE_OBJECT*>(found->body);
    target.name = found->rest;
    return STATUS_SUCCESS;
}

// Takes over the target's references.
FILE_OBJECT* makeFile(const Target& target, ACCESS_MASK access, ULONG share, ULONG options) {
    Machine& machine = Machine::current();
    auto* file =
        static_cast<FILE_OBJECT*>(machine.objects().create(kFileType, sizeof(FILE_OBJECT)));
    file->Type = IO_TYPE_FILE;
    file->Size = sizeof(FILE_OBJECT);
    file->DeviceObject = target.device;
    InterlockedIncrement(&target.device->ReferenceCount);
    file->RelatedFileObject = target.related;
    file->ReadAccess = (access & (FILE_READ_DATA | GENERIC_READ)) != 0;
    file->WriteAccess = (access & (FILE_WRITE_DATA | GENERIC_WRITE)) != 0;
    file->SharedRead = (share & FILE_SHARE_READ) != 0;
    file->SharedWrite = (share & FILE_SHARE_WRITE) != 0;
    file->Flags = (options & kSynchronous) != 0 ? FO_SYNCHRONOUS_IO : 0;
    KeInitializeEvent(&file->Event, NotificationEvent, FALSE);
    KeInitializeEvent(&file->Lock, SynchronizationEvent, FALSE);
    InitializeListHead(&file->IrpList);
    if (!target.name.empty()) {
        const auto bytes = static_cast<USHORT>(target.name.size() * sizeof(WCHAR));
        // With a null behind it, which the length does not count.
        void* buffer = machine.pool().allocateOwn(bytes + sizeof(WCHAR), kNameTag);
        std::memcpy(buffer, target.name.c_str(), bytes + sizeof(WCHAR));
        file->FileName = {bytes, static_cast<USHORT>(bytes + sizeof(WCHAR)),
                          static_cast<WCHAR*>(buffer)};
    }
    return file;
}

NTSTATUS sendCreate(FILE_OBJECT* file, ACCESS_MASK access, const void* ea, ULONG eaBytes,
                    ULONG attributes, ULONG share, ULONG disposition, ULONG options,
                    IO_STATUS_BLOCK& result) {
    DEVICE_OBJECT* device = IoGetRelatedDeviceObject(file);
    IRP* irp = makeIrp(device->StackSize, IrpOwner::IoManager);
    ACCESS_STATE state{};
    state.OriginalDesiredAccess = access;
    state.RemainingDesiredAccess = access;
    IO_SECURITY_CONTEXT security{};
    security.AccessState = &state;
    security.DesiredAccess = access;
    security.FullCreateOptions = options;
    irp->Flags = IRP_CREATE_OPERATION | IRP_SYNCHRONOUS_API;
    irp->Tail.Overlay.OriginalFileObject = file;
    irp->AssociatedIrp.SystemBuffer = const_cast<void*>(ea);
    IO_STACK_LOCATION& next = *IoGetNextIrpStackLocation(irp);
    next.MajorFunction = IRP_MJ_CREATE;
    next.FileObject = file;
    next.Parameters.Create.SecurityContext = &security;
    next.Parameters.Create.Options = (disposition << 24) | (options & 0x00FFFFFF);
    next.Parameters.Create.FileAttributes = static_cast<USHORT>(attributes);
    next.Parameters.Create.ShareAccess = static_cast<USHORT>(share);
    next.Parameters.Create.EaLength = eaBytes;
    return sendAndWait(device, irp, result);
}

} // namespace

_OBJECT_TYPE kFileType{
    "file",
    closeLastHandle,
    destroyFile,
    {FILE_GENERIC_READ, FILE_GENERIC_WRITE, FILE_GENERIC_EXECUTE, FILE_ALL_ACCESS}};

} // namespace kelvane::nt

using namespace kelvane::nt;

extern "C" {

POBJECT_TYPE* IoFileObjectType = &s_fileType;

NTSTATUS NTAPI ZwCreateFile(PHANDLE FileHandle, ACCESS_MASK DesiredAccess,
                            POBJECT_ATTRIBUTES ObjectAttributes, PIO_STATUS_BLOCK IoStatusBlock,
                            PLARGE_INTEGER, ULONG FileAttributes, ULONG ShareAccess,
                            ULONG CreateDisposition, ULONG CreateOptions, PVOID EaBuffer,
                            ULONG EaLength) {
    if (!irqlExactly(PASSIVE_LEVEL)) {
        return STATUS_UNSUCCESSFUL;
    }
    *FileHandle = nullptr;
    Target target;
    NTSTATUS status = findTarget(*ObjectAttributes, target);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    const ACCESS_MASK access = mapAccess(DesiredAccess, kFileType);
    FILE_OBJECT* file = makeFile(target, access, ShareAccess, CreateOptions);
    if ((target.device->Flags & DO_DEVICE_INITIALIZING) != 0 || linksOf(target.device).deleted) {
        status = STATUS_NO_SUCH_DEVICE;
    } else {
        IO_STATUS_BLOCK result{};
        status = sendCreate(file, access, EaBuffer, EaLength, FileAttributes, ShareAccess,
                            CreateDisposition, CreateOptions, result);
        result.Status = status;
        *IoStatusBlock = result;
    }
    if (NT_SUCCESS(status)) {
        file->Flags |= FO_HANDLE_CREATED;
        *FileHandle = Machine::current().objects().open(file, access);
    }
    ObfDereferenceObject(file);
    return status;
}

NTSTATUS NTAPI ZwOpenFile(PHANDLE FileHandle, ACCESS_MASK DesiredAccess,
                          POBJECT_ATTRIBUTES ObjectAttributes, PIO_STATUS_BLOCK IoStatusBlock,
                          ULONG ShareAccess, ULONG OpenOptions) {
    return ZwCreateFile(FileHandle, DesiredAccess, ObjectAttributes, IoStatusBlock, nullptr, 0,
                        ShareAccess, FILE_OPEN, OpenOptions, nullptr, 0);
}

NTSTATUS NTAPI ZwDeviceIoControlFile(HANDLE FileHandle, HANDLE Event, PIO_APC_ROUTINE ApcRoutine,
                                     PVOID, PIO_STATUS_BLOCK IoStatusBlock, ULONG IoControlCode,
                                     PVOID InputBuffer, ULONG InputBufferLength, PVOID OutputBuffer,
                                     ULONG OutputBufferLength) {
    if (!irqlExactly(PASSIVE_LEVEL)) {
        return STATUS_UNSUCCESSFUL;
    }
    if (ApcRoutine != nullptr) {
        return STATUS_NOT_SUPPORTED; // events tell the end here
    }
    ObjectManager& objects = Machine::current().objects();
    void* body;
    NTSTATUS status =
        objects.referenceByHandle(FileHandle, &kFileType, 0, &body, nullptr, __func__);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    auto* file = static_cast<FILE_OBJECT*>(body);
    void* event = nullptr;
    if (Event != nullptr) {
        status = objects.referenceByHandle(Event, &kEventType, EVENT_MODIFY_STATE, &event, nullptr,
                                           __func__);
        if (!NT_SUCCESS(status)) {
            ObfDereferenceObject(file);
            return status;
        }
        KeClearEvent(static_cast<KEVENT*>(event));
    }
    KeClearEvent(&file->Event);
    DEVICE_OBJECT* device = IoGetRelatedDeviceObject(file);
    IRP* irp = buildControl(device, {IoControlCode, InputBuffer, InputBufferLength, OutputBuffer,
                                     OutputBufferLength, false});
    irp->UserIosb = IoStatusBlock;
    irp->UserEvent = static_cast<KEVENT*>(event);
    irp->Tail.Overlay.OriginalFileObject = file;
    IoGetNextIrpStackLocation(irp)->FileObject = file;
    IrpState& state = *Machine::current().irps().find(irp, __func__);
    state.event = static_cast<KEVENT*>(event);
    state.eventReferenced = event != nullptr;
    state.file = file;
    const bool waits = (file->Flags & FO_SYNCHRONOUS_IO) != 0;
    if (waits) {
        ObfReferenceObject(file); // the request gives its own reference back at its end
    }
    status = IoCallDriver(device, irp);
    if (waits) {
        if (status == STATUS_PENDING) {
            KeWaitForSingleObject(&file->Event, Executive, KernelMode, FALSE, nullptr);
            status = file->FinalStatus;
        }
        ObfDereferenceObject(file);
    }
    return status;
}

NTSTATUS NTAPI ZwCancelIoFile(HANDLE FileHandle, PIO_STATUS_BLOCK IoStatusBlock) {
    if (!irqlExactly(PASSIVE_LEVEL)) {
        return STATUS_UNSUCCESSFUL;
    }
    void* body;
    Machine& machine = Machine::current();
    const NTSTATUS status =
        machine.objects().referenceByHandle(FileHandle, &kFileType, 0, &body, nullptr, __func__);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    auto* file = static_cast<FILE_OBJECT*>(body);
    constexpr LONGLONG kPollTime = -10 * static_cast<LONGLONG>(kMillisecond);
    while (machine.irps().anyOfFile(file)) {
        if (IRP* irp = machine.irps().pinOfFile(file)) {
            cancelIrp(irp);
            machine.irps().unpin(irp);
        } else {
            LARGE_INTEGER interval;
            interval.QuadPart = kPollTime;
            KeDelayExecutionThread(KernelMode, FALSE, &interval);
        }
    }
    IoStatusBlock->Status = STATUS_SUCCESS;
    IoStatusBlock->Information = 0;
    ObfDereferenceObject(file);
    return STATUS_SUCCESS;
}

NTSTATUS NTAPI IoGetDeviceObjectPointer(PUNICODE_STRING ObjectName, ACCESS_MASK DesiredAccess,
                                        PFILE_OBJECT* FileObject, PDEVICE_OBJECT* DeviceObject) {
    OBJECT_ATTRIBUTES attributes;
    InitializeObjectAttributes(&attributes, ObjectName, OBJ_KERNEL_HANDLE, nullptr, nullptr);
    HANDLE handle;
    IO_STATUS_BLOCK result;
    NTSTATUS status = ZwOpenFile(&handle, DesiredAccess, &attributes, &result, 0, 0);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    status = ObReferenceObjectByHandle(handle, 0, *IoFileObjectType, KernelMode,
                                       reinterpret_cast<void**>(FileObject), nullptr);
    if (NT_SUCCESS(status)) {
        *DeviceObject = IoGetRelatedDeviceObject(*FileObject);
    }
    ZwClose(handle);
    return status;
}
}
