// The kernel's view of an ending thread. A thread passes its exit hook and
// may still run for a while: thread-local destructors registered after the
// hook, the C runtime's own releases. Only once the kernel has detached the
// thread from the process's address space can it touch no memory of ours.
// /proc/self/task/<tid>/stat tells: the state ('Z', 'X' or 'x' when dead) and
// the size of the address space, which reads 0 once the thread has let go of
// it. Without /proc, the id answering no signal is the sign (it goes a little
// later, when the kernel drops the thread).
#include "platform/platform_thread_exit.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

namespace qk::platform {

long long bootTicksNow() {
    timespec now;
    clock_gettime(CLOCK_BOOTTIME, &now);
    long hz = sysconf(_SC_CLK_TCK);
    return static_cast<long long>(now.tv_sec) * hz + now.tv_nsec / (1000000000 / hz);
}

static bool idAnswersNoSignal(pid_t tid) {
    return syscall(SYS_tgkill, getpid(), tid, 0) == -1 && errno == ESRCH;
}

static bool procAvailable() {
    static int const available = access("/proc/self/task", F_OK) == 0 ? 1 : 0;
    return available;
}

// Reads the stat line of task `tid`; false when it cannot be read.
static bool readTaskStat(pid_t tid, char* line, size_t size, bool& missing) {
    char path[64];
    std::snprintf(path, sizeof path, "/proc/self/task/%d/stat", static_cast<int>(tid));
    int fd = open(path, O_RDONLY | O_CLOEXEC);
    missing = fd < 0 && (errno == ENOENT || errno == ESRCH);
    if (fd < 0) return false;
    ssize_t n = read(fd, line, size - 1);
    close(fd);
    missing = n < 0 && errno == ESRCH;
    if (n <= 0) return false;
    line[n] = 0;
    return true;
}

struct TaskStat {
    char state;
    unsigned long long startTicks;
    unsigned long long addressSpace;
};

// Fields after the command name (which may hold anything, so the parse
// starts at its last ')'): state is field 3, start time 22, size 23.
static bool parseTaskStat(char const* line, TaskStat& out) {
    char const* p = std::strrchr(line, ')');
    if (!p || p[1] != ' ' || !p[2]) return false;
    out.state = p[2];
    p += 3;
    for (int field = 4; field <= 23; ++field) {
        char* end = nullptr;
        unsigned long long value = std::strtoull(p, &end, 10);
        if (end == p) return false;
        if (field == 22) out.startTicks = value;
        if (field == 23) out.addressSpace = value;
        p = end;
    }
    return true;
}

bool threadLeftUserSpace(pid_t tid, long long exitTicks) {
    if (!procAvailable()) return idAnswersNoSignal(tid);
    char line[1024];
    bool missing = false;
    if (!readTaskStat(tid, line, sizeof line, missing)) return missing || idAnswersNoSignal(tid);
    TaskStat stat{};
    if (!parseTaskStat(line, stat)) return false;
    if (std::strchr("ZXx", stat.state)) return true;
    if (stat.addressSpace == 0) return true;
    // A task that started after the hook ran is a new thread under a reused id.
    return static_cast<long long>(stat.startTicks) > exitTicks;
}

}  // namespace qk::platform
