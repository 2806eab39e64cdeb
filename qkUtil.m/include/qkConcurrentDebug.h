// qkConcurrentDebug: a process-wide rendezvous value for debugging races.
//
// A thread that calls wait(v) stops there, looking again every 5 seconds,
// until some thread calls set(v) or switches waiting off with waitOn(0). So a
// developer can park a thread at a chosen point and release it from another
// thread (or a debugger) when the scene is set. Every call may come from any
// thread; each returns 1.
#pragma once

#include "qkExport.h"

class QK_EXPORT qkConcurrentDebug {
  public:
    // The rendezvous value becomes `value`.
    static int set(int value);
    // Returns once the value is `value` or waiting is off.
    static int wait(int value);
    // Switches waiting on (non-zero) or off (0) and clears the value to -1.
    static int waitOn(unsigned char on);

  private:
    // Read and written through relaxed atomic references: waiters poll
    // them, and nothing else is ordered by them.
    static int _val;           // -1 at load
    static unsigned char _on;  // 1 at load
};
