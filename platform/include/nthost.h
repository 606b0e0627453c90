// The published kernel headers, made fit for a Linux compiler.
//
// Included before any of them (the driver's host build force-includes it), this header gives the
// headers of mingw-w64-common what they expect of their own compiler: its predefined macros, its
// calling convention and its intrinsics. Structure layouts and inline routines are then the same
// bytes in the host build and in kelvane.sys. Compile with -fshort-wchar.
#pragma once

#if defined(_WIN32) || !defined(__x86_64__) || !defined(__linux__)
#error "nthost.h serves the x86-64 Linux build only"
#endif
static_assert(sizeof(wchar_t) == 2, "compile with -fshort-wchar: the kernel's WCHAR has 16 bits");

#include <stdarg.h>
#include <stddef.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <wchar.h>

// What the target compiler predefines.
#define _WIN64 1
#define _AMD64_ 1
#define _M_AMD64 100

// Types that the C library has already defined.
#define _SSIZE_T_DEFINED
#define _RSIZE_T_DEFINED
#define _INTPTR_T_DEFINED
#define _UINTPTR_T_DEFINED
#define _TIME_T_DEFINED
#define _TIME32_T_DEFINED
#define _TIME64_T_DEFINED
#define _PTRDIFF_T_DEFINED
#define _SIZE_T_DEFINED
#define _WCHAR_T_DEFINED
#define _WCTYPE_T_DEFINED
#define _VA_LIST_DEFINED
#define __INTRIN_H_

// Every kernel routine and callback has the Windows x64 calling convention, so that a Windows
// binary can call the platform's functions and be called by it.
#define __cdecl __attribute__((ms_abi))
#define __fastcall __attribute__((ms_abi))
#define __declspec(what) KELVANE_DECLSPEC_##what
#define KELVANE_DECLSPEC_dllimport
#define KELVANE_DECLSPEC_dllexport
#define KELVANE_DECLSPEC_novtable
#define KELVANE_DECLSPEC_deprecated
#define KELVANE_DECLSPEC_uuid(text)
#define KELVANE_DECLSPEC_noreturn __attribute__((noreturn))
#define KELVANE_DECLSPEC_selectany __attribute__((weak))
#define KELVANE_DECLSPEC_align(bytes) __attribute__((aligned(bytes)))
#define _CRTIMP
#define __MINGW_IMPORT extern

// _mingw.h refuses other targets and clears __stdcall; no later header looks at _WIN32.
#define _WIN32 1
#include <_mingw.h>
#undef _WIN32
#undef __stdcall
#define __stdcall __attribute__((ms_abi))

// On x86-64 a fastcall routine has the one calling convention that every routine has.
#include <ntdef.h>
#undef FASTCALL
#define FASTCALL __attribute__((ms_abi))

// Intrinsics that the headers' inline routines use. CR8 holds the IRQL of the current simulated
// processor: platform/nt implements the two accessors, and through them KeGetCurrentIrql,
// KeRaiseIrql and KeLowerIrql.
extern "C" {
__attribute__((ms_abi)) unsigned long long __readcr8(void);
__attribute__((ms_abi)) void __writecr8(unsigned long long irql);
__attribute__((ms_abi)) unsigned long long __readgsqword(unsigned int offset);
__attribute__((ms_abi)) unsigned short __readgsword(unsigned int offset);
}

