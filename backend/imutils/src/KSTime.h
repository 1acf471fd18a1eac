#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>

// Small time and comparison helpers. All are thread-safe.

// The monotonic clock (CLOCK_MONOTONIC) in nanoseconds. Not affected by KSClock's test offset.
int64_t nanoTime();

// Nanoseconds as seconds and as milliseconds.
double nanoToSec(int64_t ns);
double nanoToMilisec(int64_t ns);

// Sleep with nanosleep for ns nanoseconds / ms milliseconds, resumed after signals.
// Non-positive durations return at once. Always real sleeps (see KSClock for the seam).
void mynanosleep(int64_t ns);
void mymilisleep(long ms);

// The kernel thread id of the calling thread.
pid_t mygettid();

// v rounded up to the next multiple of m: ((v + m - 1) / m) * m. A zero m gives v unchanged.
uint64_t roundUpTo(uint64_t v, uint64_t m);

// memcmp of a and b when alen == blen; otherwise -255 without reading either buffer (a fixed
// "lengths differ" sentinel, not an order).
int mymemcmp(const void* a, size_t alen, const void* b, size_t blen);
