#include "KSStateFileCache.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <ctime>

namespace {

constexpr unsigned kStampMask = STATX_TYPE | STATX_INO | STATX_SIZE | STATX_MTIME | STATX_CTIME;

int64_t nanos(const struct statx_timestamp& t) {
    return static_cast<int64_t>(t.tv_sec) * 1'000'000'000 + t.tv_nsec;
}

int64_t realNowNanos() {
    timespec now;
    clock_gettime(CLOCK_REALTIME, &now);
    return static_cast<int64_t>(now.tv_sec) * 1'000'000'000 + now.tv_nsec;
}

KSStateFileCache::Stamp stampOf(const struct statx& st) {
    KSStateFileCache::Stamp stamp;
    stamp.exists = true;
    stamp.devMajor = st.stx_dev_major;
    stamp.devMinor = st.stx_dev_minor;
    stamp.inode = st.stx_ino;
    stamp.size = st.stx_size;
    stamp.modified = nanos(st.stx_mtime);
    stamp.changed = nanos(st.stx_ctime);
    return stamp;
}

// statx of a path (dirfd AT_FDCWD) or of an open file (path "" with AT_EMPTY_PATH), with the
// attributes fetched from the server on NFS and FUSE. False with errno on failure.
bool statFresh(int dirfd, const char* path, int flags, KSStateFileCache::Stamp* stamp) {
    struct statx st;
    if (statx(dirfd, path, flags | AT_STATX_FORCE_SYNC, kStampMask, &st) != 0) return false;
    *stamp = stampOf(st);
    return true;
}

bool readAll(int fd, std::string* content) {
    content->clear();
    char buffer[8192];
    for (;;) {
        ssize_t n = read(fd, buffer, sizeof buffer);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) return false;
        if (n == 0) return true;
        content->append(buffer, static_cast<size_t>(n));
    }
}

}  // namespace

bool KSStateFileCache::Stamp::operator==(const Stamp& other) const {
    return exists == other.exists && devMajor == other.devMajor && devMinor == other.devMinor &&
           inode == other.inode && size == other.size && modified == other.modified &&
           changed == other.changed;
}

void KSStateFileCache::setPath(const std::string& path) {
    path_ = path;
    known_ = false;
    settled_ = false;
    exists_ = false;
    stamp_ = Stamp();
    content_.clear();
}

KSStateFileCache::Outcome KSStateFileCache::check() {
    if (!known_) return read(false);
    Stamp now;
    if (!statFresh(AT_FDCWD, path_.c_str(), 0, &now)) {
        if (errno != ENOENT) {
            error_ = errno;
            return Outcome::kFailed;
        }
        now = Stamp();
    }
    // A file that stays missing has no content to go stale; only a present one can be racy.
    if (now == stamp_ && (settled_ || !now.exists)) return Outcome::kUnchanged;
    return read(false);
}

KSStateFileCache::Outcome KSStateFileCache::reread() {
    return read(true);
}

void KSStateFileCache::remember(const std::string& content) {
    content_ = content;
    exists_ = true;
    known_ = true;
    // Written just now: racy until the margin has passed, so the stamp below only has to be
    // right enough to be compared; every check reads the file until then anyway.
    settled_ = false;
    if (!statFresh(AT_FDCWD, path_.c_str(), 0, &stamp_)) stamp_ = Stamp();
}

// The moment is taken before the open: a write that lands after the open is then certainly
// after it, and a change time older than it by the margin is older than any such write.
KSStateFileCache::Outcome KSStateFileCache::read(bool freshLookup) {
    const int64_t opened = realNowNanos();
    if (freshLookup) lookUpAfresh();
    Stamp stamp;
    std::string content;
    int fd = open(path_.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        if (errno != ENOENT) {
            error_ = errno;
            return Outcome::kFailed;
        }
    } else {
        // The stamp and the content both come from the open file, so they belong together
        // even when the path is replaced meanwhile. The forced statx also refreshes the size
        // that NFS and FUSE use to end the read.
        bool ok = statFresh(fd, "", AT_EMPTY_PATH, &stamp) && readAll(fd, &content);
        int error = errno;
        close(fd);
        if (!ok) {
            error_ = error;
            return Outcome::kFailed;
        }
    }
    const bool changed = !known_ || stamp.exists != exists_ || content != content_;
    known_ = true;
    exists_ = stamp.exists;
    stamp_ = stamp;
    settled_ = stamp.exists && stamp.changed + kRacyMarginNanos <= opened;
    if (changed) content_.swap(content);
    return changed ? Outcome::kChanged : Outcome::kUnchanged;
}

// A directory entry cached by NFS or FUSE can still name the file that the last rename
// replaced. An exclusive create makes the kernel revalidate the entry with the server; its
// expected answer is EEXIST. When it creates the file (there was none), the empty file is
// removed again: the caller holds the writers' lock, so nobody else can have written it.
void KSStateFileCache::lookUpAfresh() const {
    int fd = open(path_.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
    if (fd < 0) return;
    close(fd);
    unlink(path_.c_str());
}
