// Registry keys by handle.
#include "platform/nt/kernel.h"

#include "platform/nt/keys.h"
#include "platform/nt/machine.h"
#include "platform/nt/objects.h"
#include "platform/nt/text.h"

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <memory>
#include <new>

namespace kelvane::nt {

namespace {

using KeyPointer = std::shared_ptr<RegistryKey>;

// Reference to a handle's key for the length of one call, which needs PASSIVE_LEVEL.
class HeldKey {
public:
    HeldKey(HANDLE handle, ACCESS_MASK access, const char* routine) {
        if (!irqlExactly(PASSIVE_LEVEL, routine)) {
            m_status = STATUS_UNSUCCESSFUL;
            return;
        }
        m_status = Machine::current().objects().referenceByHandle(handle, &kKeyType, access,
                                                                  &m_body, nullptr, routine);
        if (NT_SUCCESS(m_status) && key()->deleted) {
            m_status = STATUS_KEY_DELETED;
        }
    }
    ~HeldKey() {
        if (m_body != nullptr) {
            Machine::current().objects().dereference(m_body, "ZwClose");
        }
    }
    HeldKey(const HeldKey&) = delete;
    HeldKey& operator=(const HeldKey&) = delete;

    NTSTATUS status() const { return m_status; }
    const KeyPointer& key() const { return *static_cast<KeyPointer*>(m_body); }

private:
    void* m_body = nullptr;
    NTSTATUS m_status;
};

void destroyKey(void* body) {
    static_cast<KeyPointer*>(body)->~KeyPointer();
}

// Fills what fits of a structure whose fixed part is followed by `tail`, as every query does.
NTSTATUS answer(const void* fixed, std::size_t fixedBytes, const void* tail, std::size_t tailBytes,
                void* buffer, ULONG length, ULONG* resultLength) {
    const std::size_t needed = fixedBytes + tailBytes;
    *resultLength = static_cast<ULONG>(needed);
    if (length < fixedBytes) {
        return STATUS_BUFFER_TOO_SMALL;
    }
    std::memcpy(buffer, fixed, fixedBytes);
    const std::size_t room = std::min<std::size_t>(length - fixedBytes, tailBytes);
    if (tail != nullptr) {
        std::memcpy(static_cast<std::byte*>(buffer) + fixedBytes, tail, room);
    }
    return needed > length ? STATUS_BUFFER_OVERFLOW : STATUS_SUCCESS;
}

NTSTATUS describeValue(const RegistryValue& value, KEY_VALUE_INFORMATION_CLASS kind, void* buffer,
                       ULONG length, ULONG* resultLength) {
    const auto dataBytes = static_cast<ULONG>(value.data.size());
    const auto nameBytes = static_cast<ULONG>(value.name.size() * sizeof(WCHAR));
    if (kind == KeyValuePartialInformation) {
        const KEY_VALUE_PARTIAL_INFORMATION fixed{0, value.type, dataBytes, {}};
        return answer(&fixed, offsetof(KEY_VALUE_PARTIAL_INFORMATION, Data), value.data.data(),
                      dataBytes, buffer, length, resultLength);
    }
    if (kind == KeyValueBasicInformation) {
        const KEY_VALUE_BASIC_INFORMATION fixed{0, value.type, nameBytes, {}};
        return answer(&fixed, offsetof(KEY_VALUE_BASIC_INFORMATION, Name), value.name.data(),
                      nameBytes, buffer, length, resultLength);
    }
    if (kind == KeyValueFullInformation) {
        constexpr ULONG kName = offsetof(KEY_VALUE_FULL_INFORMATION, Name);
        const ULONG dataOffset = (kName + nameBytes + 3) / 4 * 4;
        const KEY_VALUE_FULL_INFORMATION fixed{0, value.type, dataOffset, dataBytes, nameBytes, {}};
        std::vector<std::byte> tail(dataOffset - kName + dataBytes);
        std::memcpy(tail.data(), value.name.data(), nameBytes);
        std::copy(value.data.begin(), value.data.end(), tail.begin() + (dataOffset - kName));
        return answer(&fixed, kName, tail.data(), tail.size(), buffer, length, resultLength);
    }
    return STATUS_INVALID_PARAMETER;
}

NTSTATUS describeKey(const RegistryKey& key, KEY_INFORMATION_CLASS kind, void* buffer, ULONG length,
                     ULONG* resultLength) {
    const auto nameBytes = static_cast<ULONG>(key.name.size() * sizeof(WCHAR));
    if (kind == KeyBasicInformation) {
        KEY_BASIC_INFORMATION fixed{};
        fixed.NameLength = nameBytes;
        return answer(&fixed, offsetof(KEY_BASIC_INFORMATION, Name), key.name.data(), nameBytes,
                      buffer, length, resultLength);
    }
    if (kind == KeyFullInformation) {
        KEY_FULL_INFORMATION fixed{};
        fixed.ClassOffset = offsetof(KEY_FULL_INFORMATION, Class);
        fixed.SubKeys = static_cast<ULONG>(key.keys.size());
        fixed.Values = static_cast<ULONG>(key.values.size());
        for (const auto& [folded, child] : key.keys) {
            fixed.MaxNameLen =
                std::max(fixed.MaxNameLen, static_cast<ULONG>(child->name.size() * sizeof(WCHAR)));
        }
        for (const RegistryValue& value : key.values) {
            fixed.MaxValueNameLen = std::max(fixed.MaxValueNameLen,
                                             static_cast<ULONG>(value.name.size() * sizeof(WCHAR)));
            fixed.MaxValueDataLen =
                std::max(fixed.MaxValueDataLen, static_cast<ULONG>(value.data.size()));
        }
        return answer(&fixed, offsetof(KEY_FULL_INFORMATION, Class), nullptr, 0, buffer, length,
                      resultLength);
    }
    return STATUS_INVALID_PARAMETER;
}

NTSTATUS openOrCreate(HANDLE* handle, ACCESS_MASK access, const OBJECT_ATTRIBUTES& attributes,
                      bool create, ULONG* disposition, const char* routine) {
    if (!irqlExactly(PASSIVE_LEVEL, routine)) {
        return STATUS_UNSUCCESSFUL;
    }
    *handle = nullptr;
    Registry& registry = Machine::current().registry();
    const std::u16string path =
        attributes.ObjectName == nullptr ? u"" : copyString(*attributes.ObjectName);
    KeyPointer root = registry.open(u"");
    if (attributes.RootDirectory != nullptr) {
        const HeldKey held(attributes.RootDirectory, 0, routine);
        if (!NT_SUCCESS(held.status())) {
            return held.status();
        }
        root = held.key();
    } else if (!path.starts_with(u'\\')) {
        return STATUS_OBJECT_PATH_SYNTAX_BAD;
    }
    bool made = false;
    KeyPointer key = registry.open(root, path);
    if (key == nullptr && create) {
        // Only the last component may be missing.
        const std::size_t last = path.rfind(u'\\');
        const auto parent = registry.open(root, last == path.npos ? u"" : path.substr(0, last));
        key = parent == nullptr ? nullptr : registry.create(root, path, made);
    }
    if (key == nullptr) {
        return STATUS_OBJECT_NAME_NOT_FOUND;
    }
    if (disposition != nullptr) {
        *disposition = made ? REG_CREATED_NEW_KEY : REG_OPENED_EXISTING_KEY;
    }
    *handle = openKey(key, access);
    return STATUS_SUCCESS;
}

} // namespace

_OBJECT_TYPE kKeyType{
    "registry key", nullptr, destroyKey, {KEY_READ, KEY_WRITE, KEY_EXECUTE, KEY_ALL_ACCESS}};

HANDLE openKey(const std::shared_ptr<RegistryKey>& key, ACCESS_MASK access) {
    ObjectManager& objects = Machine::current().objects();
    void* body = objects.create(kKeyType, sizeof(KeyPointer));
    new (body) KeyPointer(key);
    const HANDLE handle = objects.open(body, mapAccess(access, kKeyType));
    objects.dereference(body, "ZwOpenKey");
    return handle;
}

} // namespace kelvane::nt

