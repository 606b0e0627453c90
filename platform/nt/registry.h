// The machine's registry: keys by path, values with their type. Names are looked up without regard
// to case and kept as they were first written.
#pragma once

#include "platform/nt/kernel.h"

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace kelvane::nt {

struct RegistryValue {
    std::u16string name;
    ULONG type = REG_NONE;
    std::vector<std::byte> data;
};

class RegistryKey {
public:
    std::u16string name; // one component
    std::weak_ptr<RegistryKey> parent;
    std::map<std::u16string, std::shared_ptr<RegistryKey>> keys; // by upper-case name
    std::vector<RegistryValue> values;                           // in the order of their making
    bool deleted = false;

    RegistryValue* find(std::u16string_view valueName);
    std::u16string path() const;
};

class Registry {
public:
    Registry();

    // Paths look like "\Registry\Machine\System\...".
    std::shared_ptr<RegistryKey> open(std::u16string_view path);
    std::shared_ptr<RegistryKey> create(std::u16string_view path);
    // Relative to a key. `made` tells whether the last component is new; its parents must be there.
    std::shared_ptr<RegistryKey> open(const std::shared_ptr<RegistryKey>& root,
                                      std::u16string_view path);
    std::shared_ptr<RegistryKey> create(const std::shared_ptr<RegistryKey>& root,
                                        std::u16string_view path, bool& made);

    // What a set-up program does: any missing key is made.
    void set(std::u16string_view path, std::u16string_view name, ULONG type,
             std::vector<std::byte> data);
    void setDword(std::u16string_view path, std::u16string_view name, std::uint32_t value);
    void setString(std::u16string_view path, std::u16string_view name, std::u16string_view value);
    void remove(std::u16string_view path, std::u16string_view name);
    // Empty when there is no such value, or one of another type.
    std::optional<RegistryValue> value(std::u16string_view path, std::u16string_view name);
    std::optional<std::uint32_t> dword(std::u16string_view path, std::u16string_view name);
    std::optional<std::u16string> string(std::u16string_view path, std::u16string_view name);

    // Guards every key's contents.
    std::recursive_mutex& mutex() { return m_mutex; }

private:
    std::recursive_mutex m_mutex;
    std::shared_ptr<RegistryKey> m_root;
};

} // namespace kelvane::nt
