#include "platform/nt/symbols.h"

#include "platform/nt/backtrace.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstdlib>
#include <cxxabi.h>
#include <dlfcn.h>
#include <elf.h>
#include <fstream>
#include <iterator>
#include <link.h>
#include <map>
#include <memory>
#include <mutex>
#include <vector>

namespace kelvane::nt {

namespace {

std::mutex s_mutex; // of all here

struct NamedCode {
    std::size_t bytes;
    std::string module;
};
std::map<const std::byte*, NamedCode> s_named; // by where it begins

struct Function {
    std::uintptr_t begin;
    std::uintptr_t size;
    std::string name;
};

// The functions of one ELF file, by address: the static ones too, which dladdr does not know.
std::vector<Function> readFunctions(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    const std::string bytes{std::istreambuf_iterator<char>(file), {}};
    std::vector<Function> functions;
    Elf64_Ehdr header;
    if (bytes.size() < sizeof(header)) {
        return functions;
    }
    bytes.copy(reinterpret_cast<char*>(&header), sizeof(header));
    std::vector<Elf64_Shdr> sections(header.e_shnum);
    const std::size_t length = sections.size() * sizeof(Elf64_Shdr);
    if (header.e_shoff + length > bytes.size()) {
        return functions;
    }
    bytes.copy(reinterpret_cast<char*>(sections.data()), length, header.e_shoff);
    for (const Elf64_Shdr& section : sections) {
        if (section.sh_type != SHT_SYMTAB || section.sh_link >= sections.size()) {
            continue;
        }
        const Elf64_Shdr& names = sections[section.sh_link];
        for (std::uintptr_t at = 0; at + sizeof(Elf64_Sym) <= section.sh_size;
             at += sizeof(Elf64_Sym)) {
            Elf64_Sym symbol;
            if (section.sh_offset + at + sizeof(symbol) > bytes.size()) {
                break;
            }
            bytes.copy(reinterpret_cast<char*>(&symbol), sizeof(symbol), section.sh_offset + at);
            const std::uintptr_t name = names.sh_offset + symbol.st_name;
            if (ELF64_ST_TYPE(symbol.st_info) == STT_FUNC && symbol.st_value != 0 &&
                name < bytes.size()) {
                functions.push_back({symbol.st_value, symbol.st_size, bytes.c_str() + name});
            }
        }
    }
    std::sort(functions.begin(), functions.end(),
              [](const Function& left, const Function& right) { return left.begin < right.begin; });
    return functions;
}

const std::vector<Function>& functionsOf(const std::string& path) {
    static std::map<std::string, std::vector<Function>> known;
    const auto found = known.find(path);
    return found != known.end() ? found->second
                                : known.emplace(path, readFunctions(path)).first->second;
}

std::string demangle(const std::string& name) {
    int status = 0;
    const std::unique_ptr<char, decltype(&std::free)> text(
        abi::__cxa_demangle(name.c_str(), nullptr, nullptr, &status), &std::free);
    return status == 0 ? text.get() : name;
}

} // namespace

void nameCode(const void* begin, std::size_t bytes, const std::string& module) {
    const std::scoped_lock guard(s_mutex);
    s_named[static_cast<const std::byte*>(begin)] = {bytes, module};
}

void forgetCodeName(const void* begin) {
    const std::scoped_lock guard(s_mutex);
    s_named.erase(static_cast<const std::byte*>(begin));
}

Symbol symbolOf(const void* address) {
    const std::scoped_lock guard(s_mutex);
    Symbol symbol;
    const auto named = s_named.upper_bound(static_cast<const std::byte*>(address));
    if (named != s_named.begin()) {
        const auto& [begin, code] = *std::prev(named);
        const auto place = static_cast<std::size_t>(static_cast<const std::byte*>(address) - begin);
        if (place < code.bytes) {
            symbol.module = code.module;
            symbol.place = place;
            return symbol;
        }
    }
    Dl_info info{};
    link_map* module = nullptr;
    if (dladdr1(address, &info, reinterpret_cast<void**>(&module), RTLD_DL_LINKMAP) == 0) {
        return symbol;
    }
    const std::string path = module->l_name[0] == '\0' ? "/proc/self/exe" : module->l_name;
    const std::string file = info.dli_fname;
    symbol.module = file.substr(file.rfind('/') + 1);
    symbol.place = reinterpret_cast<std::uintptr_t>(address) - module->l_addr;
    const auto& functions = functionsOf(path);
    auto next = std::upper_bound(
        functions.begin(), functions.end(), symbol.place,
        [](std::uintptr_t place, const Function& function) { return place < function.begin; });
    if (next != functions.begin() &&
        symbol.place - std::prev(next)->begin < std::prev(next)->size) {
        symbol.function = demangle(std::prev(next)->name);
        symbol.offset = symbol.place - std::prev(next)->begin;
    } else if (info.dli_sname != nullptr) {
        symbol.function = demangle(info.dli_sname);
        symbol.offset = reinterpret_cast<std::uintptr_t>(address) -
                        reinterpret_cast<std::uintptr_t>(info.dli_saddr);
    }
    return symbol;
}

std::string describeAddress(const void* address) {
    const Symbol symbol = symbolOf(address);
    if (symbol.module.empty()) {
        return fmt::format("{}", fmt::ptr(address));
    }
    if (symbol.function.empty()) {
        return fmt::format("{}+{:#x}", symbol.module, symbol.place);
    }
    return fmt::format("{}+{:#x} ({}+{:#x})", symbol.function, symbol.offset, symbol.module,
                       symbol.place);
}

} // namespace kelvane::nt
