// The INF against the image that it installs: what the image publishes and reads, as it does so on
// this machine, is what the INF says.
#include "platform/nt/kernel.h"

#include "platform/nt/plug.h"
#include "tests/support/audio_machine.h"
#include "tests/support/stream_device.h"

#include <fmt/format.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <regex>
#include <set>

namespace kelvane::tests {
namespace {

std::string lower(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return text;
}

std::string trimmed(const std::string& text) {
    const auto begin = text.find_first_not_of(" \t\r");
    return begin == std::string::npos
               ? ""
               : text.substr(begin, text.find_last_not_of(" \t\r") - begin + 1);
}

using Faults = std::set<std::string>;

// "key = value,value", or values alone, with the quotes gone and the %strings% filled in.
struct Entry {
    std::string key;
    std::vector<std::string> values;
    const std::string& at(std::size_t i) const {
        static const std::string s_none;
        return i < values.size() ? values[i] : s_none;
    }
};

class Inf {
public:
    explicit Inf(const std::string& text) {
        std::vector<Entry>* section = nullptr;
        std::size_t place = 0;
        for (std::size_t end; (end = text.find('\n', place)) != std::string::npos;
             place = end + 1) {
            if (end == 0 || text[end - 1] != '\r') {
                faults.insert("a line doesn't end with CR LF");
            }
            const std::string line = uncommented(text.substr(place, end - place));
            if (line.empty()) {
                continue;
            }
            if (line.front() == '[' && line.back() == ']') {
                section = &m_sections[lower(line.substr(1, line.size() - 2))];
            } else if (section == nullptr) {
                faults.insert("an entry in no section: " + line);
            } else {
                section->push_back(entryOf(line));
            }
        }
        fillIn();
    }

    Faults faults;
    // Of a section that something names; a missing one is a fault.
    const std::vector<Entry>& section(const std::string& name) {
        const auto found = m_sections.find(lower(name));
        if (found == m_sections.end()) {
            faults.insert("no section [" + name + "]");
            return m_none;
        }
        m_named.insert(found->first);
        return found->second;
    }
    Entry entry(const std::string& name, const std::string& key) {
        for (const Entry& each : section(name)) {
            if (lower(each.key) == lower(key)) {
                return each;
            }
        }
        faults.insert(fmt::format("[{}] has no {}", name, key));
        return {};
    }
    void expect(const std::string& name, const std::string& key,
                const std::vector<std::string>& values) {
        if (entry(name, key).values != values) {
            faults.insert(fmt::format("[{}] {}", name, key));
        }
    }
    void findUnnamed() {
        for (const auto& [name, entries] : m_sections) {
            if (m_named.count(name) == 0) {
                faults.insert("nothing names [" + name + "]");
            }
        }
    }

private:
    static std::string uncommented(const std::string& line) {
        bool quoted = false;
        for (std::size_t i = 0; i < line.size(); ++i) {
            quoted = quoted != (line[i] == '"');
            if (line[i] == ';' && !quoted) {
                return trimmed(line.substr(0, i));
            }
        }
        return trimmed(line);
    }
    static Entry entryOf(const std::string& line) {
        Entry entry;
        std::string rest = line;
        if (const auto equals = line.find('='); equals != std::string::npos) {
            entry.key = trimmed(line.substr(0, equals));
            rest = line.substr(equals + 1);
        }
        std::string value;
        bool quoted = false;
        for (const char c : rest + ',') {
            if (c == '"') {
                quoted = !quoted;
            } else if (c == ',' && !quoted) {
                entry.values.push_back(trimmed(value));
                value.clear();
            } else {
                value += c;
            }
        }
        return entry;
    }
    void fillIn() {
        std::set<std::string> used;
        const auto fill = [&](std::string& text) {
            static const std::regex s_name("%([A-Za-z_.]+)%");
            for (std::smatch found; std::regex_search(text, found, s_name);) {
                const std::string name = found[1];
                used.insert(lower(name));
                const std::string value = entry("Strings", name).at(0);
                text = found.prefix().str() + value + found.suffix().str();
            }
        };
        for (auto& [name, entries] : m_sections) {
            for (Entry& each : entries) {
                if (name != "strings") {
                    fill(each.key);
                    std::for_each(each.values.begin(), each.values.end(), fill);
                }
            }
        }
        for (const Entry& each : section("Strings")) {
            if (used.count(lower(each.key)) == 0) {
                faults.insert("%" + each.key + "% is not used");
            }
        }
    }

