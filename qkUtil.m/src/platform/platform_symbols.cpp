// Address names from /proc/self/maps, dladdr and the addr2line tool.
#include "platform/platform_symbols.h"

#include "platform/platform_process.h"

#include <cxxabi.h>
#include <dlfcn.h>
#include <elf.h>
#include <link.h>

#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <map>
#include <sstream>

namespace qk::platform {

namespace {

struct Mapping {
    uintptr_t from, to;
    bool readable, executable;
};

std::vector<Mapping> readMappings() {
    std::vector<Mapping> maps;
    std::ifstream in("/proc/self/maps");
    std::string line;
    while (std::getline(in, line)) {
        uintptr_t from = 0, to = 0;
        char perms[8] = {};
        if (std::sscanf(line.c_str(), "%" SCNxPTR "-%" SCNxPTR " %7s", &from, &to, perms) == 3) {
            maps.push_back({from, to, perms[0] == 'r', perms[2] == 'x'});
        }
    }
    return maps;
}

Mapping const* mappingOf(std::vector<Mapping> const& maps, uintptr_t a) {
    for (auto const& m : maps) {
        if (a >= m.from && a < m.to) return &m;
    }
    return nullptr;
}

// A printable text of 1 to 200 bytes ending within the mapping, or "".
// It reads whatever lies there, which a sanitizer would take for a stray
// access.
__attribute__((no_sanitize("address"))) std::string textAt(Mapping const& m, uintptr_t a) {
    std::string text;
    for (uintptr_t p = a; p < m.to && text.size() <= 200; ++p) {
        char c = *reinterpret_cast<char const*>(p);
        if (c == 0) return text;
        if (c < 0x20 || c > 0x7e) return "";
        text += c;
    }
    return "";
}

std::string demangled(char const* name) {
    int status = 0;
    char* d = abi::__cxa_demangle(name, nullptr, nullptr, &status);
    std::string out = status == 0 && d ? d : name;
    std::free(d);
    return out;
}

std::string hex(uintptr_t a) {
    char b[24];
    std::snprintf(b, sizeof b, "0x%" PRIxPTR, a);
    return b;
}

// Whether the module is a position-independent object (addresses relative
// to its base) rather than an executable at fixed addresses.
bool relocatable(void const* base) {
    auto const* e = static_cast<ElfW(Ehdr) const*>(base);
    return e->e_type == ET_DYN;
}

// Runs addr2line once for a module over its offsets; one "function (file:line)"
// per offset, "" where it knows nothing.
std::vector<std::string> lookUp(std::string const& module, std::vector<uintptr_t> const& offsets) {
    std::string command = "addr2line -C -f -e '" + module + "'";
    for (uintptr_t o : offsets)
        command += " " + hex(o);
    command += " 2>/dev/null";
    std::vector<std::string> names(offsets.size());
    FILE* p = popen(command.c_str(), "r");
    if (!p) return names;
    char function[4096], place[4096];
    for (auto& name : names) {
        if (!std::fgets(function, sizeof function, p) || !std::fgets(place, sizeof place, p)) break;
        function[std::strcspn(function, "\n")] = 0;
        place[std::strcspn(place, "\n")] = 0;
        if (std::strcmp(function, "??") == 0) continue;
        name = function;
        // "file:line (discriminator n)": the discriminator is noise here.
        if (char* extra = std::strstr(place, " (discriminator")) *extra = 0;
        if (std::strncmp(place, "??", 2) != 0) name += std::string(" (") + place + ")";
    }
    pclose(p);
    return names;
}

}  // namespace

std::vector<std::string> nameAddresses(std::vector<void const*> const& addresses) {
    std::vector<std::string> names(addresses.size());
    std::vector<Mapping> maps = readMappings();
    // module -> (index of the address, offset for addr2line)
    std::map<std::string, std::vector<std::pair<size_t, uintptr_t>>> byModule;
    for (size_t i = 0; i < addresses.size(); ++i) {
        auto a = reinterpret_cast<uintptr_t>(addresses[i]);
        names[i] = hex(a);
        Mapping const* m = mappingOf(maps, a);
        if (!m || !m->readable) continue;
        if (!m->executable) {
            std::string text = textAt(*m, a);
            if (!text.empty()) names[i] = "\"" + text + "\"";
            continue;
        }
        Dl_info info{};
        if (!dladdr(addresses[i], &info) || !info.dli_fname) continue;
        if (info.dli_sname) {
            names[i] = demangled(info.dli_sname) + "+" +
                       hex(a - reinterpret_cast<uintptr_t>(info.dli_saddr)) + " (" +
                       info.dli_fname + ")";
        }
        // A return address: the call instruction lies just before it.
        uintptr_t at =
            relocatable(info.dli_fbase) ? a - reinterpret_cast<uintptr_t>(info.dli_fbase) : a;
        // The main program may be known by no name or a relative one.
        std::string module = info.dli_fname;
        if (module.empty() || module[0] != '/') executablePath(module);
        if (module.empty() || module.find('\'') != std::string::npos) continue;
        byModule[module].push_back({i, at - 1});
    }
    for (auto const& [module, list] : byModule) {
        std::vector<uintptr_t> offsets;
        for (auto const& [index, offset] : list)
            offsets.push_back(offset);
        std::vector<std::string> found = lookUp(module, offsets);
        for (size_t k = 0; k < list.size(); ++k) {
            if (!found[k].empty()) names[list[k].first] = found[k];
        }
    }
    return names;
}

}  // namespace qk::platform
