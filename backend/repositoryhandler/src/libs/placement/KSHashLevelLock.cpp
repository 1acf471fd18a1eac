#include "KSHashLevelLock.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>

KSHashLevelLock::KSHashLevelLock(const std::string& mount) {
    fd_ = ::open(mount.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd_ < 0) return;
    int result;
    do {
        result = ::flock(fd_, LOCK_EX);
    } while (result != 0 && errno == EINTR);
    held_ = result == 0;
}

// Closing the descriptor releases the lock.
KSHashLevelLock::~KSHashLevelLock() {
    if (fd_ >= 0) ::close(fd_);
}
