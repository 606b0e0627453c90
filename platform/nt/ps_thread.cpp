// System threads and processes.
#include "platform/nt/kernel.h"

#include "platform/nt/callback.h"
#include "platform/nt/dispatcher.h"
#include "platform/nt/machine.h"
#include "platform/nt/objects.h"

using namespace kelvane::nt;

namespace kelvane::nt {

_OBJECT_TYPE kThreadType{
    "thread",
    nullptr,
    nullptr,
    {STANDARD_RIGHTS_READ, STANDARD_RIGHTS_WRITE, STANDARD_RIGHTS_EXECUTE, 0x001F03FF}};

} // namespace kelvane::nt

namespace {

POBJECT_TYPE s_threadType = &kThreadType;
int s_process; // its address stands for the one process

// Ends a thread from inside the driver's routine: thrown through it, as nothing else can.
struct ThreadEnd {};

void runThread(PKSTART_ROUTINE routine, void* context) {
    Thread& self = Thread::current();
    try {
        const CallbackGuard callback(self, "system thread", reinterpret_cast<const void*>(routine));
        routine(context);
    } catch (const ThreadEnd&) {
    }
}

} // namespace

extern "C" {

POBJECT_TYPE* PsThreadType = &s_threadType;

NTSTATUS NTAPI PsCreateSystemThread(PHANDLE ThreadHandle, ULONG, POBJECT_ATTRIBUTES, HANDLE,
                                    PCLIENT_ID ClientId, PKSTART_ROUTINE StartRoutine,
                                    PVOID StartContext) {
    if (!irqlExactly(PASSIVE_LEVEL)) {
        return STATUS_UNSUCCESSFUL;
    }
    Machine& machine = Machine::current();
    Thread& thread = machine.dispatcher().addThread("system");
    *ThreadHandle = machine.objects().open(thread.object, kThreadType.mapping.GenericAll);
    if (ClientId != nullptr) {
        ClientId->UniqueProcess = reinterpret_cast<HANDLE>(thread.process);
        ClientId->UniqueThread = reinterpret_cast<HANDLE>(ULONG_PTR{thread.id} * 4 + 8);
    }
    machine.dispatcher().startThread(
        thread, [StartRoutine, StartContext] { runThread(StartRoutine, StartContext); });
    return STATUS_SUCCESS;
}

NTSTATUS NTAPI PsTerminateSystemThread(NTSTATUS) {
    if (!Thread::current().main) {
        return STATUS_INVALID_PARAMETER; // not a system thread
    }
    irqlExactly(PASSIVE_LEVEL);
    throw ThreadEnd{};
}

HANDLE NTAPI PsGetCurrentProcessId(VOID) {
    return reinterpret_cast<HANDLE>(Thread::current().process);
}

HANDLE NTAPI PsGetCurrentThreadId(VOID) {
    return reinterpret_cast<HANDLE>(ULONG_PTR{Thread::current().id} * 4 + 8);
}

PEPROCESS NTAPI IoGetCurrentProcess(VOID) {
    return reinterpret_cast<PEPROCESS>(&s_process);
}

KPROCESSOR_MODE NTAPI ExGetPreviousMode(VOID) {
    return KernelMode;
}
}
