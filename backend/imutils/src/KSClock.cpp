#include "KSClock.h"

#include <sched.h>

#include <atomic>

#include "KSTime.h"

namespace {
std::atomic<long long> g_offsetMillis{0};
std::atomic<bool> g_virtualSleep{false};

// Floor division, so a negative offset of -500 ms moves now() back by one whole second.
long long wholeSeconds(long long millis) {
    long long q = millis / 1000;
    if (millis % 1000 < 0) --q;
    return q;
}
}  // namespace

time_t KSClock::now() {
    return time(nullptr) + static_cast<time_t>(wholeSeconds(g_offsetMillis.load()));
}

void KSClock::sleepMillis(long ms) {
    if (ms <= 0) return;
    if (g_virtualSleep.load()) {
        g_offsetMillis.fetch_add(ms);
        // Let the thread that is being waited for run, so back-off loops do not spin hot.
        sched_yield();
        return;
    }
    mymilisleep(ms);
}

void KSClock::advanceForTesting(long seconds) {
    g_offsetMillis.fetch_add(static_cast<long long>(seconds) * 1000);
}

void KSClock::setVirtualSleepForTesting(bool on) {
    g_virtualSleep.store(on);
}

void KSClock::resetForTesting() {
    g_offsetMillis.store(0);
    g_virtualSleep.store(false);
}

long long KSClock::offsetMillisForTesting() {
    return g_offsetMillis.load();
}
