// Host framework services that qkUtil relies on. This stand-in grows with
// the services the library actually calls; nothing else is provided.
#pragma once

namespace KorSysTS {
// Version of this stand-in, so that a build can tell which one it links.
char const* standInVersion();
}  // namespace KorSysTS
