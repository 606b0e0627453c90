// Pool allocation.
#include "platform/nt/kernel.h"

#include "platform/nt/machine.h"

using namespace kelvane::nt;

namespace {

constexpr ULONG kNoTag = 'N' | 'o' << 8 | 'n' << 16 | 'e' << 24;

} // namespace

extern "C" {

PVOID NTAPI ExAllocatePoolWithTag(POOL_TYPE PoolType, SIZE_T NumberOfBytes, ULONG Tag) {
    return Machine::current().pool().allocate(PoolType, NumberOfBytes, Tag, __func__);
}

// The macro of this name in the headers is ExAllocatePoolWithTag under POOL_TAGGING.
#undef ExAllocatePool
PVOID NTAPI ExAllocatePool(POOL_TYPE PoolType, SIZE_T NumberOfBytes) {
    return Machine::current().pool().allocate(PoolType, NumberOfBytes, kNoTag, __func__);
}

PVOID NTAPI ExAllocatePoolWithTagPriority(POOL_TYPE PoolType, SIZE_T NumberOfBytes, ULONG Tag,
                                          EX_POOL_PRIORITY) {
    return Machine::current().pool().allocate(PoolType, NumberOfBytes, Tag, __func__);
}

PVOID NTAPI ExAllocatePoolWithQuotaTag(POOL_TYPE PoolType, SIZE_T NumberOfBytes, ULONG Tag) {
    constexpr unsigned kFailInsteadOfRaise = POOL_QUOTA_FAIL_INSTEAD_OF_RAISE;
    return Machine::current().pool().allocate(
        static_cast<POOL_TYPE>(PoolType & ~kFailInsteadOfRaise), NumberOfBytes, Tag, __func__);
}

#undef ExFreePool
void NTAPI ExFreePool(PVOID P) {
    Machine::current().pool().free(P, 0, __func__);
}

void NTAPI ExFreePoolWithTag(PVOID P, ULONG Tag) {
    Machine::current().pool().free(P, Tag, __func__);
}
}
