// Whether a thread of this process has left user space for good, as the
// kernel reports it; for the thread handles (platform_thread.cpp).
#pragma once

#include <sys/types.h>

namespace qk::platform {

// The boot-time clock in the kernel's clock ticks (the unit of a task's
// start time in /proc), read when a thread passes its exit hook.
long long bootTicksNow();

// True once the thread `tid`, which passed its exit hook at `exitTicks`, can
// no longer run user code: the kernel has released its address space, marked
// it dead, or dropped it; or the id now names a thread that started after
// the hook (the id was reused, so the thread is gone). False while it may
// still run, and when in doubt.
bool threadLeftUserSpace(pid_t tid, long long exitTicks);

}  // namespace qk::platform
