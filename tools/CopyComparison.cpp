#include "CopyComparison.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <list>
#include <set>
#include <vector>

#include "KSPathUtils.h"

namespace {

constexpr int kMaxDepth = 64;
constexpr size_t kChunk = 64 * 1024;

// O_NOATIME is refused for files of other users unless privileged; a plain open then.
int openKeepingAtime(const std::string& path) {
    int fd = ::open(path.c_str(), O_RDONLY | O_NOATIME | O_CLOEXEC | O_NOFOLLOW);
    if (fd < 0 && errno == EPERM) fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW);
    return fd;
}

class Fd {
  public:
    explicit Fd(int fd) : fd_(fd) {}
    ~Fd() {
        if (fd_ >= 0) ::close(fd_);
    }
    Fd(const Fd&) = delete;
    Fd& operator=(const Fd&) = delete;
    int get() const { return fd_; }

  private:
    int fd_;
};

// Reads up to `size` bytes, resuming after short reads; the count read, -1 on error.
ssize_t readFull(int fd, char* buffer, size_t size) {
    size_t done = 0;
    while (done < size) {
        const ssize_t n = ::read(fd, buffer + done, size - done);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) return -1;
        if (n == 0) break;
        done += static_cast<size_t>(n);
    }
    return static_cast<ssize_t>(done);
}

bool sameBytes(const std::string& one, const std::string& other) {
    Fd a(openKeepingAtime(one));
    Fd b(openKeepingAtime(other));
    if (a.get() < 0 || b.get() < 0) return false;
    std::vector<char> left(kChunk), right(kChunk);
    for (;;) {
        const ssize_t n = readFull(a.get(), left.data(), kChunk);
        const ssize_t m = readFull(b.get(), right.data(), kChunk);
        if (n < 0 || m < 0 || n != m) return false;
        if (n == 0) return true;
        if (std::memcmp(left.data(), right.data(), static_cast<size_t>(n)) != 0) return false;
    }
}

std::string linkText(const std::string& path) {
    std::vector<char> buffer(256);
    for (;;) {
        const ssize_t n = ::readlink(path.c_str(), buffer.data(), buffer.size());
        if (n < 0) return std::string();
        if (static_cast<size_t>(n) < buffer.size()) return std::string(buffer.data(), n);
        buffer.resize(buffer.size() * 2);
    }
}

std::set<std::string> entriesOf(const std::string& directory) {
    std::list<std::string> names;
    listDir(directory.c_str(), &names, false, false);
    return std::set<std::string>(names.begin(), names.end());
}

std::string joined(const std::string& directory, const std::string& name) {
    if (directory.empty()) return name;
    return name.empty() ? directory : directory + "/" + name;
}

// `relative` names the entry below both copies' tops `one` and `other` (empty: the tops).
// `commonOnly`: entries that only one copy holds do not count.
std::string compare(const std::string& one, const std::string& other, const std::string& relative,
                    bool commonOnly, int depth);

std::string compareDirectories(const std::string& one, const std::string& other,
                               const std::string& relative, bool commonOnly, int depth) {
    if (depth > kMaxDepth) return "nested too deeply: " + relative;
    const std::set<std::string> left = entriesOf(joined(one, relative));
    const std::set<std::string> right = entriesOf(joined(other, relative));
    for (const std::string& name : left) {
        if (right.count(name) == 0 && !commonOnly)
            return "only in " + one + ": " + joined(relative, name);
    }
    for (const std::string& name : right) {
        if (left.count(name) == 0 && !commonOnly)
            return "only in " + other + ": " + joined(relative, name);
    }
    for (const std::string& name : left) {
        if (right.count(name) == 0) continue;
        std::string difference = compare(one, other, joined(relative, name), commonOnly, depth + 1);
        if (!difference.empty()) return difference;
    }
    return std::string();
}

std::string compare(const std::string& one, const std::string& other, const std::string& relative,
                    bool commonOnly, int depth) {
    const std::string shown = relative.empty() ? "." : relative;
    const std::string left = joined(one, relative);
    const std::string right = joined(other, relative);
    struct stat a, b;
    if (::lstat(left.c_str(), &a) != 0) return "cannot be read: " + left;
    if (::lstat(right.c_str(), &b) != 0) return "cannot be read: " + right;
    if ((a.st_mode & S_IFMT) != (b.st_mode & S_IFMT)) return "type differs: " + shown;
    if (S_ISDIR(a.st_mode)) return compareDirectories(one, other, relative, commonOnly, depth);
    if (S_ISLNK(a.st_mode))
        return linkText(left) == linkText(right) ? std::string() : "link differs: " + shown;
    if (!S_ISREG(a.st_mode)) return std::string();
    if (a.st_size != b.st_size) return "size differs: " + shown;
    return sameBytes(left, right) ? std::string() : "content differs: " + shown;
}

}  // namespace

std::string firstDifference(const std::string& one, const std::string& other) {
    return compare(one, other, std::string(), false, 0);
}

std::string firstConflict(const std::string& one, const std::string& other) {
    return compare(one, other, std::string(), true, 0);
}
