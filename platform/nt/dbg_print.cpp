// Debug prints, assertions, bug checks.
#include "platform/nt/kernel.h"

#include "platform/nt/dbg_format.h"
#include "platform/nt/machine.h"
#include "platform/nt/thread.h"

#include <fmt/format.h>

#include <cstdarg>
#include <cstdlib>

using namespace kelvane::nt;

namespace {

constexpr std::size_t kLongestPrint = 512; // bytes that one call transmits

// Arguments of a routine with the Windows calling convention.
class WindowsArguments : public FormatArguments {
public:
    explicit WindowsArguments(__builtin_ms_va_list& list) : m_list(list) {}
    int integer() override { return __builtin_va_arg(m_list, int); }
    long long wide() override { return __builtin_va_arg(m_list, long long); }
    void* pointer() override { return __builtin_va_arg(m_list, void*); }
    double real() override { return __builtin_va_arg(m_list, double); }

private:
    __builtin_ms_va_list& m_list;
};

// Arguments of a routine with the host's.
class HostArguments : public FormatArguments {
public:
    explicit HostArguments(va_list list) { va_copy(m_list, list); }
    ~HostArguments() override { va_end(m_list); }
    HostArguments(const HostArguments&) = delete;
    HostArguments& operator=(const HostArguments&) = delete;
    int integer() override { return va_arg(m_list, int); }
    long long wide() override { return va_arg(m_list, long long); }
    void* pointer() override { return va_arg(m_list, void*); }
    double real() override { return va_arg(m_list, double); }

private:
    va_list m_list;
};

void print(const char* format, FormatArguments& arguments, const char* routine) {
    const Thread& self = Thread::current();
    Formatted formatted = formatKernel(format, arguments);
    if (formatted.usesUnicode && self.irql > PASSIVE_LEVEL) {
        breach(
            Rule::IrqlLimit, routine,
            fmt::format("\"{}\" converts 16-bit text, which is allowed at PASSIVE_LEVEL only, at "
                        "IRQL {}",
                        format, self.irql));
    }
    if (formatted.text.size() > kLongestPrint) {
        formatted.text.resize(kLongestPrint);
    }
    self.machine.trace().add(
        {self.machine.scheduler().now(), self.processor(), self.irql, std::move(formatted.text)});
}

// Of its own, for the compiler copies a list as the calling convention of the function that it ends
// up in wants it.
[[gnu::noinline]] void printHost(const char* format, va_list list, const char* routine) {
    HostArguments arguments(list);
    print(format, arguments, routine);
}

} // namespace

extern "C" {

ULONG NTAPI DbgPrint(PCSTR Format, ...) {
    __builtin_ms_va_list list;
    __builtin_ms_va_start(list, Format);
    WindowsArguments arguments(list);
    print(Format, arguments, __func__);
    __builtin_ms_va_end(list);
    return STATUS_SUCCESS;
}

ULONG NTAPI DbgPrintEx(ULONG, ULONG, PCSTR Format, ...) {
    __builtin_ms_va_list list;
    __builtin_ms_va_start(list, Format);
    WindowsArguments arguments(list);
    print(Format, arguments, __func__);
    __builtin_ms_va_end(list);
    return STATUS_SUCCESS;
}

// The list is the host's own: the published prototype names va_list, which the host's compiler
// defines.
ULONG NTAPI vDbgPrintEx(ULONG, ULONG, PCCH Format, va_list ap) {
    printHost(Format, ap, __func__);
    return STATUS_SUCCESS;
}

void NTAPI RtlAssert(PVOID FailedAssertion, PVOID FileName, ULONG LineNumber, PSTR Message) {
    DbgPrint("\n*** Assertion failed: %s%s\n***   Source File: %s, line %lu\n\n",
             Message == nullptr ? "" : Message, static_cast<const char*>(FailedAssertion),
             static_cast<const char*>(FileName), LineNumber);
}

void NTAPI DbgBreakPoint(VOID) {
    breach(Rule::BugCheck, __func__, "a break point, and no debugger");
}

void NTAPI KeBugCheckEx(ULONG BugCheckCode, ULONG_PTR BugCheckParameter1,
                        ULONG_PTR BugCheckParameter2, ULONG_PTR BugCheckParameter3,
                        ULONG_PTR BugCheckParameter4) {
    breach(Rule::BugCheck, __func__,
           fmt::format("stop {:#x} ({:#x}, {:#x}, {:#x}, {:#x})", BugCheckCode, BugCheckParameter1,
                       BugCheckParameter2, BugCheckParameter3, BugCheckParameter4));
    std::abort();
}

void NTAPI KeBugCheck(ULONG BugCheckCode) {
    KeBugCheckEx(BugCheckCode, 0, 0, 0, 0);
}
}
