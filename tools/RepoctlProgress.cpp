#include "RepoctlProgress.h"

#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <exception>
#include <thread>

#include "KSException.h"

std::string bytesText(unsigned long long bytes) {
    const char* units[] = {"B", "KiB", "MiB", "GiB", "TiB"};
    double value = static_cast<double>(bytes);
    int unit = 0;
    while (value >= 1024.0 && unit < 4) {
        value /= 1024.0;
        ++unit;
    }
    char text[32];
    snprintf(text, sizeof text, unit == 0 ? "%.0f %s" : "%.1f %s", value, units[unit]);
    return text;
}

namespace {

void reportError(const char* command, std::exception_ptr error) {
    try {
        std::rethrow_exception(error);
    } catch (const KSException& e) {
        fprintf(stderr, "repoctl %s: %s\n", command, e.toString().c_str());
    } catch (const std::exception& e) {
        fprintf(stderr, "repoctl %s: %s\n", command, e.what());
    } catch (...) {
        fprintf(stderr, "repoctl %s: unknown error\n", command);
    }
}

}  // namespace

int runWithProgress(const char* command, const std::function<std::string()>& line,
                    const std::function<int()>& work, bool quiet, double* seconds) {
    std::atomic<bool> done{false};
    int result = 0;
    std::exception_ptr error;
    const auto start = std::chrono::steady_clock::now();
    std::thread worker([&] {
        try {
            result = work();
        } catch (...) {
            error = std::current_exception();
        }
        done = true;
    });
    const bool draw = !quiet && isatty(STDERR_FILENO);
    while (!done) {
        std::this_thread::sleep_for(std::chrono::milliseconds(200));
        if (draw && !done) fprintf(stderr, "\r\033[K%s", line().c_str());
    }
    worker.join();
    if (draw) fprintf(stderr, "\r\033[K");
    if (seconds != nullptr)
        *seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    if (error) {
        reportError(command, error);
        return -1;
    }
    return result;
}
