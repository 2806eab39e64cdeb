// Files on POSIX descriptors: thin wrappers, one system call each.
#include "platform/platform_file.h"

#include <dirent.h>
#include <fcntl.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

namespace qk::platform {

int fileOpenRead(char const* path) {
    return ::open(path, O_RDONLY | O_CLOEXEC);
}

int fileOpenOverwrite(char const* path) {
    return ::open(path, O_WRONLY | O_CREAT | O_CLOEXEC, 0666);
}

long long fileSize(int fd) {
    struct stat st;
    return ::fstat(fd, &st) == 0 ? static_cast<long long>(st.st_size) : -1;
}

int fileTruncate(int fd, long long length) {
    return ::ftruncate(fd, static_cast<off_t>(length));
}

int fileCreateExclusive(char const* path) {
    return ::open(path, O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
}

// mknod makes a regular file as an exclusive open does (EEXIST when the name
// is taken, mode 0666 less the umask) but leaves no descriptor to close.
// File systems that refuse it get the open and the close.
int fileMakeExclusive(char const* path) {
    if (::mknod(path, S_IFREG | 0666, 0) == 0) return 0;
    if (errno != EPERM && errno != EINVAL && errno != ENOSYS && errno != EOPNOTSUPP) return -1;
    int fd = fileCreateExclusive(path);
    if (fd < 0) return -1;
    fileClose(fd);
    return 0;
}

long fileRead(int fd, void* buf, size_t size) {
    return static_cast<long>(::read(fd, buf, size));
}

long fileWrite(int fd, void const* buf, size_t size) {
    return static_cast<long>(::write(fd, buf, size));
}

int fileClose(int fd) {
    if (::close(fd) == 0) return 0;
    return errno == EINTR ? 0 : -1;
}

int fileUnlink(char const* path) {
    return ::unlink(path);
}

FILE* duplicateStdout() {
    int fd = ::fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 0);
    if (fd < 0) return nullptr;
    FILE* f = ::fdopen(fd, "w");
    if (!f) ::close(fd);
    return f;
}

char const* tempDirectory() {
    char const* dir = ::getenv("TMPDIR");
    return dir && *dir ? dir : "/tmp";
}

int fileCreateUnique(char* pattern) {
    // mkostemp opens with O_CREAT | O_EXCL and mode 0600.
    return ::mkostemp(pattern, O_CLOEXEC);
}

bool stdinWaitsForTerminal() {
    if (!::isatty(STDIN_FILENO)) return false;
#ifdef __GLIBC__
    return stdin->_IO_read_ptr >= stdin->_IO_read_end;
#else
    return true;
#endif
}

int listDirectory(char const* dir, void (*fn)(char const* name, void* ctx), void* ctx) {
    DIR* d = ::opendir(dir && *dir ? dir : ".");
    if (!d) return -1;
    while (dirent* e = ::readdir(d)) {
        if (std::strcmp(e->d_name, ".") == 0 || std::strcmp(e->d_name, "..") == 0) continue;
        fn(e->d_name, ctx);
    }
    ::closedir(d);
    return 0;
}

}  // namespace qk::platform
