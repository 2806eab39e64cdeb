// The memory entry points in pass-through form: every call goes to the C
// runtime's heap. This is what they do until the host creates the memory
// manager.
#include <cstdlib>
#include <cstring>

#include "qkMemory.h"

void* qkMalloc(size_t size, char const*, int) {
    return std::malloc(size);
}
void qkFree(void* p, char const*, int) {
    std::free(p);
}
void* qkCalloc(size_t count, size_t size, char const*, int) {
    return std::calloc(count, size);
}
void* qkRealloc(void* p, size_t size, char const*, int) {
    return std::realloc(p, size);
}
char* qkStrdup(char const* s, char const*, int) {
    return s ? strdup(s) : nullptr;
}
size_t qkMemSize(void*) {
    return 0;
}
char* qkTempnam(char const*, char const*) {
    return nullptr;
}
MEMORY_THREAD* qkMemoryThread() {
    return nullptr;
}
void* getCaller(int) {
    return __builtin_return_address(0);
}
