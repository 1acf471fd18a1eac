#pragma once

// Helpers shared by the fuzz targets: one scratch directory per fuzzing process (removed at
// exit), files written whole, and a check that aborts with a message, so that libFuzzer
// records the input as a crash.

#include <stdlib.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>

class FuzzScratch {
  public:
    FuzzScratch() {
        const char* base = getenv("TMPDIR");
        std::string pattern = std::string(base != nullptr ? base : "/tmp") + "/rh_fuzz_XXXXXX";
        if (mkdtemp(pattern.data()) == nullptr) {
            perror("mkdtemp");
            abort();
        }
        root_ = pattern;
    }
    ~FuzzScratch() {
        const std::string command = "rm -rf '" + root_ + "'";
        if (system(command.c_str()) != 0) fprintf(stderr, "could not remove %s\n", root_.c_str());
    }
    FuzzScratch(const FuzzScratch&) = delete;
    FuzzScratch& operator=(const FuzzScratch&) = delete;

    const std::string& root() const { return root_; }
    std::string path(const std::string& relative) const { return root_ + "/" + relative; }

    // Replaces the file's content with `size` bytes of `data`.
    static void write(const std::string& file, const void* data, size_t size) {
        FILE* f = fopen(file.c_str(), "wb");
        if (f == nullptr || (size > 0 && fwrite(data, 1, size, f) != size) || fclose(f) != 0) {
            perror(file.c_str());
            abort();
        }
    }

  private:
    std::string root_;
};

#define FUZZ_CHECK(condition, ...)                                                         \
    do {                                                                                   \
        if (!(condition)) {                                                                \
            fprintf(stderr, "check failed: %s (%s:%d): ", #condition, __FILE__, __LINE__); \
            fprintf(stderr, __VA_ARGS__);                                                  \
            fprintf(stderr, "\n");                                                         \
            abort();                                                                       \
        }                                                                                  \
    } while (0)
