// qkSysUtils: the current process's command line, environment and
// executable path, from the platform layer.
#include <string>
#include <vector>

#include "platform/platform_process.h"
#include "qkStrBuff.h"

namespace {

// An argument as a command line reads it: as it is, or in double quotes
// when it is empty or holds a blank, a tab or a quote; inside quotes, a
// quote and the backslashes just before it are escaped, as are backslashes
// before the closing quote.
void appendQuoted(std::string& line, std::string const& arg) {
    if (!arg.empty() && arg.find_first_of(" \t\"") == std::string::npos) {
        line += arg;
        return;
    }
    line += '"';
    size_t backslashes = 0;
    for (char c : arg) {
        if (c == '\\') {
            ++backslashes;
            continue;
        }
        line.append(c == '"' ? 2 * backslashes + 1 : backslashes, '\\');
        backslashes = 0;
        line += c;
    }
    line.append(2 * backslashes, '\\');
    line += '"';
}

}  // namespace

int qkSysUtils::getProcessCmdLine(qkStrBuff& out, int) {
    std::string line;
    for (auto const& arg : qk::platform::commandLineArguments()) {
        if (!line.empty()) line += ' ';
        appendQuoted(line, arg);
    }
    out += line.c_str();
    return 1;
}

void qkSysUtils::getProcessEnvironment(qkStrBuff& out) {
    for (char* const* entry = qk::platform::environmentBlock(); entry && *entry; ++entry) {
        out += *entry;
    }
}

int qkSysUtils::getProcessExe(qkStrBuff& out, int) {
    std::string path;
    if (!qk::platform::executablePath(path)) return 0;
    out += path.c_str();
    return 1;
}
