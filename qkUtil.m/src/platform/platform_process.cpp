// The process's command line (/proc/self/cmdline: the arguments, each ended
// by a zero byte), environment and executable path (/proc/self/exe).
#include "platform/platform_process.h"

#include <fcntl.h>
#include <unistd.h>

extern char** environ;

namespace qk::platform {

std::vector<std::string> commandLineArguments() {
    std::vector<std::string> args;
    int fd = open("/proc/self/cmdline", O_RDONLY | O_CLOEXEC);
    if (fd < 0) return args;
    std::string all;
    char chunk[4096];
    for (ssize_t n; (n = read(fd, chunk, sizeof chunk)) > 0;)
        all.append(chunk, size_t(n));
    close(fd);
    for (size_t from = 0; from < all.size();) {
        size_t end = all.find('\0', from);
        if (end == std::string::npos) end = all.size();
        args.push_back(all.substr(from, end - from));
        from = end + 1;
    }
    return args;
}

char* const* environmentBlock() {
    return environ;
}

bool executablePath(std::string& path) {
    char buf[20000];
    ssize_t n = readlink("/proc/self/exe", buf, sizeof buf - 1);
    if (n <= 0) return false;
    path.assign(buf, size_t(n));
    return true;
}

}  // namespace qk::platform
