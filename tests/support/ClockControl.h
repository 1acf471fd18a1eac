#pragma once

#include "KSClock.h"

// Puts KSClock back to real time (offset 0, real sleeps) when the scope ends, so a test that
// moves the clock cannot leak its offset into the next one, even when it fails:
//   ClockGuard g; KSClock::advanceForTesting(10);
class ClockGuard {
  public:
    ClockGuard() = default;
    ~ClockGuard() { KSClock::resetForTesting(); }
    ClockGuard(const ClockGuard&) = delete;
    ClockGuard& operator=(const ClockGuard&) = delete;
};
