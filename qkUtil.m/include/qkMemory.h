// Memory entry points: the plain functions through which the library and its
// callers take and release memory.
//
// Every raw buffer of the library comes from qkMalloc/qkRealloc/qkFree with a
// caller tag (an opaque pointer-sized value naming the call site: a code
// address from getCaller, or a source-file name) and a line number; both only
// feed warnings and debugging aids.
//
// Until the host creates the memory manager, every entry point passes
// straight to the C runtime's heap.
#pragma once

#include <cstddef>

#include "qkExport.h"

struct MEMORY_THREAD;

QK_EXPORT_C void* qkMalloc(size_t size, char const* caller, int line);
QK_EXPORT_C void qkFree(void* p, char const* caller, int line);
QK_EXPORT_C void* qkCalloc(size_t count, size_t size, char const* caller, int line);
QK_EXPORT_C void* qkRealloc(void* p, size_t size, char const* caller, int line);
QK_EXPORT_C char* qkStrdup(char const* s, char const* caller, int line);
QK_EXPORT_C size_t qkMemSize(void* p);
QK_EXPORT_C char* qkTempnam(char const* dir, char const* pfx);
QK_EXPORT_C MEMORY_THREAD* qkMemoryThread();
// The machine word `offset` bytes above the base of getCaller's own frame;
// with 16, getCaller's return address, an address inside its caller.
QK_EXPORT_C void* getCaller(int offset);
