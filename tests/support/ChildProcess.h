#pragma once

#include <functional>

// Runs `body` in a forked child process and waits for it. Returns the child's exit code (the
// value `body` returned), 255 when `body` threw, or 128 + signal number when the child was
// killed by a signal. The child leaves with _exit, so no atexit handler or static destructor
// of the test runs twice; it must not use GoogleTest assertions (report through the code).
// Fork from a single-threaded point of the test.
int runInChild(const std::function<int()>& body);
