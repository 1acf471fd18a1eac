#include "KSStateFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>

namespace {

std::atomic<unsigned long> gTemporaryCount{0};

std::string temporaryNameBeside(const std::string& path) {
    return path + "." + std::to_string(getpid()) + "." + std::to_string(++gTemporaryCount) + ".tmp";
}

std::string directoryOf(const std::string& path) {
    size_t slash = path.rfind('/');
    if (slash == std::string::npos) return ".";
    if (slash == 0) return "/";
    return path.substr(0, slash);
}

bool writeAll(int fd, const std::string& content) {
    const char* data = content.data();
    size_t left = content.size();
    while (left > 0) {
        ssize_t n = write(fd, data, left);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        data += n;
        left -= static_cast<size_t>(n);
    }
    return true;
}

// Keeps the mode of the file being replaced, so that a set shared by several users stays as
// readable and writable as its owner made it.
void keepModeOf(const std::string& path, int fd) {
    struct stat old;
    if (stat(path.c_str(), &old) == 0) fchmod(fd, old.st_mode & 07777);
}

// Makes the rename itself durable. Some file systems refuse fsync on a directory; the rename
// has happened all the same, so that is no failure of the replacement.
void syncDirectoryOf(const std::string& path) {
    int dir = open(directoryOf(path).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (dir < 0) return;
    fsync(dir);
    close(dir);
}

// Removes the temporary file after a failure without losing the errno that explains it.
KSStateFile::Result giveUp(const std::string& temporary, int fd) {
    int error = errno;
    if (fd >= 0) close(fd);
    unlink(temporary.c_str());
    errno = error;
    return KSStateFile::Result::kNotWritten;
}

}  // namespace

KSStateFile::Result KSStateFile::replace(const std::string& path, const std::string& content) {
    const std::string temporary = temporaryNameBeside(path);
    int fd = open(temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
    if (fd < 0) return Result::kNotCreated;
    keepModeOf(path, fd);
    if (!writeAll(fd, content) || fsync(fd) != 0) return giveUp(temporary, fd);
    int closed = close(fd);
    if (closed != 0) return giveUp(temporary, -1);
    if (rename(temporary.c_str(), path.c_str()) != 0) return giveUp(temporary, -1);
    syncDirectoryOf(path);
    return Result::kReplaced;
}
