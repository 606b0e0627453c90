// Memory descriptor lists. The machine has one flat memory: mapping and locking only leave their
// marks in the flags, so that what a driver forgets can be seen.
#include "platform/nt/kernel.h"

#include "platform/nt/machine.h"

#include <fmt/format.h>

#include <cstring>

using namespace kelvane::nt;

namespace {

constexpr ULONG kTag = 'M' | 'd' << 8 | 'l' << 16 | ' ' << 24;

std::size_t pagesOf(const void* address, std::size_t bytes) {
    return ADDRESS_AND_SIZE_TO_SPAN_PAGES(address, bytes);
}

void* startOf(const MDL& mdl) {
    return static_cast<std::byte*>(mdl.StartVa) + mdl.ByteOffset;
}

void require(bool held, const MDL* mdl, const char* what, const char* routine) {
    if (!held) {
        breach(Rule::Object, routine, fmt::format("MDL {} {}", fmt::ptr(mdl), what));
    }
}

} // namespace

extern "C" {

PMDL NTAPI IoAllocateMdl(PVOID VirtualAddress, ULONG Length, BOOLEAN SecondaryBuffer, BOOLEAN,
                         PIRP Irp) {
    irqlAtMost(DISPATCH_LEVEL);
    Pool& pool = Machine::current().pool();
    if (!pool.countAllocation()) {
        return nullptr;
    }
    const std::size_t bytes = sizeof(MDL) + pagesOf(VirtualAddress, Length) * sizeof(PFN_NUMBER);
    auto* mdl = static_cast<MDL*>(pool.allocateOwn(bytes, kTag));
    std::memset(mdl, 0, bytes);
    MmInitializeMdl(mdl, VirtualAddress, Length);
    if (Irp != nullptr) {
        MDL** link = &Irp->MdlAddress;
        while (SecondaryBuffer != FALSE && *link != nullptr) {
            link = &(*link)->Next;
        }
        *link = mdl;
    }
    return mdl;
}

void NTAPI IoFreeMdl(PMDL Mdl) {
    irqlAtMost(DISPATCH_LEVEL);
    require((Mdl->MdlFlags & MDL_PAGES_LOCKED) == 0, Mdl, "freed with its pages locked", __func__);
    Machine::current().pool().free(Mdl, kTag, __func__);
}

void NTAPI MmBuildMdlForNonPagedPool(PMDL MemoryDescriptorList) {
    irqlAtMost(DISPATCH_LEVEL);
    MemoryDescriptorList->MappedSystemVa = startOf(*MemoryDescriptorList);
    MemoryDescriptorList->MdlFlags |= MDL_SOURCE_IS_NONPAGED_POOL;
}

void NTAPI MmProbeAndLockPages(PMDL MemoryDescriptorList, KPROCESSOR_MODE, LOCK_OPERATION) {
    irqlAtMost(DISPATCH_LEVEL);
    require((MemoryDescriptorList->MdlFlags & MDL_PAGES_LOCKED) == 0, MemoryDescriptorList,
            "locked twice", __func__);
    MemoryDescriptorList->MdlFlags |= MDL_PAGES_LOCKED;
}

void NTAPI MmUnlockPages(PMDL MemoryDescriptorList) {
    irqlAtMost(DISPATCH_LEVEL);
    require((MemoryDescriptorList->MdlFlags & MDL_PAGES_LOCKED) != 0, MemoryDescriptorList,
            "unlocked without its pages locked", __func__);
    MemoryDescriptorList->MdlFlags &= ~(MDL_PAGES_LOCKED | MDL_MAPPED_TO_SYSTEM_VA);
}

PVOID NTAPI MmMapLockedPagesSpecifyCache(PMDL MemoryDescriptorList, KPROCESSOR_MODE,
                                         MEMORY_CACHING_TYPE, PVOID, ULONG, MM_PAGE_PRIORITY) {
    irqlAtMost(DISPATCH_LEVEL);
    require((MemoryDescriptorList->MdlFlags &
             (MDL_PAGES_LOCKED | MDL_SOURCE_IS_NONPAGED_POOL | MDL_PARTIAL)) != 0,
            MemoryDescriptorList, "mapped without its pages locked", __func__);
    MemoryDescriptorList->MappedSystemVa = startOf(*MemoryDescriptorList);
    MemoryDescriptorList->MdlFlags |= MDL_MAPPED_TO_SYSTEM_VA;
    return MemoryDescriptorList->MappedSystemVa;
}

void NTAPI MmUnmapLockedPages(PVOID, PMDL MemoryDescriptorList) {
    irqlAtMost(DISPATCH_LEVEL);
    MemoryDescriptorList->MdlFlags &= ~MDL_MAPPED_TO_SYSTEM_VA;
}

void NTAPI IoBuildPartialMdl(PMDL SourceMdl, PMDL TargetMdl, PVOID VirtualAddress, ULONG Length) {
    irqlAtMost(DISPATCH_LEVEL);
    const auto* begin = static_cast<const std::byte*>(VirtualAddress);
    const auto* source = static_cast<const std::byte*>(startOf(*SourceMdl));
    const std::size_t offset = static_cast<std::size_t>(begin - source);
    require(begin >= source && offset <= SourceMdl->ByteCount, SourceMdl,
            "does not hold the wanted part", __func__);
    const ULONG left = static_cast<ULONG>(SourceMdl->ByteCount - offset);
    MmInitializeMdl(TargetMdl, VirtualAddress, Length == 0 ? left : Length);
    TargetMdl->MdlFlags |= MDL_PARTIAL;
    if ((SourceMdl->MdlFlags & (MDL_MAPPED_TO_SYSTEM_VA | MDL_SOURCE_IS_NONPAGED_POOL)) != 0) {
        TargetMdl->MappedSystemVa = VirtualAddress;
        TargetMdl->MdlFlags |= MDL_MAPPED_TO_SYSTEM_VA;
    }
}
}
