// The object manager: reference-counted objects with names and handles.
#pragma once

#include "platform/nt/kernel.h"

#include "platform/nt/backtrace.h"

#include <atomic>
#include <cstddef>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

// Published as an opaque type only.
struct _OBJECT_TYPE {
    const char* name;
    void (*lastHandleClosed)(void* body); // may be null; without locks held
    void (*destroy)(void* body);          // likewise, at PASSIVE_LEVEL; the memory goes after it
    // Maps the generic access rights to the type's own.
    GENERIC_MAPPING mapping;
};

namespace kelvane::nt {

struct ObjectHeader {
    POBJECT_TYPE type = nullptr;
    std::atomic<long> references{1};
    long handles = 0;
    std::size_t bytes = 0;
    std::u16string path; // empty when it has no name
    Backtrace made;
    ObjectHeader* next = nullptr; // all objects of the machine
    ObjectHeader* previous = nullptr;

    void* body();
    static ObjectHeader& of(void* body);
};

struct HandleEntry {
    ObjectHeader* object = nullptr;
    ACCESS_MASK access = 0;
    Backtrace made;
};

extern _OBJECT_TYPE kEventType;
extern _OBJECT_TYPE kThreadType;
extern _OBJECT_TYPE kFileType;
extern _OBJECT_TYPE kDeviceType;
extern _OBJECT_TYPE kDriverType;
extern _OBJECT_TYPE kKeyType;

class ObjectManager {
public:
    ObjectManager() = default;
    ~ObjectManager();

    // A zero-filled body with one reference.
    void* create(_OBJECT_TYPE& type, std::size_t bytes);
    // Null when `body` is not the body of a living object.
    ObjectHeader* find(const void* body) const;
    bool reference(void* body, const char* routine);
    void dereference(void* body, const char* routine);

    // False when the name is taken.
    bool giveName(void* body, const std::u16string& path);
    void dropName(void* body);
    bool addLink(const std::u16string& path, const std::u16string& target);
    bool dropLink(const std::u16string& path);
    // Follows links and returns the object whose path starts `path` (the longest) with a reference
    // for the caller, and the rest of the path after it, with its leading backslash.
    struct Resolved {
        void* body = nullptr;
        std::u16string rest;
    };
    std::optional<Resolved> resolve(std::u16string_view path);

    // The handle takes a reference of its own.
    HANDLE open(void* body, ACCESS_MASK access);
    NTSTATUS close(HANDLE handle, const char* routine);
    // A new reference to the object; `type` null for any. Reports a breach for a handle that was
    // closed.
    NTSTATUS referenceByHandle(HANDLE handle, POBJECT_TYPE type, ACCESS_MASK access, void** body,
                               ACCESS_MASK* granted, const char* routine);

    // One line for each handle, and each object of the types a driver makes.
    std::vector<std::pair<std::string, std::vector<std::string>>> leftOvers() const;

private:
    HandleEntry* entry(HANDLE handle);
    void unlink(ObjectHeader& header);
    void destroy(ObjectHeader& header);
    static void NTAPI destroyLater(void* parameter);

    mutable std::recursive_mutex m_mutex;
    ObjectHeader* m_objects = nullptr;
    std::map<const void*, ObjectHeader*> m_bodies;
    std::map<std::u16string, void*> m_names;          // by upper-case path
    std::map<std::u16string, std::u16string> m_links; // likewise
    std::vector<HandleEntry> m_handles;               // handle = 4 * (index + 1)
    std::vector<std::size_t> m_freeHandles;
};

// An access mask with its generic rights replaced by what they mean for the type.
ACCESS_MASK mapAccess(ACCESS_MASK access, const _OBJECT_TYPE& type);

} // namespace kelvane::nt
