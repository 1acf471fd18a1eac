#pragma once

#include <fcntl.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <string>

// Sets the file system's immutable attribute on a file or directory for the scope, so that even
// root cannot remove it or change a directory's entries: a real way to make a removal or a copy
// fail. Cleared again when the scope ends. ok() is false when the file system lacks the flag.
class ImmutableFlag {
  public:
    explicit ImmutableFlag(std::string path) : path_(std::move(path)) { ok_ = set(true); }
    ~ImmutableFlag() {
        if (ok_) set(false);
    }
    ImmutableFlag(const ImmutableFlag&) = delete;
    ImmutableFlag& operator=(const ImmutableFlag&) = delete;

    bool ok() const { return ok_; }

  private:
    bool set(bool on) {
        const int fd = open(path_.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
        if (fd < 0) return false;
        int flags = 0;
        bool done = ioctl(fd, FS_IOC_GETFLAGS, &flags) == 0;
        if (done) {
            flags = on ? (flags | FS_IMMUTABLE_FL) : (flags & ~FS_IMMUTABLE_FL);
            done = ioctl(fd, FS_IOC_SETFLAGS, &flags) == 0;
        }
        close(fd);
        return done;
    }

    std::string path_;
    bool ok_ = false;
};
