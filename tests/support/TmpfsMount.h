#pragma once

#include <string>

// A real tmpfs file system for one test: mounted with a chosen size and inode count, filled
// with real files to an exact used percentage, and always unmounted when the object goes
// (lazily when it is still busy), even when the test fails.
//
// Mounting needs root. Tests call RH_REQUIRE_MOUNTS() first: without root the test is skipped,
// but when the environment has CI=true it fails instead, so CI never passes by skipping.
//
//   RH_REQUIRE_MOUNTS();
//   TmpfsMount disk(400 * 4096, 100);   // 400 blocks of 4 KiB, 100 inodes
//   disk.fillBlocksTo(95);
//
// Not thread-safe; one owner.
class TmpfsMount {
  public:
    static constexpr unsigned long kBlockSize = 4096;

    // True when this process may mount file systems (it runs as root).
    static bool canMount();
    // True when the environment has CI=true: a mount test must not skip there.
    static bool ciRequiresMounts();

    // Mounts at `directory` (created when missing, removed again at the end when created here)
    // or, when empty, at a new directory under /tmp. Throws std::runtime_error when the mount
    // fails. `sizeBytes` is rounded to whole 4 KiB blocks by the kernel.
    TmpfsMount(unsigned long long sizeBytes, unsigned long inodes,
               const std::string& directory = std::string());
    ~TmpfsMount();
    TmpfsMount(const TmpfsMount&) = delete;
    TmpfsMount& operator=(const TmpfsMount&) = delete;

    const std::string& path() const { return path_; }

    // Writes real data into files under path()/.fill until exactly ceil(percent) of the blocks
    // (as a share of all blocks) are in use. Throws std::runtime_error when it cannot.
    void fillBlocksTo(double percent);
    // Creates empty files under path()/.fill until that share of the inodes is in use.
    void fillInodesTo(double percent);

    // Shares in use, computed from statvfs as available / total.
    double usedBlocksPercent() const;
    double usedInodesPercent() const;

  private:
    void ensureFillDir();

    std::string path_;
    bool createdDirectory_ = false;
    unsigned fileCount_ = 0;
};

// Skips the current test without mount permission, or fails it when CI=true.
#define RH_REQUIRE_MOUNTS()                                                         \
    do {                                                                            \
        if (!TmpfsMount::canMount()) {                                              \
            if (TmpfsMount::ciRequiresMounts()) FAIL() << "tmpfs mounts need root"; \
            GTEST_SKIP() << "tmpfs mounts need root";                               \
        }                                                                           \
    } while (0)
