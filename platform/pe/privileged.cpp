#include "platform/nt/kernel.h"

#include "platform/pe/privileged.h"

#include "platform/nt/backtrace.h"

#include <fmt/format.h>
#include <fmt/ranges.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <csignal>
#include <mutex>
#include <ucontext.h>

namespace kelvane::pe {

namespace {

// Read in the signal handler, so without a lock: a place is taken when its end is not null.
struct Code {
    std::atomic<const std::uint8_t*> begin = nullptr;
    std::atomic<const std::uint8_t*> end = nullptr;
};
std::array<Code, kMaximumImages> s_watched;
std::mutex s_mutex; // for those who change it

struct sigaction s_before; // what handled faults before the first image

// The rest of the watched memory from an instruction on; empty for code that isn't watched.
std::span<const std::uint8_t> watchedFrom(const std::uint8_t* instruction) {
    for (const Code& code : s_watched) {
        const std::uint8_t* end = code.end;
        if (end != nullptr && instruction >= code.begin && instruction < end) {
            return {instruction, end};
        }
    }
    return {};
}

// As instructions number the general registers.
constexpr std::array kRegisters = {REG_RAX, REG_RCX, REG_RDX, REG_RBX, REG_RSP, REG_RBP,
                                   REG_RSI, REG_RDI, REG_R8,  REG_R9,  REG_R10, REG_R11,
                                   REG_R12, REG_R13, REG_R14, REG_R15};

bool emulate(greg_t* registers) {
    const auto code = watchedFrom(reinterpret_cast<const std::uint8_t*>(registers[REG_RIP]));
    const ControlAccess access = decodeCr8Access(code);
    if (access.bytes == 0) {
        return false;
    }
    registers[REG_RIP] += static_cast<greg_t>(access.bytes);
    greg_t& value = registers[kRegisters[access.generalRegister]];
    if (access.write) {
        __writecr8(static_cast<unsigned long long>(value));
    } else {
        value = static_cast<greg_t>(__readcr8());
    }
    return true;
}

// What the processor refuses without an address is an instruction that it keeps to the kernel.
void reportPrivileged(const siginfo_t& info, const greg_t* registers) {
    const auto* instruction = reinterpret_cast<const std::uint8_t*>(registers[REG_RIP]);
    const auto code = watchedFrom(instruction);
    if (info.si_code == SI_KERNEL && !code.empty()) {
        fmt::print(stderr, "{}: an instruction that only a kernel may run: {:02x}\n",
                   nt::describeAddress(instruction),
                   fmt::join(code.first(std::min<std::size_t>(code.size(), 8)), " "));
    }
}

void onFault(int signal, siginfo_t* info, void* context) {
    greg_t* registers = static_cast<ucontext_t*>(context)->uc_mcontext.gregs;
    if (emulate(registers)) {
        return;
    }
    reportPrivileged(*info, registers);
    if ((s_before.sa_flags & SA_SIGINFO) != 0) {
        s_before.sa_sigaction(signal, info, context);
        return;
    }
    std::signal(SIGSEGV, SIG_DFL); // the instruction runs again and ends the process
}

// A lowered IRQL runs DPCs, and they may read CR8 in their turn: the signal stays open meanwhile.
// That the handler calls ordinary code is safe, for it stands in for an instruction of the driver's
// own and never interrupts the platform.
void installHandler() {
    static const bool s_installed = [] {
        struct sigaction action = {};
        action.sa_sigaction = onFault;
        action.sa_flags = SA_SIGINFO | SA_NODEFER;
        return sigaction(SIGSEGV, &action, &s_before) == 0;
    }();
    static_cast<void>(s_installed);
}

} // namespace

ControlAccess decodeCr8Access(std::span<const std::uint8_t> code) {
    // REX.R is bit 3 of the control register's number, REX.B that of the general register's; then
    // 0F 20 (read) or 0F 22 (write) and a ModRM byte whose mode bits don't count.
    constexpr std::uint8_t kRex = 0x40, kRexR = 4, kRexB = 1;
    if (code.size() < 4 || (code[0] & 0xF0) != kRex || (code[0] & kRexR) == 0 || code[1] != 0x0F ||
        (code[2] != 0x20 && code[2] != 0x22) || (code[3] & 0x38) != 0) {
        return {};
    }
    return {.write = code[2] == 0x22,
            .generalRegister = (code[3] & 7u) | ((code[0] & kRexB) != 0 ? 8u : 0u),
            .bytes = 4};
}

bool watchCode(const void* begin, std::size_t bytes) {
    installHandler();
    const std::scoped_lock guard(s_mutex);
    const auto free = std::find_if(s_watched.begin(), s_watched.end(),
                                   [](const Code& code) { return code.end == nullptr; });
    if (free == s_watched.end()) {
        return false;
    }
    free->begin = static_cast<const std::uint8_t*>(begin);
    free->end = static_cast<const std::uint8_t*>(begin) + bytes;
    return true;
}

void forgetCode(const void* begin) {
    const std::scoped_lock guard(s_mutex);
    for (Code& code : s_watched) {
        if (code.begin == begin) {
            code.end = nullptr;
            code.begin = nullptr;
        }
    }
}

} // namespace kelvane::pe