// The arguments of these macros are types and names: they bear no parentheses.
// NOLINTBEGIN(bugprone-macro-parentheses)
#define KELVANE_INTERLOCKED(suffix, type)                                                          \
    inline type _InterlockedExchange##suffix(volatile type* target, type value) {                  \
        return __atomic_exchange_n(target, value, __ATOMIC_SEQ_CST);                               \
    }                                                                                              \
    inline type _InterlockedExchangeAdd##suffix(volatile type* target, type value) {               \
        return __atomic_fetch_add(target, value, __ATOMIC_SEQ_CST);                                \
    }                                                                                              \
    inline type _InterlockedAdd##suffix(volatile type* target, type value) {                       \
        return __atomic_add_fetch(target, value, __ATOMIC_SEQ_CST);                                \
    }                                                                                              \
    inline type _InterlockedIncrement##suffix(volatile type* target) {                             \
        return __atomic_add_fetch(target, 1, __ATOMIC_SEQ_CST);                                    \
    }                                                                                              \
    inline type _InterlockedDecrement##suffix(volatile type* target) {                             \
        return __atomic_sub_fetch(target, 1, __ATOMIC_SEQ_CST);                                    \
    }                                                                                              \
    inline type _InterlockedOr##suffix(volatile type* target, type value) {                        \
        return __atomic_fetch_or(target, value, __ATOMIC_SEQ_CST);                                 \
    }                                                                                              \
    inline type _InterlockedAnd##suffix(volatile type* target, type value) {                       \
        return __atomic_fetch_and(target, value, __ATOMIC_SEQ_CST);                                \
    }                                                                                              \
    inline type _InterlockedXor##suffix(volatile type* target, type value) {                       \
        return __atomic_fetch_xor(target, value, __ATOMIC_SEQ_CST);                                \
    }                                                                                              \
    inline type _InterlockedCompareExchange##suffix(volatile type* target, type value,             \
                                                    type expected) {                               \
        __atomic_compare_exchange_n(target, &expected, value, false, __ATOMIC_SEQ_CST,             \
                                    __ATOMIC_SEQ_CST);                                             \
        return expected;                                                                           \
    }
KELVANE_INTERLOCKED(, int)
KELVANE_INTERLOCKED(64, long long)
#undef KELVANE_INTERLOCKED

inline void* _InterlockedExchangePointer(void* volatile* target, void* value) {
    return __atomic_exchange_n(target, value, __ATOMIC_SEQ_CST);
}
inline void* _InterlockedCompareExchangePointer(void* volatile* target, void* value,
                                                void* expected) {
    __atomic_compare_exchange_n(target, &expected, value, false, __ATOMIC_SEQ_CST,
                                __ATOMIC_SEQ_CST);
    return expected;
}
inline unsigned char _bittest64(const long long* words, long long bit) {
    return static_cast<unsigned char>((words[bit >> 6] >> (bit & 63)) & 1);
}
inline unsigned long long __umulh(unsigned long long left, unsigned long long right) {
    return static_cast<unsigned long long>((static_cast<unsigned __int128>(left) * right) >> 64);
}
inline void __stosb(unsigned char* target, unsigned char value, size_t count) {
    memset(target, value, count);
}
inline void __movsb(unsigned char* target, const unsigned char* source, size_t count) {
    memcpy(target, source, count);
}
inline void __movsw(unsigned short* target, const unsigned short* source, size_t count) {
    memcpy(target, source, count * sizeof(*target));
}
inline void __movsd(unsigned int* target, const unsigned int* source, size_t count) {
    memcpy(target, source, count * sizeof(*target));
}

// Port input and output: the inline routines name these, and no driver here may call them.
#define KELVANE_PORT(name, type)                                                                   \
    void name(unsigned short port, type* buffer, unsigned int count)                               \
        __attribute__((error("port I/O")));
extern "C" {
KELVANE_PORT(__inbytestring, unsigned char)
KELVANE_PORT(__inwordstring, unsigned short)
KELVANE_PORT(__indwordstring, unsigned int)
KELVANE_PORT(__outbytestring, unsigned char)
KELVANE_PORT(__outwordstring, unsigned short)
KELVANE_PORT(__outdwordstring, unsigned int)
unsigned char __inbyte(unsigned short) __attribute__((error("port I/O")));
unsigned short __inword(unsigned short) __attribute__((error("port I/O")));
unsigned int __indword(unsigned short) __attribute__((error("port I/O")));
void __outbyte(unsigned short, unsigned char) __attribute__((error("port I/O")));
void __outword(unsigned short, unsigned short) __attribute__((error("port I/O")));
void __outdword(unsigned short, unsigned int) __attribute__((error("port I/O")));
}
#undef KELVANE_PORT
// NOLINTEND(bugprone-macro-parentheses)
