// What the library asks of the system about its own process.
#pragma once

#include <string>
#include <vector>

namespace qk::platform {

// The process's arguments, the program first (empty when unreadable).
std::vector<std::string> commandLineArguments();
// The environment block: NAME=value entries, null-terminated.
char* const* environmentBlock();
// The running executable's full path; false when it cannot be read.
bool executablePath(std::string& path);

}  // namespace qk::platform
