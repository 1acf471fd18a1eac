#include "KSTime.h"

#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <ctime>

int64_t nanoTime() {
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<int64_t>(ts.tv_sec) * 1000000000LL + ts.tv_nsec;
}

double nanoToSec(int64_t ns) {
    return static_cast<double>(ns) / 1e9;
}

double nanoToMilisec(int64_t ns) {
    return static_cast<double>(ns) / 1e6;
}

namespace {
void sleepFor(timespec request) {
    timespec remaining;
    while (nanosleep(&request, &remaining) == -1 && errno == EINTR) request = remaining;
}
}  // namespace

void mynanosleep(int64_t ns) {
    if (ns <= 0) return;
    timespec ts;
    ts.tv_sec = static_cast<time_t>(ns / 1000000000LL);
    ts.tv_nsec = static_cast<long>(ns % 1000000000LL);
    sleepFor(ts);
}

void mymilisleep(long ms) {
    if (ms <= 0) return;
    timespec ts;
    ts.tv_sec = ms / 1000;
    ts.tv_nsec = (ms % 1000) * 1000000L;
    sleepFor(ts);
}

pid_t mygettid() {
    return static_cast<pid_t>(syscall(SYS_gettid));
}

uint64_t roundUpTo(uint64_t v, uint64_t m) {
    if (m == 0) return v;
    return ((v + m - 1) / m) * m;
}

int mymemcmp(const void* a, size_t alen, const void* b, size_t blen) {
    if (alen != blen) return -255;
    return memcmp(a, b, alen);
}
