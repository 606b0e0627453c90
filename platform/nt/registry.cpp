#include "platform/nt/registry.h"

#include "platform/nt/text.h"

#include <algorithm>
#include <cstring>

namespace kelvane::nt {

namespace {

// The next component of a path, taken off its front. Empty at the end.
std::u16string_view nextComponent(std::u16string_view& path) {
    while (!path.empty() && path.front() == u'\\') {
        path.remove_prefix(1);
    }
    const std::u16string_view component = path.substr(0, path.find(u'\\'));
    path.remove_prefix(component.size());
    return component;
}

} // namespace

RegistryValue* RegistryKey::find(std::u16string_view valueName) {
    const std::u16string wanted = upcase(valueName);
    const auto found = std::find_if(values.begin(), values.end(), [&](const RegistryValue& value) {
        return upcase(value.name) == wanted;
    });
    return found == values.end() ? nullptr : &*found;
}

std::u16string RegistryKey::path() const {
    const auto above = parent.lock();
    return above == nullptr ? name : above->path() + u"\\" + name;
}

Registry::Registry() : m_root(std::make_shared<RegistryKey>()) {
    create(u"\\Registry\\Machine\\System\\CurrentControlSet\\Services");
    create(u"\\Registry\\Machine\\System\\CurrentControlSet\\Enum");
    create(u"\\Registry\\Machine\\System\\CurrentControlSet\\Control\\Class");
    create(u"\\Registry\\Machine\\System\\CurrentControlSet\\Control\\DeviceClasses");
    create(u"\\Registry\\User");
}

std::shared_ptr<RegistryKey> Registry::open(const std::shared_ptr<RegistryKey>& root,
                                            std::u16string_view path) {
    const std::scoped_lock guard(m_mutex);
    std::shared_ptr<RegistryKey> key = root;
    for (auto component = nextComponent(path); !component.empty();
         component = nextComponent(path)) {
        const auto found = key->keys.find(upcase(component));
        if (found == key->keys.end()) {
            return nullptr;
        }
        key = found->second;
    }
    return key;
}

std::shared_ptr<RegistryKey> Registry::create(const std::shared_ptr<RegistryKey>& root,
                                              std::u16string_view path, bool& made) {
    const std::scoped_lock guard(m_mutex);
    std::shared_ptr<RegistryKey> key = root;
    made = false;
    for (auto component = nextComponent(path); !component.empty();
         component = nextComponent(path)) {
        auto& slot = key->keys[upcase(component)];
        made = slot == nullptr;
        if (made) {
            slot = std::make_shared<RegistryKey>();
            slot->name = component;
            slot->parent = key;
        }
        key = slot;
    }
    return key;
}

std::shared_ptr<RegistryKey> Registry::open(std::u16string_view path) {
    return open(m_root, path);
}

std::shared_ptr<RegistryKey> Registry::create(std::u16string_view path) {
    bool made;
    return create(m_root, path, made);
}

void Registry::set(std::u16string_view path, std::u16string_view name, ULONG type,
                   std::vector<std::byte> data) {
    const std::scoped_lock guard(m_mutex);
    const auto key = create(path);
    if (RegistryValue* value = key->find(name)) {
        value->type = type;
        value->data = std::move(data);
    } else {
        key->values.push_back({std::u16string(name), type, std::move(data)});
    }
}

void Registry::setDword(std::u16string_view path, std::u16string_view name, std::uint32_t value) {
    std::vector<std::byte> data(sizeof(value));
    std::memcpy(data.data(), &value, sizeof(value));
    set(path, name, REG_DWORD, std::move(data));
}

void Registry::setString(std::u16string_view path, std::u16string_view name,
                         std::u16string_view value) {
    std::vector<std::byte> data((value.size() + 1) * sizeof(char16_t)); // ends with a null
    std::memcpy(data.data(), value.data(), value.size() * sizeof(char16_t));
    set(path, name, REG_SZ, std::move(data));
}

void Registry::remove(std::u16string_view path, std::u16string_view name) {
    const std::scoped_lock guard(m_mutex);
    if (const auto key = open(path)) {
        const std::u16string wanted = upcase(name);
        std::erase_if(key->values,
                      [&](const RegistryValue& value) { return upcase(value.name) == wanted; });
    }
}

std::optional<RegistryValue> Registry::value(std::u16string_view path, std::u16string_view name) {
    const std::scoped_lock guard(m_mutex);
    const auto key = open(path);
    const RegistryValue* found = key == nullptr ? nullptr : key->find(name);
    return found == nullptr ? std::nullopt : std::optional(*found);
}

std::optional<std::uint32_t> Registry::dword(std::u16string_view path, std::u16string_view name) {
    const auto found = value(path, name);
    std::uint32_t number;
    if (!found || found->type != REG_DWORD || found->data.size() != sizeof(number)) {
        return std::nullopt;
    }
    std::memcpy(&number, found->data.data(), sizeof(number));
    return number;
}

std::optional<std::u16string> Registry::string(std::u16string_view path, std::u16string_view name) {
    const auto found = value(path, name);
    if (!found || found->type != REG_SZ) {
        return std::nullopt;
    }
    std::u16string text(found->data.size() / sizeof(char16_t), u'\0');
    std::memcpy(text.data(), found->data.data(), text.size() * sizeof(char16_t));
    return text.substr(0, text.find(u'\0'));
}

} // namespace kelvane::nt