    std::map<std::string, std::vector<Entry>> m_sections;
    std::set<std::string> m_named;
    const std::vector<Entry> m_none;
};

// What the image does when it runs.
struct Facts {
    std::set<std::string> interfaces; // "{category},reference"
    std::string transferFrames;       // that it sends when its key has no "UrbSize"
    std::string product;              // a device's whose clock it primes: a product of the maker's
};

Facts factsOf(const std::string& driver) {
    Facts facts;
    auto device = std::make_shared<StreamDevice>(std::initializer_list<Bytes>{
        streamInterface(1, {}), streamInterface(2, {.endpoint = 0x81})});
    AudioMachine machine(device, {.driver = driver});
    for (const nt::DeviceInterface& each : machine.machine().plug().interfaces()) {
        const std::string link = nt::toUtf8(each.link);
        facts.interfaces.insert(lower(link.substr(link.find('{'), 38)) + ',' +
                                nt::toUtf8(each.reference));
    }
    AudioPin pin(machine.filter(), 0, kPcm16);
    machine.recorder.transfers.clear();
    pin.run();
    facts.transferFrames = std::to_string(machine.recorder.on(0x01).at(0).lengths.size() / 8);
    facts.product =
        fmt::format("USB\\VID_{:04X}&PID_{:04X}", KELVANE_VENDOR_ID, KELVANE_PRIMED_PRODUCT_ID);
    return facts;
}

void checkModels(Inf& inf, const Facts& facts) {
    const Entry maker =
        inf.section("Manufacturer").empty() ? Entry{} : inf.section("Manufacturer").front();
    std::set<std::string> devices;
    for (const Entry& model : inf.section(maker.at(0) + '.' + maker.at(1))) {
        if (model.at(0) != "Kelvane" || !devices.insert(model.at(1)).second ||
            !model.at(1).starts_with(facts.product.substr(0, facts.product.find("PID_") + 4))) {
            inf.faults.insert("model " + model.at(1));
        }
    }
    if (maker.at(1).find("NTamd64") != 0 || devices.count(facts.product) == 0) {
        inf.faults.insert("models");
    }
}

void checkInstall(Inf& inf) {
    inf.expect("Kelvane.NT", "Include", {"ks.inf", "wdmaudio.inf"});
    inf.expect("Kelvane.NT", "Needs", {"KS.Registration", "WDMAUDIO.Registration"});
    const auto& files = inf.section(inf.entry("Kelvane.NT", "CopyFiles").at(0));
    if (files.size() != 1 || files[0].at(0) != "kelvane.sys") {
        inf.faults.insert("files");
    }
    inf.expect("SourceDisksFiles", "kelvane.sys", {"1"});
    inf.entry("SourceDisksNames", "1");
    inf.expect("DestinationDirs", "DefaultDestDir", {"13"});
}

void checkInterfaces(Inf& inf, const Facts& facts) {
    std::set<std::string> interfaces;
    for (const Entry& each : inf.section("Kelvane.NT.Interfaces")) {
        interfaces.insert(lower(each.at(0)) + ',' + each.at(1));
        inf.section(inf.entry(each.at(2), "AddReg").at(0));
    }
    if (interfaces != facts.interfaces) {
        inf.faults.insert("interfaces");
    }
}

void checkService(Inf& inf) {
    inf.expect("Kelvane.NT.Services", "AddService", {"kelvane", "0x00000002", "Kelvane.Service"});
    inf.expect("Kelvane.Service", "ServiceType", {"1"});
    inf.expect("Kelvane.Service", "StartType", {"3"});
    inf.expect("Kelvane.Service", "ErrorControl", {"1"});
    inf.expect("Kelvane.Service", "ServiceBinary", {"%13%\\kelvane.sys"});
}

// The values of a section that the driver reads: names and numbers.
std::map<std::string, std::string> numbersOf(Inf& inf, const std::string& section) {
    std::map<std::string, std::string> numbers;
    for (const Entry& each : inf.section(section)) {
        if (each.at(0) != "HKR") {
            inf.faults.insert("a key outside of its own: " + each.at(0));
        }
        if (each.at(3) == "0x00010001") { // REG_DWORD
            numbers[each.at(1) + '\\' + each.at(2)] = each.at(4);
        }
    }
    return numbers;
}

Faults faultsOf(const std::string& text, const Facts& facts) {
    Inf inf(text);
    inf.expect("Version", "Signature", {"$Windows NT$"});
    inf.expect("Version", "Class", {"MEDIA"});
    inf.expect("Version", "ClassGuid", {"{4D36E96C-E325-11CE-BFC1-08002BE10318}"});
    inf.expect("Version", "CatalogFile", {"kelvane.cat"});
    inf.expect("Version", "PnpLockdown", {"1"});
    const Entry version = inf.entry("Version", "DriverVer");
    if (!std::regex_match(version.at(0), std::regex("[01]\\d/[0-3]\\d/20\\d\\d")) ||
        version.at(1) != KELVANE_VERSION ".0") {
        inf.faults.insert("version");
    }
    checkModels(inf, facts);
    checkInstall(inf);
    checkInterfaces(inf, facts);
    checkService(inf);
    using Numbers = std::map<std::string, std::string>;
    if (numbersOf(inf, inf.entry("Kelvane.NT", "AddReg").at(0)) !=
        Numbers{{"\\UrbSize", facts.transferFrames}}) {
        inf.faults.insert("driver key");
    }
    if (numbersOf(inf, inf.entry("Kelvane.Service", "AddReg").at(0)) !=
        Numbers{{"Parameters\\DontHideVexlinkPorts", "0"}}) {
        inf.faults.insert("service key");
    }
    inf.findUnnamed(); // a section of co-installers, for one
    return inf.faults;
}

std::string infText() {
    const auto build = std::filesystem::path(client::defaultDriver()).parent_path().parent_path();
    std::ifstream file(build / "packaging/windows/kelvane.inf", std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

TEST(Inf, SaysWhatTheImageDoes) {
    EXPECT_EQ(faultsOf(infText(), factsOf(client::defaultDriver())), Faults());
}

TEST(Inf, EachFaultIsFound) {
    const struct {
        const char *from, *to, *fault;
    } cases[] = {
        {"\r\n", "\n", "a line doesn't end with CR LF"},
        {"= MEDIA", "= SYSTEM", "[Version] Class"},
        {"PnpLockdown = 1", "", "[Version] has no PnpLockdown"},
        {"DriverVer   = ", "DriverVer   = 2026-", "version"},
        {KELVANE_VERSION ".0", KELVANE_VERSION ".1", "version"},
        {"PID_0002", "PID_0001", "model USB\\VID_1209&PID_0001"},
        {"PID_0002", "PID_0009", "models"},
        {"VID_1209&PID_0004", "VID_1208&PID_0004", "model USB\\VID_1208&PID_0004"},
        {"ks.inf,", "", "[Kelvane.NT] Include"},
        {",WDMAUDIO.Registration", "", "[Kelvane.NT] Needs"},
        {"[Kelvane.Files]", "[Kelvane.File]", "no section [Kelvane.Files]"},
        {"CopyFiles = Kelvane.Files", "CopyFiles = Kelvane.Parameters", "files"},
        {"= \"GLOBAL\"", "= \"LOCAL\"", "interfaces"},
        {"\"{65E8773E", "\"{65E8773F", "interfaces"},
        {"AddInterface = %KSCATEGORY_CAPTURE%,%Reference%,Kelvane.Filter\r\n", "", "interfaces"},
        {"kelvane,0x00000002", "kelvan,0x00000002", "[Kelvane.NT.Services] AddService"},
        {"StartType     = 3", "StartType     = 0", "[Kelvane.Service] StartType"},
        {"%13%\\kelvane", "%12%\\kelvane", "[Kelvane.Service] ServiceBinary"},
        {"UrbSize,0x00010001,10", "UrbSize,0x00010001,4", "driver key"},
        {"UrbSize,0x00010001,10", "UrbSize,,10", "driver key"},
        {"HKR,Parameters,", "HKLM,Parameters,", "a key outside of its own: HKLM"},
        {"DontHideVexlinkPorts", "HideVexlinkPorts", "service key"},
        {"[Strings]", "[Kelvane.NT.CoInstallers]\r\n[Strings]",
         "nothing names [kelvane.nt.coinstallers]"},
        {"Disk  ", "Disc  ", "[Strings] has no Disk"},
    };
    const std::string good = infText();
    const Facts facts = factsOf(client::defaultDriver());
    for (const auto& each : cases) {
        SCOPED_TRACE(each.fault);
        std::string text = good;
        const auto at = text.find(each.from);
        ASSERT_NE(at, std::string::npos) << each.from;
        text.replace(at, std::string_view(each.from).size(), each.to);
        const Faults faults = faultsOf(text, facts);
        EXPECT_EQ(faults.count(each.fault), 1U) << testing::PrintToString(faults);
    }
}

} // namespace
} // namespace kelvane::tests
