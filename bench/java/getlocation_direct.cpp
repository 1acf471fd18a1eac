// The floor of the Java binding benchmark: getLocation_ called directly from C++ through the
// shared library, on the repository and resource the Java loop uses. Creates the resource when
// it does not exist yet. Prints the best time per call over the rounds, in nanoseconds of the
// calling thread's CPU time (user and system), so that other load on the machine counts little:
//   direct_ns_per_call <value>
// Usage: getlocation_direct REPOSITORY RESOURCE ROUNDS CALLS_PER_ROUND

#include <sys/stat.h>

#include <time.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include "repohandler.h"

namespace {

bool ensureResource(const char* repository, const char* resource) {
    int status = 0, existed = 0;
    char* location = createLocation_(repository, resource, &status, &existed, true, nullptr);
    if (location == nullptr) return false;
    bool ok = existed || ::mkdir(location, 0755) == 0;
    release(location);
    return ok;
}

double threadCpuNanos() {
    timespec now{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
    return static_cast<double>(now.tv_sec) * 1e9 + static_cast<double>(now.tv_nsec);
}

double nanosPerCall(const char* repository, const char* resource, long calls) {
    double start = threadCpuNanos();
    for (long i = 0; i < calls; ++i) {
        int status = 0;
        release(getLocation_(repository, resource, &status, false, false, false, false, nullptr));
    }
    return (threadCpuNanos() - start) / static_cast<double>(calls);
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 5) {
        std::fprintf(stderr, "usage: %s REPOSITORY RESOURCE ROUNDS CALLS_PER_ROUND\n", argv[0]);
        return 2;
    }
    const char* repository = argv[1];
    const char* resource = argv[2];
    long rounds = std::atol(argv[3]);
    long calls = std::atol(argv[4]);
    if (rounds < 1 || calls < 1 || !ensureResource(repository, resource)) {
        std::fprintf(stderr, "cannot prepare %s in %s\n", resource, repository);
        return 1;
    }
    nanosPerCall(repository, resource, calls);  // warm-up: registry entry, caches
    double best = 0;
    for (long r = 0; r < rounds; ++r) {
        double round = nanosPerCall(repository, resource, calls);
        if (r == 0 || round < best) best = round;
    }
    std::printf("direct_ns_per_call %.1f\n", best);
    return 0;
}
