// A flag or a number that one processor writes while others read it, with no lock: each access is
// one whole aligned access. It orders nothing else; what must be ordered has a lock or an IRP.
#pragma once

#include <type_traits>

template <typename T>
class Shared {
    // Of a pointer it is the pointer that is meant. NOLINTNEXTLINE(bugprone-sizeof-expression)
    static_assert(std::is_trivially_copyable_v<T> && sizeof(T) <= sizeof(void*));

public:
    constexpr Shared() = default;
    constexpr explicit Shared(T value) : m_Value(value) {}

    T Get() const { return __atomic_load_n(&m_Value, __ATOMIC_ACQUIRE); }
    void Set(T value) { __atomic_store_n(&m_Value, value, __ATOMIC_RELEASE); }

private:
    T m_Value = {};
};
