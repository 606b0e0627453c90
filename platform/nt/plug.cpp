#include "platform/nt/plug.h"

#include "platform/nt/devices.h"
#include "platform/nt/machine.h"
#include "platform/nt/pnp.h"
#include "platform/nt/text.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstring>

namespace kelvane::nt {

namespace {

constexpr char16_t kClassKey[] =
    u"\\Registry\\Machine\\System\\CurrentControlSet\\Control\\Class\\";
constexpr char16_t kInterfaceKey[] =
    u"\\Registry\\Machine\\System\\CurrentControlSet\\Control\\DeviceClasses\\";
// The class of sound, video and game controllers, which every device of this machine belongs to.
constexpr GUID kMediaClass = {
    0x4d36e96c, 0xe325, 0x11ce, {0xbf, 0xc1, 0x08, 0x00, 0x2b, 0xe1, 0x03, 0x18}};

bool sameGuid(const GUID& left, const GUID& right) {
    return std::memcmp(&left, &right, sizeof(GUID)) == 0;
}

// One ID that the bus reports of the device, or nothing.
std::u16string queryId(DEVICE_OBJECT* pdo, BUS_QUERY_ID_TYPE type) {
    IO_STACK_LOCATION location{};
    location.MinorFunction = IRP_MN_QUERY_ID;
    location.Parameters.QueryId.IdType = type;
    ULONG_PTR information = 0;
    if (!NT_SUCCESS(sendPnp(pdo, location, &information)) || information == 0) {
        return u"";
    }
    auto* text = reinterpret_cast<WCHAR*>(information);
    std::u16string id = copyString(text);
    ExFreePool(text);
    return id;
}

} // namespace

std::u16string guidText(const GUID& guid) {
    const auto* tail = guid.Data4;
    return toUtf16(
        fmt::format("{{{:08x}-{:04x}-{:04x}-{:02x}{:02x}-{:02x}{:02x}{:02x}{:02x}{:02x}{:02x}}}",
                    static_cast<unsigned>(guid.Data1), guid.Data2, guid.Data3, tail[0], tail[1],
                    tail[2], tail[3], tail[4], tail[5], tail[6], tail[7]));
}

DeviceNode& Plug::node(DEVICE_OBJECT* pdo) {
    if (DeviceNode* known = findNode(pdo)) {
        return *known;
    }
    std::u16string device = queryId(pdo, BusQueryDeviceID);
    std::u16string instance = queryId(pdo, BusQueryInstanceID);
    const std::scoped_lock guard(m_mutex);
    if (device.empty()) {
        device = u"ROOT\\UNKNOWN";
    }
    if (instance.empty()) {
        instance = toUtf16(fmt::format("{:04}", m_unnamedDevices++));
    }
    DeviceNode& made = m_nodes[pdo];
    made.instance = device + u"\\" + instance;
    // The same device gets the same software key each time that it is plugged in.
    const std::u16string enumKey =
        u"\\Registry\\Machine\\System\\CurrentControlSet\\Enum\\" + made.instance;
    Registry& registry = Machine::current().registry();
    std::u16string driver = registry.string(enumKey, u"Driver").value_or(u"");
    if (driver.empty()) {
        driver = guidText(kMediaClass) + toUtf16(fmt::format("\\{:04}", m_softwareKeys++));
        registry.setString(enumKey, u"Driver", driver);
    }
    registry.create(enumKey + u"\\Device Parameters");
    made.driverKey = kClassKey + driver;
    registry.create(made.driverKey);
    return made;
}

DeviceNode* Plug::findNode(DEVICE_OBJECT* pdo) {
    const std::scoped_lock guard(m_mutex);
    const auto found = m_nodes.find(pdo);
    return found == m_nodes.end() ? nullptr : &found->second;
}

void Plug::forget(DEVICE_OBJECT* pdo) {
    const std::scoped_lock guard(m_mutex);
    disableInterfaces(pdo);
    m_interfaces.remove_if([&](const DeviceInterface& known) { return known.pdo == pdo; });
    m_nodes.erase(pdo);
}

void Plug::filesClosed(DEVICE_OBJECT* pdo) {
    DeviceNode* node = findNode(pdo);
    if (node != nullptr && node->removePending.exchange(false)) {
        finishRemoval(pdo);
    }
}

DeviceInterface& Plug::addInterface(const GUID& category, DEVICE_OBJECT* pdo,
                                    const std::u16string& reference) {
    std::u16string link = u"\\??\\" + node(pdo).instance + u"#" + guidText(category);
    std::replace(link.begin() + 4, link.end(), u'\\', u'#');
    if (!reference.empty()) {
        link += u"\\" + reference;
    }
    const std::scoped_lock guard(m_mutex);
    if (DeviceInterface* known = findInterface(link)) {
        return *known;
    }
    m_interfaces.push_back({category, pdo, reference, link});
    Machine::current().registry().create(keyPath(m_interfaces.back()) + u"\\Device Parameters");
    return m_interfaces.back();
}

DeviceInterface* Plug::findInterface(const std::u16string& link) {
    const std::scoped_lock guard(m_mutex);
    const std::u16string wanted = upcase(link);
    const auto found =
        std::find_if(m_interfaces.begin(), m_interfaces.end(),
                     [&](const DeviceInterface& known) { return upcase(known.link) == wanted; });
    return found == m_interfaces.end() ? nullptr : &*found;
}

std::vector<const DeviceInterface*> Plug::interfaces(const GUID& category, DEVICE_OBJECT* pdo) {
    const std::scoped_lock guard(m_mutex);
    std::vector<const DeviceInterface*> found;
    for (const DeviceInterface& known : m_interfaces) {
        if (sameGuid(known.category, category) && (pdo == nullptr || known.pdo == pdo)) {
            found.push_back(&known);
        }
    }
    return found;
}

void Plug::disableInterfaces(DEVICE_OBJECT* pdo) {
    const std::scoped_lock guard(m_mutex);
    for (const DeviceInterface& known : m_interfaces) {
        if (known.pdo == pdo && known.enabled) {
            UNICODE_STRING link = viewString(known.link);
            IoSetDeviceInterfaceState(&link, FALSE);
        }
    }
}

// "...\DeviceClasses\{guid}\##?#USB#VID...#{guid}\#GLOBAL"
std::u16string Plug::keyPath(const DeviceInterface& known) {
    const std::size_t referenceAt = known.link.find(u'\\', 4);
    std::u16string device = known.link.substr(4, referenceAt - 4);
    return kInterfaceKey + guidText(known.category) + u"\\##?#" + device + u"\\#" + known.reference;
}

} // namespace kelvane::nt
