// Host framework services that qkUtil relies on. This stand-in grows with
// the services the library actually calls; nothing else is provided.
#pragma once

#include <cstdint>

namespace KorSysTS {
// Version of this stand-in, so that a build can tell which one it links.
char const* standInVersion();
}  // namespace KorSysTS

// A stable 32-bit value that tells this machine from others: the last four
// bytes of the hardware address of the first network interface (by name)
// that is not the loopback and has one; without such an interface, a hash
// of the machine id. 0 when neither can be read (the caller asks again).
uint32_t get_ethernet_address();
