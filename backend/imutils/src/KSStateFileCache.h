#pragma once

// The one place that decides whether this process's copy of a state file (written by
// KSStateFile::replace, read by several processes, possibly on several servers) is still
// current, and reads the file again when it is not.
//
// The rule for "current":
//   A copy is current when the file's identity and time stamps (device, inode, size,
//   modification and change time, fetched with statx and AT_STATX_FORCE_SYNC so that NFS and
//   FUSE ask the server instead of answering from their attribute cache) equal the ones read
//   together with the copy, AND that copy is settled: the file's change time was at least
//   kRacyMarginNanos older than the moment this process opened it.
//
// Why settled: file systems stamp files with a coarse clock (once per kernel tick on ext4, xfs
// and ramfs; whole seconds or two seconds on others), so two writes within one tick carry the
// same time stamp. A copy read in the tick of the file's last change is "racily clean": another
// write in that same tick would leave every stamp equal (the inode number too, on file systems
// that reuse it, or on FUSE file systems that report one per path). Such a copy is never
// trusted by its stamps: every check reads the file again and compares the content, until the
// stamps are old enough. A settled copy is safe because any later write happens after the
// open, so its change time (set when the file is written or renamed into place) falls in a
// later tick and differs. The margin covers the coarsest common granularity (2 s) and a second
// of clock difference between servers that share the storage.
//
// Under a writer's lock use reread(): it does not trust any cache at all. The name is looked
// up afresh (an exclusive create that fails, which NFS and FUSE must check with the server
// instead of using their cached directory entry), the attributes are fetched from the server
// and the whole file is read. The file is small; a read-modify-write then always starts from
// the newest content, whatever the storage caches.
//
// Not thread-safe: the owner serialises calls (KSDirtyFlagHandler holds its mutex).

#include <cstdint>
#include <string>


class KSStateFileCache {
  public:
    enum class Outcome {
        kUnchanged,  // the copy is current (possibly after reading the file again)
        kChanged,    // content() now holds the file's new content (or exists() turned false)
        kFailed,     // the file could not be examined; the copy is kept, error() tells why
    };

    static constexpr int64_t kRacyMarginNanos = 3'000'000'000;

    KSStateFileCache() = default;

    // Binds to a file and forgets any copy; the next check reads it.
    void setPath(const std::string& path);
    const std::string& path() const { return path_; }

    // The check of a reader: a statx of the path, and a read only when the copy is not current
    // by the rule above.
    Outcome check();
    // The check under a writer's lock: always reads the file, fresh from the server.
    Outcome reread();
    // Records `content` as the file's content after this process replaced the file itself.
    void remember(const std::string& content);

    // The copy: the file's content as last read (empty when the file did not exist).
    const std::string& content() const { return content_; }
    bool exists() const { return exists_; }
    // errno of the last kFailed.
    int error() const { return error_; }
    // Whether the last check or read found the copy settled (for tests and benchmarks).
    bool settled() const { return settled_; }

    struct Stamp {
        bool exists = false;
        uint32_t devMajor = 0, devMinor = 0;
        uint64_t inode = 0, size = 0;
        int64_t modified = 0, changed = 0;  // nanoseconds since the epoch
        bool operator==(const Stamp& other) const;
    };

  private:
    Outcome read(bool freshLookup);
    void lookUpAfresh() const;

    std::string path_;
    bool known_ = false;
    bool settled_ = false;
    bool exists_ = false;
    Stamp stamp_;
    std::string content_;
    int error_ = 0;
};
