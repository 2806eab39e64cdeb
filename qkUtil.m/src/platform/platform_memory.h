// Platform services of the memory manager beyond the raw heap of platform.h:
// the C runtime's aligned allocator and temporary file names.
//
// Thread-safety: both may be called from any thread.
#pragma once

#include <cstddef>

#include "qkExport.h"

namespace qk::platform {

// `size` bytes aligned to `alignment` (a power of two) from the raw C runtime
// heap, released with rawFree; null when out of memory or for a bad alignment.
QK_EXPORT void* rawAlignedAlloc(size_t alignment, size_t size);

// A name for a new temporary file that does not exist yet: in `dir` when it
// is a usable directory, else in $TMPDIR, else in /tmp; the file part starts
// with `pfx` (may be null) and ends in six random characters. The text comes
// from the raw heap (release with rawFree); null when no name could be made.
QK_EXPORT char* tempName(char const* dir, char const* pfx);

}  // namespace qk::platform
