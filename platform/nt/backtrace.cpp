#include "platform/nt/backtrace.h"

#include "platform/nt/symbols.h"

#include <algorithm>
#include <cstdint>
#include <execinfo.h>
#include <iterator>
#include <pthread.h>

namespace kelvane::nt {

namespace {

// Of the calling thread. It never changes, and finding it takes long.
struct Stack {
    std::uintptr_t low = 0, high = 0;

    static const Stack& current() {
        thread_local const Stack stack = find();
        return stack;
    }
    bool holdsFrame(const std::uintptr_t* frame) const {
        const auto at = reinterpret_cast<std::uintptr_t>(frame);
        return at >= low && at <= high - 2 * sizeof(*frame) && at % sizeof(*frame) == 0;
    }

private:
    static Stack find() {
        Stack stack;
        pthread_attr_t attributes;
        if (pthread_getattr_np(pthread_self(), &attributes) != 0) {
            return stack;
        }
        void* lowest = nullptr;
        std::size_t size = 0;
        if (pthread_attr_getstack(&attributes, &lowest, &size) == 0) {
            stack.low = reinterpret_cast<std::uintptr_t>(lowest);
            stack.high = stack.low + size;
        }
        pthread_attr_destroy(&attributes);
        return stack;
    }
};

} // namespace

Backtrace Backtrace::here(std::size_t skip) {
    std::array<void*, 24> raw;
    const int depth = backtrace(raw.data(), static_cast<int>(raw.size()));
    Backtrace trace;
    for (std::size_t i = skip + 2; i < static_cast<std::size_t>(depth); i++) {
        if (trace.count == trace.frames.size()) {
            break;
        }
        trace.frames[trace.count++] = raw[i];
    }
    return trace;
}

// A frame holds the caller's frame pointer and, above it, the address to return to. Frames lie
// upwards in order; whatever doesn't is no frame. The first return is to the caller of this.
__attribute__((noinline, no_sanitize("address", "thread", "undefined"))) Backtrace
Backtrace::quick(std::size_t skip) {
    const Stack& stack = Stack::current();
    Backtrace trace;
    const auto* frame = static_cast<const std::uintptr_t*>(__builtin_frame_address(0));
    for (std::size_t depth = 0; stack.holdsFrame(frame) && trace.count < trace.frames.size();
         ++depth) {
        if (depth > skip) {
            trace.frames[trace.count++] = reinterpret_cast<void*>(frame[1]);
        }
        const auto* const next = reinterpret_cast<const std::uintptr_t*>(frame[0]);
        if (next <= frame) {
            break;
        }
        frame = next;
    }
    return trace;
}

namespace {

// The machine's own frames between a kernel routine and the place where the stack was taken.
bool isMachinery(const std::string& line) {
    static constexpr const char* kPrefixes[] = {
        "kelvane::nt::Rules::",      "kelvane::nt::breach(",        "kelvane::nt::irqlAtMost(",
        "kelvane::nt::irqlExactly(", "kelvane::nt::Pool::",         "kelvane::nt::accessible(",
        "kelvane::nt::resident(",    "kelvane::nt::fresh(",         "kelvane::nt::Backtrace::",
        "kelvane::nt::makeIrp(",     "kelvane::nt::ObjectManager::"};
    return std::any_of(std::begin(kPrefixes), std::end(kPrefixes),
                       [&](const char* prefix) { return line.starts_with(prefix); });
}

} // namespace

std::vector<std::string> Backtrace::lines() const {
    std::vector<std::string> text;
    for (std::size_t i = 0; i < count; i++) {
        // A return address may lie behind its function; the call does not.
        std::string line = describeAddress(static_cast<const char*>(frames[i]) - 1);
        if (!text.empty() || !isMachinery(line)) {
            text.push_back(std::move(line));
        }
    }
    return text;
}

} // namespace kelvane::nt