using namespace kelvane::nt;

extern "C" {

NTSTATUS NTAPI ZwOpenKey(PHANDLE KeyHandle, ACCESS_MASK DesiredAccess,
                         POBJECT_ATTRIBUTES ObjectAttributes) {
    return openOrCreate(KeyHandle, DesiredAccess, *ObjectAttributes, false, nullptr, __func__);
}

NTSTATUS NTAPI ZwCreateKey(PHANDLE KeyHandle, ACCESS_MASK DesiredAccess,
                           POBJECT_ATTRIBUTES ObjectAttributes, ULONG, PUNICODE_STRING, ULONG,
                           PULONG Disposition) {
    return openOrCreate(KeyHandle, DesiredAccess, *ObjectAttributes, true, Disposition, __func__);
}

NTSTATUS NTAPI ZwQueryValueKey(HANDLE KeyHandle, PUNICODE_STRING ValueName,
                               KEY_VALUE_INFORMATION_CLASS KeyValueInformationClass,
                               PVOID KeyValueInformation, ULONG Length, PULONG ResultLength) {
    const HeldKey held(KeyHandle, KEY_QUERY_VALUE, __func__);
    if (!NT_SUCCESS(held.status())) {
        return held.status();
    }
    const std::scoped_lock guard(Machine::current().registry().mutex());
    const RegistryValue* value = held.key()->find(copyString(*ValueName));
    if (value == nullptr) {
        return STATUS_OBJECT_NAME_NOT_FOUND;
    }
    return describeValue(*value, KeyValueInformationClass, KeyValueInformation, Length,
                         ResultLength);
}

NTSTATUS NTAPI ZwEnumerateValueKey(HANDLE KeyHandle, ULONG Index,
                                   KEY_VALUE_INFORMATION_CLASS KeyValueInformationClass,
                                   PVOID KeyValueInformation, ULONG Length, PULONG ResultLength) {
    const HeldKey held(KeyHandle, KEY_QUERY_VALUE, __func__);
    if (!NT_SUCCESS(held.status())) {
        return held.status();
    }
    const std::scoped_lock guard(Machine::current().registry().mutex());
    if (Index >= held.key()->values.size()) {
        return STATUS_NO_MORE_ENTRIES;
    }
    return describeValue(held.key()->values[Index], KeyValueInformationClass, KeyValueInformation,
                         Length, ResultLength);
}

NTSTATUS NTAPI ZwEnumerateKey(HANDLE KeyHandle, ULONG Index,
                              KEY_INFORMATION_CLASS KeyInformationClass, PVOID KeyInformation,
                              ULONG Length, PULONG ResultLength) {
    const HeldKey held(KeyHandle, KEY_ENUMERATE_SUB_KEYS, __func__);
    if (!NT_SUCCESS(held.status())) {
        return held.status();
    }
    const std::scoped_lock guard(Machine::current().registry().mutex());
    if (Index >= held.key()->keys.size()) {
        return STATUS_NO_MORE_ENTRIES;
    }
    return describeKey(*std::next(held.key()->keys.begin(), Index)->second, KeyInformationClass,
                       KeyInformation, Length, ResultLength);
}

NTSTATUS NTAPI ZwQueryKey(HANDLE KeyHandle, KEY_INFORMATION_CLASS KeyInformationClass,
                          PVOID KeyInformation, ULONG Length, PULONG ResultLength) {
    const HeldKey held(KeyHandle, KEY_QUERY_VALUE, __func__);
    if (!NT_SUCCESS(held.status())) {
        return held.status();
    }
    const std::scoped_lock guard(Machine::current().registry().mutex());
    return describeKey(*held.key(), KeyInformationClass, KeyInformation, Length, ResultLength);
}

NTSTATUS NTAPI ZwSetValueKey(HANDLE KeyHandle, PUNICODE_STRING ValueName, ULONG, ULONG Type,
                             PVOID Data, ULONG DataSize) {
    const HeldKey held(KeyHandle, KEY_SET_VALUE, __func__);
    if (!NT_SUCCESS(held.status())) {
        return held.status();
    }
    const auto* bytes = static_cast<const std::byte*>(Data);
    RegistryValue value{copyString(*ValueName), Type, {bytes, bytes + DataSize}};
    const std::scoped_lock guard(Machine::current().registry().mutex());
    if (RegistryValue* known = held.key()->find(value.name)) {
        known->type = Type;
        known->data = std::move(value.data);
    } else {
        held.key()->values.push_back(std::move(value));
    }
    return STATUS_SUCCESS;
}

NTSTATUS NTAPI ZwDeleteValueKey(HANDLE KeyHandle, PUNICODE_STRING ValueName) {
    const HeldKey held(KeyHandle, KEY_SET_VALUE, __func__);
    if (!NT_SUCCESS(held.status())) {
        return held.status();
    }
    const std::scoped_lock guard(Machine::current().registry().mutex());
    auto& values = held.key()->values;
    const RegistryValue* known = held.key()->find(copyString(*ValueName));
    if (known == nullptr) {
        return STATUS_OBJECT_NAME_NOT_FOUND;
    }
    values.erase(values.begin() + (known - values.data()));
    return STATUS_SUCCESS;
}

NTSTATUS NTAPI ZwDeleteKey(HANDLE KeyHandle) {
    const HeldKey held(KeyHandle, DELETE, __func__);
    if (!NT_SUCCESS(held.status())) {
        return held.status();
    }
    const std::scoped_lock guard(Machine::current().registry().mutex());
    const auto parent = held.key()->parent.lock();
    if (parent == nullptr || !held.key()->keys.empty()) {
        return STATUS_CANNOT_DELETE;
    }
    held.key()->deleted = true;
    parent->keys.erase(upcase(held.key()->name));
    return STATUS_SUCCESS;
}

NTSTATUS NTAPI ZwFlushKey(HANDLE KeyHandle) {
    return HeldKey(KeyHandle, 0, __func__).status();
}
}
