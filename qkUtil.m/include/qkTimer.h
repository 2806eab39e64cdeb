// qkTimer: a stopwatch on the platform's monotonic high-resolution counter.
//
// A timer starts when it is made and again at reset(); getElapse gives the
// microseconds since then. Wall-clock changes never disturb it. A timer
// belongs to one thread at a time; timers may be made on any threads.
#pragma once

#include <cstdint>

#include "qkExport.h"

class QK_EXPORT qkTimer {
  public:
    // Starts the timer; the first timer of the process also reads the
    // counter's frequency.
    qkTimer();
    // Starts the timer again.
    void reset();
    // The microseconds since the start, in double precision.
    void getElapse(double& microseconds) const;
    // Copies the start, so both timers measure from the same moment.
    qkTimer& operator=(qkTimer const&) = default;
    qkTimer(qkTimer const&) = default;

  private:
    int64_t _start;  // the counter at the start

    // The counter's ticks per second and whether it has been read; written
    // by the first construction, which any threads may race for, so both go
    // through atomic references.
    static int64_t S_Frequency;
    static int S_Init;
};
