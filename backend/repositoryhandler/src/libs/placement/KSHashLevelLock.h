#pragma once

// The lock between the processes that create hash levels on a mount and those that remove the
// empty ones: an exclusive flock on the mount directory itself, so it holds between every
// process that sees the mount, needs no file of its own and is released by the kernel when its
// holder dies. It is held only for a few directory operations. See clearEmptyHash
// (KSPathUtils.cpp) for the protocol it serves.
//
// One object is used by one thread; non-copyable. Locks taken through separate objects exclude
// each other also within one process.

#include <string>

class KSHashLevelLock {
  public:
    // Waits for the lock on the directory `mount`. held() tells whether it was obtained: it is
    // not when the directory cannot be opened or its file system has no flock on directories
    // (NFS); callers then go on without it.
    explicit KSHashLevelLock(const std::string& mount);
    ~KSHashLevelLock();
    KSHashLevelLock(const KSHashLevelLock&) = delete;
    KSHashLevelLock& operator=(const KSHashLevelLock&) = delete;

    bool held() const { return held_; }

  private:
    int fd_ = -1;
    bool held_ = false;
};
