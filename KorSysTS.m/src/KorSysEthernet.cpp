// get_ethernet_address: the machine's node value, from the hardware address
// of its first real network interface, else from its machine id.
#include <dirent.h>

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <string>
#include <vector>

#include "KorSysTS.h"

namespace {

// "aa:bb:cc:dd:ee:ff" into its bytes; false for any other form.
bool parseHardwareAddress(std::string const& text, unsigned char (&bytes)[6]) {
    unsigned v[6];
    char tail;
    if (std::sscanf(text.c_str(), "%2x:%2x:%2x:%2x:%2x:%2x%c", &v[0], &v[1], &v[2], &v[3], &v[4],
                    &v[5], &tail) != 6) {
        return false;
    }
    for (int i = 0; i < 6; ++i)
        bytes[i] = static_cast<unsigned char>(v[i]);
    return true;
}

std::string firstLine(std::string const& path) {
    std::ifstream in(path);
    std::string line;
    std::getline(in, line);
    return line;
}

uint32_t fromInterfaces() {
    std::vector<std::string> names;
    if (DIR* dir = opendir("/sys/class/net")) {
        while (dirent* e = readdir(dir)) {
            std::string name = e->d_name;
            if (name != "." && name != ".." && name != "lo") names.push_back(name);
        }
        closedir(dir);
    }
    std::sort(names.begin(), names.end());
    for (auto const& name : names) {
        unsigned char b[6];
        if (!parseHardwareAddress(firstLine("/sys/class/net/" + name + "/address"), b)) continue;
        // The last four bytes: the first three name the maker, the rest the card.
        uint32_t node = uint32_t(b[2]) << 24 | uint32_t(b[3]) << 16 | uint32_t(b[4]) << 8 | b[5];
        if (node) return node;
    }
    return 0;
}

// FNV-1a over the machine id's text.
uint32_t fromMachineId() {
    std::string id = firstLine("/etc/machine-id");
    if (id.empty()) id = firstLine("/var/lib/dbus/machine-id");
    if (id.empty()) return 0;
    uint32_t h = 2166136261u;
    for (unsigned char c : id)
        h = (h ^ c) * 16777619u;
    return h ? h : 1;
}

}  // namespace

uint32_t get_ethernet_address() {
    uint32_t node = fromInterfaces();
    return node ? node : fromMachineId();
}
