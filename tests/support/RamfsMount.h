#pragma once

#include <string>

// A real ramfs file system for one test, mounted on a new directory under /tmp and always
// unmounted (lazily when still busy) and removed when the object goes, even when the test fails.
// ramfs stamps files with the kernel's coarse clock on every kernel, so two writes within one
// tick carry the same modification time: the file system on which time-stamp races show.
//
// Mounting needs root: call RH_REQUIRE_MOUNTS() (TmpfsMount.h) first. Throws
// std::runtime_error when the mount fails. Not thread-safe; one owner.
class RamfsMount {
  public:
    RamfsMount();
    ~RamfsMount();
    RamfsMount(const RamfsMount&) = delete;
    RamfsMount& operator=(const RamfsMount&) = delete;

    const std::string& path() const { return path_; }

  private:
    std::string path_;
};
