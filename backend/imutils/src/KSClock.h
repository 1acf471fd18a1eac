#pragma once

#include <ctime>

#include "RhExport.h"

// The library's clock for its own time rules: the configuration quiet period, the dead-mount
// retry, the dirty-set window and the lock back-off ask it for "now" and sleep through it, so
// tests can move time forward without waiting. Times of files on disk (stat, utime) are always
// real and never pass through here.
//
// All functions are thread-safe (the test state is kept in atomics).
class RH_EXPORT KSClock {
  public:
    // Wall-clock seconds since the epoch, plus the test offset (0 in production).
    static time_t now();

    // Sleeps ms milliseconds with nanosleep, resumed after signals. In virtual-sleep mode it
    // advances the test offset by ms instead and returns at once. Non-positive ms return at once.
    static void sleepMillis(long ms);

    // Test control. advanceForTesting moves now() forward by seconds (negative moves it back).
    static void advanceForTesting(long seconds);
    static void setVirtualSleepForTesting(bool on);
    // Offset 0 and real sleeps again.
    static void resetForTesting();

    // The current test offset in milliseconds (virtual sleeps accumulate below a second).
    static long long offsetMillisForTesting();
};
