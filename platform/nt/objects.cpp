#include "platform/nt/objects.h"

#include "platform/nt/machine.h"
#include "platform/nt/text.h"
#include "platform/nt/thread.h"

#include <fmt/format.h>

#include <cstring>
#include <memory>
#include <new>

namespace kelvane::nt {

namespace {

// The body follows its header, aligned as pool memory is.
constexpr std::size_t kHeaderBytes = (sizeof(ObjectHeader) + 15) / 16 * 16;
constexpr int kMaxLinks = 16; // followed in one path

// The last reference went above PASSIVE_LEVEL, where an object's end may not wait.
struct LateDestruction {
    WORK_QUEUE_ITEM item;
    ObjectHeader* header;
};

std::size_t indexOf(HANDLE handle) {
    return reinterpret_cast<std::size_t>(handle) / 4 - 1;
}

std::string describe(const ObjectHeader& header) {
    return header.path.empty() ? header.type->name
                               : fmt::format("{} {}", header.type->name, toUtf8(header.path));
}

} // namespace

void* ObjectHeader::body() {
    return reinterpret_cast<std::byte*>(this) + kHeaderBytes;
}

ObjectHeader& ObjectHeader::of(void* body) {
    return *reinterpret_cast<ObjectHeader*>(static_cast<std::byte*>(body) - kHeaderBytes);
}

ACCESS_MASK mapAccess(ACCESS_MASK access, const _OBJECT_TYPE& type) {
    const GENERIC_MAPPING& map = type.mapping;
    const auto replace = [&](ACCESS_MASK generic, ACCESS_MASK specific) {
        if ((access & generic) != 0) {
            access = (access & ~generic) | specific;
        }
    };
    replace(GENERIC_READ, map.GenericRead);
    replace(GENERIC_WRITE, map.GenericWrite);
    replace(GENERIC_EXECUTE, map.GenericExecute);
    replace(GENERIC_ALL, map.GenericAll);
    replace(MAXIMUM_ALLOWED, map.GenericAll);
    return access;
}

ObjectManager::~ObjectManager() {
    while (m_objects != nullptr) {
        ObjectHeader* header = m_objects;
        unlink(*header);
        if (header->type == &kKeyType) { // the one type with more than its own memory
            header->type->destroy(header->body());
        }
        header->~ObjectHeader();
        ::operator delete (static_cast<void*>(header), std::align_val_t{16});
    }
}

void* ObjectManager::create(_OBJECT_TYPE& type, std::size_t bytes) {
    void* memory = ::operator new (kHeaderBytes + bytes, std::align_val_t{16});
    std::memset(memory, 0, kHeaderBytes + bytes);
    auto* header = new (memory) ObjectHeader;
    header->type = &type;
    header->bytes = bytes;
    header->made = Backtrace::quick();
    const std::scoped_lock guard(m_mutex);
    header->next = m_objects;
    if (m_objects != nullptr) {
        m_objects->previous = header;
    }
    m_objects = header;
    m_bodies.emplace(header->body(), header);
    return header->body();
}

void ObjectManager::unlink(ObjectHeader& header) {
    (header.previous == nullptr ? m_objects : header.previous->next) = header.next;
    if (header.next != nullptr) {
        header.next->previous = header.previous;
    }
    m_bodies.erase(header.body());
}

ObjectHeader* ObjectManager::find(const void* body) const {
    const std::scoped_lock guard(m_mutex);
    const auto found = m_bodies.find(body);
    return found == m_bodies.end() ? nullptr : found->second;
}

bool ObjectManager::reference(void* body, const char* routine) {
    ObjectHeader* header = find(body);
    if (header == nullptr) {
        breach(Rule::Object, routine, fmt::format("{} is no object", fmt::ptr(body)));
        return false;
    }
    header->references++;
    return true;
}

void ObjectManager::dereference(void* body, const char* routine) {
    ObjectHeader* header = find(body);
    if (header == nullptr) {
        breach(Rule::Object, routine, fmt::format("{} is no object", fmt::ptr(body)));
        return;
    }
    if (--header->references != 0) {
        return;
    }
    if (header->type->destroy == nullptr || Thread::current().irql == PASSIVE_LEVEL) {
        destroy(*header);
        return;
    }
    auto* later = new LateDestruction{{}, header};
    ExInitializeWorkItem(&later->item, destroyLater, later);
    ExQueueWorkItem(&later->item, DelayedWorkQueue);
}

void NTAPI ObjectManager::destroyLater(void* parameter) {
    const std::unique_ptr<LateDestruction> later(static_cast<LateDestruction*>(parameter));
    Machine::current().objects().destroy(*later->header);
}

void ObjectManager::destroy(ObjectHeader& header) {
    if (header.type->destroy != nullptr) {
        header.type->destroy(header.body());
    }
    {
        const std::scoped_lock guard(m_mutex);
        dropName(header.body());
        unlink(header);
    }
    header.~ObjectHeader();
    ::operator delete (static_cast<void*>(&header), std::align_val_t{16});
}

bool ObjectManager::giveName(void* body, const std::u16string& path) {
    const std::scoped_lock guard(m_mutex);
    const std::u16string key = upcase(path);
    if (m_links.contains(key) || !m_names.emplace(key, body).second) {
        return false;
    }
    ObjectHeader::of(body).path = path;
    return true;
}

void ObjectManager::dropName(void* body) {
    const std::scoped_lock guard(m_mutex);
    const auto found = m_names.find(upcase(ObjectHeader::of(body).path));
    if (found != m_names.end() && found->second == body) {
        m_names.erase(found);
    }
}

namespace {

// "\DosDevices\" is an old name of "\??\".
std::u16string presentName(const std::u16string& path) {
    constexpr std::u16string_view kOld = u"\\DOSDEVICES\\";
    return upcase(path).starts_with(kOld) ? u"\\??\\" + path.substr(kOld.size()) : path;
}

} // namespace

bool ObjectManager::addLink(const std::u16string& path, const std::u16string& target) {
    const std::scoped_lock guard(m_mutex);
    const std::u16string key = upcase(presentName(path));
    return !m_names.contains(key) && m_links.emplace(key, target).second;
}

bool ObjectManager::dropLink(const std::u16string& path) {
    const std::scoped_lock guard(m_mutex);
    return m_links.erase(upcase(presentName(path))) != 0;
}

namespace {

// False when the last reference has gone and the object is being destroyed.
bool referenceUnlessGone(ObjectHeader& header) {
    long references = header.references;
    while (references != 0 &&
           !header.references.compare_exchange_weak(references, references + 1)) {
    }
    return references != 0;
}

} // namespace

std::optional<ObjectManager::Resolved> ObjectManager::resolve(std::u16string_view path) {
    const std::scoped_lock guard(m_mutex);
    std::u16string rest(path);
    for (int links = 0; links < kMaxLinks; links++) {
        rest = presentName(rest);
        const std::u16string key = upcase(rest);
        std::size_t length = key.size();
        bool followed = false;
        // The longest start of the path that ends at a component's end and is known.
        while (length != 0 && length != std::u16string::npos) {
            const std::u16string prefix = key.substr(0, length);
            if (const auto name = m_names.find(prefix); name != m_names.end()) {
                if (!referenceUnlessGone(ObjectHeader::of(name->second))) {
                    return std::nullopt;
                }
                return Resolved{name->second, rest.substr(length)};
            }
            if (const auto link = m_links.find(prefix); link != m_links.end()) {
                rest = link->second + rest.substr(length);
                followed = true;
                break;
            }
            length = key.rfind(u'\\', length - 1);
        }
        if (!followed) {
            return std::nullopt;
        }
    }
    return std::nullopt;
}

HANDLE ObjectManager::open(void* body, ACCESS_MASK access) {
    const std::scoped_lock guard(m_mutex);
    ObjectHeader& header = ObjectHeader::of(body);
    header.references++;
    header.handles++;
    if (m_freeHandles.empty()) {
        m_freeHandles.push_back(m_handles.size());
        m_handles.emplace_back();
    }
    const std::size_t index = m_freeHandles.back();
    m_freeHandles.pop_back();
    m_handles[index] = {&header, access, Backtrace::quick()};
    return reinterpret_cast<HANDLE>((index + 1) * 4);
}

HandleEntry* ObjectManager::entry(HANDLE handle) {
    const auto value = reinterpret_cast<std::size_t>(handle);
    if (value == 0 || value % 4 != 0 || indexOf(handle) >= m_handles.size()) {
        return nullptr;
    }
    HandleEntry& found = m_handles[indexOf(handle)];
    return found.object == nullptr ? nullptr : &found;
}

NTSTATUS ObjectManager::close(HANDLE handle, const char* routine) {
    ObjectHeader* header = nullptr;
    bool last = false;
    {
        const std::scoped_lock guard(m_mutex);
        if (HandleEntry* found = entry(handle)) {
            header = found->object;
            *found = {};
            // The last one is taken first, so a handle closed twice shows before it is given anew.
            m_freeHandles.insert(m_freeHandles.begin(), indexOf(handle));
            last = --header->handles == 0;
        }
    }
    if (header == nullptr) {
        breach(Rule::Handle, routine, fmt::format("handle {} is not open", fmt::ptr(handle)));
        return STATUS_INVALID_HANDLE;
    }
    void* body = header->body();
    if (last && header->type->lastHandleClosed != nullptr) {
        header->type->lastHandleClosed(body);
    }
    dereference(body, routine);
    return STATUS_SUCCESS;
}

NTSTATUS ObjectManager::referenceByHandle(HANDLE handle, POBJECT_TYPE type, ACCESS_MASK access,
                                          void** body, ACCESS_MASK* granted, const char* routine) {
    {
        const std::scoped_lock guard(m_mutex);
        if (HandleEntry* found = entry(handle)) {
            if (type != nullptr && found->object->type != type) {
                return STATUS_OBJECT_TYPE_MISMATCH;
            }
            if ((mapAccess(access, *found->object->type) & ~found->access) != 0) {
                return STATUS_ACCESS_DENIED;
            }
            found->object->references++;
            *body = found->object->body();
            if (granted != nullptr) {
                *granted = found->access;
            }
            return STATUS_SUCCESS;
        }
    }
    breach(Rule::Handle, routine, fmt::format("handle {} is not open", fmt::ptr(handle)));
    return STATUS_INVALID_HANDLE;
}

std::vector<std::pair<std::string, std::vector<std::string>>> ObjectManager::leftOvers() const {
    const std::scoped_lock guard(m_mutex);
    std::vector<std::pair<std::string, std::vector<std::string>>> lines;
    for (std::size_t i = 0; i < m_handles.size(); i++) {
        if (m_handles[i].object != nullptr) {
            lines.emplace_back(
                fmt::format("handle {:#x} to a {}", (i + 1) * 4, describe(*m_handles[i].object)),
                m_handles[i].made.lines());
        }
    }
    for (const ObjectHeader* header = m_objects; header != nullptr; header = header->next) {
        if (header->type == &kThreadType && header->references == 1) {
            continue; // the machine's own reference
        }
        lines.emplace_back(
            fmt::format("a {}, {} reference(s)", describe(*header), header->references.load()),
            header->made.lines());
    }
    return lines;
}

} // namespace kelvane::nt
