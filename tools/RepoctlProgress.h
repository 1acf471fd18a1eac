#pragma once

#include <functional>
#include <string>

// Runs `work` in a second thread and, while it runs, redraws the line that `line` returns on
// standard error five times a second, but only when standard error is a terminal and `quiet` is
// false: logs, pipes and --json output get no progress lines. `line` is called from this thread
// while `work` runs in the other, so it must read only what is safe to read concurrently
// (atomic counters).
//
// An exception thrown by `work` is printed as "repoctl <command>: <what>" and gives -1;
// otherwise the result is what `work` returned. `seconds`, when not null, receives the time
// `work` took.
int runWithProgress(const char* command, const std::function<std::string()>& line,
                    const std::function<int()>& work, bool quiet, double* seconds);

// A byte count for people: "512 B", "1.5 KiB", "3.2 GiB".
std::string bytesText(unsigned long long bytes);
