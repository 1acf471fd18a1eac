#include "KSSemaphore.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <random>

#include "KSClock.h"
#include "KSIOException.h"
#include "KSTimeoutException.h"

namespace {

std::string lockDirectoryFromEnvironment() {
    const char* dir = getenv("LOCK_VAR");
    return dir != nullptr ? std::string(dir) : std::string(".");
}

KSIOException ioFailure(const char* what, const std::string& name, int error) {
    return KSIOException(error, std::string(what) + name + " [" + strerror(error) + "]");
}

// A uniform factor in [low, high]. The generator is per thread and reseeded after a fork, so
// two processes contending for one lock do not step in lock-step.
double uniformFactor(double low, double high) {
    thread_local pid_t seededFor = 0;
    thread_local std::mt19937 generator;
    if (seededFor != getpid()) {
        seededFor = getpid();
        std::random_device device;
        generator.seed(device() ^ static_cast<unsigned>(seededFor));
    }
    if (!(high > low)) return low;
    return std::uniform_real_distribution<double>(low, high)(generator);
}

}  // namespace

KSSemaphore::KSSemaphore(const std::string& name)
    : name_(name), lockDirectory_(lockDirectoryFromEnvironment()) {}

KSSemaphore::~KSSemaphore() {
    if (!releaseOnDestruction_ || !locked_) return;
    try {
        KSSemaphore::unlock();
    } catch (...) {
        // A destructor must not throw; the lock file stays and blocks until removed by hand.
    }
}

// The lock is the exclusive creation of the file: O_CREAT|O_EXCL is atomic on a local file
// system, so of several processes racing here exactly one succeeds and the others see EEXIST.
// A process that dies while holding the lock leaves its file behind; nothing here removes such
// stale files, because a file alone cannot tell a dead holder from a slow one.
bool KSSemaphore::lockResource() {
    const std::string path = lockDirectory_ + "/semaphore_" + name_;
    int fd = open(path.c_str(), O_RDONLY | O_CREAT | O_EXCL, 0660);
    if (fd >= 0) {
        close(fd);
        locked_ = true;
        return true;
    }
    if (errno == EEXIST) return false;
    throw ioFailure("Creating semaphore failed: ", name_, errno);
}

bool KSSemaphore::lock(int seconds) {
    const long budgetMs = static_cast<long>(seconds) * 1000;
    long waitedMs = 0;
    while (!lockResource()) {
        if (budgetMs > 0 && waitedMs >= budgetMs)
            throw KSTimeoutException(1, "Semaphore timed out");
        long step = static_cast<long>(rand() / (RAND_MAX + 1.0) * 980) + 10;
        KSClock::sleepMillis(step);
        waitedMs += step;
    }
    return true;
}

bool KSSemaphore::lock_ms(int timeoutMs, float initialDelay, float growth, float maxDelay,
                          float jitter) {
    if (lockResource()) return true;
    const bool budgeted = timeoutMs > 0;
    long remaining = timeoutMs;
    double delay = initialDelay / 2.0;
    bool capped = false;
    for (;;) {
        if (budgeted && remaining <= 0) throw KSTimeoutException(1, "Semaphore timed out");
        // Whole milliseconds, at least one, so the steps add up to the budget exactly and a
        // zero delay cannot turn the wait into a busy loop.
        long step = std::max(1L, std::lround(delay * uniformFactor(1.0 - jitter, 1.0 + jitter)));
        if (budgeted && step >= remaining) step = remaining;
        remaining -= step;
        KSClock::sleepMillis(step);
        if (!capped) {
            delay *= growth;
            capped = delay > maxDelay;
            if (capped) delay = maxDelay;
        }
        if (lockResource()) return true;
    }
}

void KSSemaphore::unlock() {
    if (!locked_) return;
    locked_ = false;
    const std::string path = lockDirectory_ + "/semaphore_" + name_;
    if (unlink(path.c_str()) != 0) throw ioFailure("Releasing semaphore failed: ", name_, errno);
}
