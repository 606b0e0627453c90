// IRPs as memory: allocated, initialised, reused, freed.
#include "platform/nt/kernel.h"

#include "platform/nt/irps.h"
#include "platform/nt/machine.h"
#include "platform/nt/thread.h"

#include <fmt/format.h>

#include <cstring>

namespace kelvane::nt {

namespace {

constexpr ULONG kIrpTag = 'I' | 'r' << 8 | 'p' << 16 | ' ' << 24;

void reset(IRP* irp, USHORT bytes, CCHAR stackSize) {
    std::memset(irp, 0, bytes);
    irp->Type = IO_TYPE_IRP;
    irp->Size = bytes;
    irp->StackCount = stackSize;
    irp->CurrentLocation = static_cast<CHAR>(stackSize + 1);
    InitializeListHead(&irp->ThreadListEntry);
    irp->Tail.Overlay.CurrentStackLocation =
        reinterpret_cast<IO_STACK_LOCATION*>(irp + 1) + stackSize;
}

} // namespace

IRP* makeIrp(CCHAR stackSize, IrpOwner owner) {
    Machine& machine = Machine::current();
    auto* irp = static_cast<IRP*>(machine.pool().allocateOwn(IoSizeOfIrp(stackSize), kIrpTag));
    reset(irp, IoSizeOfIrp(stackSize), stackSize);
    auto state = std::make_unique<IrpState>();
    state->owner = owner;
    state->made = Backtrace::quick();
    irp->Tail.Overlay.Thread = reinterpret_cast<PETHREAD>(Thread::current().object);
    machine.irps().add(irp, std::move(state));
    return irp;
}

void dropIrp(IRP* irp) {
    Machine& machine = Machine::current();
    machine.irps().remove(irp);
    if (!machine.irps().leaveToUnpin(irp)) {
        machine.pool().free(irp, kIrpTag, "IoFreeIrp");
    }
}

} // namespace kelvane::nt

using namespace kelvane::nt;

extern "C" {

PIRP NTAPI IoAllocateIrp(CCHAR StackSize, BOOLEAN) {
    irqlAtMost(DISPATCH_LEVEL);
    if (StackSize <= 0) {
        breach(Rule::IrpStack, __func__, fmt::format("{} stack locations asked for", StackSize));
        return nullptr;
    }
    return Machine::current().pool().countAllocation() ? makeIrp(StackSize, IrpOwner::Caller)
                                                       : nullptr;
}

void NTAPI IoInitializeIrp(PIRP Irp, USHORT PacketSize, CCHAR StackSize) {
    irqlAtMost(DISPATCH_LEVEL);
    if (PacketSize < IoSizeOfIrp(StackSize)) {
        breach(Rule::IrpStack, __func__,
               fmt::format("{} bytes are too few for {} stack locations, which need {}", PacketSize,
                           StackSize, IoSizeOfIrp(StackSize)));
        return;
    }
    IrpTable& irps = Machine::current().irps();
    const bool isKnown = irps.known(Irp);
    if (isKnown && irps.find(Irp, __func__)->owner != IrpOwner::Memory) {
        breach(Rule::IrpState, __func__,
               "the IRP came from IoAllocateIrp: IoReuseIrp is what makes it new");
        return;
    }
    if (isKnown && irps.find(Irp, __func__)->sent) {
        breach(Rule::IrpState, __func__, "the IRP is on its way");
        return;
    }
    reset(Irp, PacketSize, StackSize);
    auto state = std::make_unique<IrpState>();
    state->owner = IrpOwner::Memory;
    state->made = Backtrace::quick();
    irps.add(Irp, std::move(state));
}

void NTAPI IoReuseIrp(PIRP Irp, NTSTATUS Status) {
    irqlAtMost(DISPATCH_LEVEL);
    IrpState* state = Machine::current().irps().find(Irp, __func__);
    if (state == nullptr) {
        return;
    }
    if (state->owner == IrpOwner::IoManager) {
        breach(Rule::IrpState, __func__, "the IRP belongs to the I/O manager");
        return;
    }
    if (state->sent) {
        breach(Rule::IrpState, __func__, "the IRP is on its way");
        return;
    }
    const PETHREAD thread = Irp->Tail.Overlay.Thread;
    reset(Irp, Irp->Size, Irp->StackCount);
    Irp->Tail.Overlay.Thread = thread;
    Irp->IoStatus.Status = Status;
}

void NTAPI IoFreeIrp(PIRP Irp) {
    irqlAtMost(DISPATCH_LEVEL);
    const IrpState* state = Machine::current().irps().find(Irp, __func__);
    if (state == nullptr) {
        return;
    }
    if (state->sent) {
        breach(Rule::IrpState, __func__, "the IRP is on its way");
        return;
    }
    if (state->owner != IrpOwner::Caller) {
        breach(Rule::IrpState, __func__,
               state->owner == IrpOwner::Memory
                   ? "the IRP was made with IoInitializeIrp: its memory is the caller's"
                   : "the IRP belongs to the I/O manager, which frees it at its completion");
        return;
    }
    dropIrp(Irp);
}
}
