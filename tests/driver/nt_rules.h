// The frame of the tests that break kernel rules on purpose: the report must name the rule and the
// routine, and the routine must come back with something sane.
#pragma once

#include "tests/driver/nt_support.h"

#include <cctype>

namespace kelvane::nt {

struct RuleCase {
    const char* name;
    Rule rule;
    const char* routine; // of the first breach of the rule
    std::function<void()> misbehave;
    std::vector<Rule> also = {}; // what cannot but follow
};

inline void PrintTo(const RuleCase& item, std::ostream* out) {
    *out << item.name;
}

class KernelRule : public testing::TestWithParam<RuleCase> {
protected:
    void check() {
        const RuleCase& item = GetParam();
        RecordingMachine machine;
        item.misbehave();
        machine.end();
        bool found = false;
        for (const Breach& breach : machine.breaches()) {
            if (breach.rule != item.rule) {
                EXPECT_NE(std::ranges::count(item.also, breach.rule), 0) << breach.report();
            } else if (!std::exchange(found, true)) {
                EXPECT_EQ(breach.routine, item.routine) << breach.report();
            }
        }
        EXPECT_TRUE(found);
    }
};

inline std::string ruleCaseName(const testing::TestParamInfo<RuleCase>& info) {
    std::string name = info.param.name;
    std::replace_if(
        name.begin(), name.end(), [](char c) { return std::isalnum(c) == 0; }, '_');
    return name;
}

inline void atDispatch(const std::function<void()>& call) {
    const KIRQL before = KeRaiseIrqlToDpcLevel();
    call();
    KeLowerIrql(before);
}

inline NTSTATUS keepPending(IRP* irp) {
    IoMarkIrpPending(irp);
    return STATUS_PENDING;
}

// Calls `use` with an IRP on its way to a device that keeps it, and then lets the IRP come back.
inline void withIrpInFlight(const std::function<void(IRP*)>& use) {
    TestDevice device(keepPending);
    IRP* irp = ownIrp();
    IoCallDriver(device.object(), irp);
    use(irp);
    complete(irp, STATUS_SUCCESS);
    IoFreeIrp(irp);
}

// Sends an IRP to a device with this dispatch routine, and brings it back if the routine did not.
inline void send(const TestDevice::Dispatch& dispatch) {
    TestDevice device(dispatch);
    IRP* irp = ownIrp();
    IoCallDriver(device.object(), irp);
    if (irp->CurrentLocation <= irp->StackCount) {
        complete(irp, STATUS_SUCCESS);
    }
    IoFreeIrp(irp);
}

inline NTSTATUS completeAtOnce(IRP* irp) {
    return complete(irp, STATUS_SUCCESS);
}

inline void NTAPI keepCancelLock(PDEVICE_OBJECT, PIRP) {}

inline void NTAPI waitFor(PVOID event) {
    KeWaitForSingleObject(event, Executive, KernelMode, FALSE, nullptr);
}

constexpr ULONG kTestTag = 'T' | 'e' << 8 | 's' << 16 | 't' << 24;

} // namespace kelvane::nt
