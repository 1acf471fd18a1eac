#pragma once

// The change record of a state file that several servers share and change under a database lock
// (the dirty set of a shared repository): a row of the change table beside the lock table,
// keyed like the file's lock, that every writer updates while it holds that lock. It lets a
// writer tell whether what its file system client served is what the last writer wrote.
//
// Why: the clients of network file systems cache attributes, directory entries and small files
// (GlusterFS's FUSE client does so by default for about a second, whatever the kernel is told),
// so a read under the lock can return the content before the last rename even when the
// attributes were asked for with AT_STATX_FORCE_SYNC. Written back, such a copy loses the last
// writer's marks and revives the ones it cleared. The database answers every server alike.
//
// The protocol, all under the file's lock:
//   Writer, before it replaces the file: records {counter + 1, content: fingerprint of the new
//     content, previous: fingerprint of the content it replaces}; then replaces the file. When
//     the replacement fails (the file is then unchanged), it records {content: previous}
//     again. When the record cannot be written, the file is not replaced.
//   Reader (every writer reads first): reads the file afresh and compares the content's
//     fingerprint ("<size>:<SHA-256>", or "missing") with the record:
//     - no record (a repository no writer has recorded yet): the content is taken as read;
//     - equal to `content`: current;
//     - otherwise its client served stale data: it opens and reads again, with a growing pause,
//       for up to the wait (10 s, several times the caches' lifetime of GlusterFS and FUSE).
//     After the wait, content equal to `previous` is the truth: the last writer recorded its
//     change and stopped before its rename (a crash, or a failed replacement whose record
//     could not be put back); the record is put right and the content taken. Anything else is
//     an error (logged): nothing is written back in this call, and the record is set to what
//     the file has held for the whole wait, so that a file changed outside the protocol (an
//     operator, a restore) is refused once, not for ever.
// The file stays the truth for the content: the record only decides whether a read may be
// trusted. A crash between the record and the rename makes the next writer wait once.
//
// When the change table is missing (a database whose schema predates it), an error is logged
// once and the file is read and written without a record, as on storage that caches nothing.
//
// Not thread-safe: the owner serialises calls (KSDirtyFlagHandler holds its mutex).

#include <chrono>
#include <string>

#include "LockDB.h"

class KSStateFileCache;

class KSSharedFileRecord {
  public:
    enum class Read {
        kConfirmed,    // the file's content (in the cache) is the one the last writer wrote
        kFailed,       // the file could not be read (the cache's error() tells why)
        kUnconfirmed,  // the storage never served the recorded content within the wait, or the
                       // record could not be read (both logged): write nothing
    };

    static constexpr std::chrono::milliseconds kDefaultWait{10'000};

    // Binds to the file at `path` and the lock id it is changed under; forgets the record.
    void bind(const std::string& path, const std::string& lockId);
    // How long a reader waits for the recorded content (tests shorten it).
    void setWait(std::chrono::milliseconds wait) { wait_ = wait; }

    // Under the lock: reads the file through `file` (KSStateFileCache::reread) until its content
    // matches the record, as described above. `db` is the lock's own connection.
    Read readConfirmed(kelp::db::LockDB* db, KSStateFileCache& file);
    // Under the lock, before the file is replaced by `content`: records the change. False when
    // it could not be recorded (logged); the file must then stay as it is.
    bool beforeReplace(kelp::db::LockDB* db, KSStateFileCache& file, const std::string& content);
    // After the replacement: `replaced` false puts the record back to the unchanged content.
    void afterReplace(kelp::db::LockDB* db, bool replaced);

    // "<size>:<SHA-256 in hex>" of a present file's content; "missing" for no file.
    static std::string fingerprint(bool exists, const std::string& content);

  private:
    bool load(kelp::db::LockDB* db);
    bool store(kelp::db::LockDB* db, const kelp::db::LockDB::ChangeRecord& record);
    void repair(kelp::db::LockDB* db, const std::string& seen, uint64_t counter);
    Read confirmWithoutRecord(KSStateFileCache& file);
    void logUnusable(const char* what);

    std::string lockId_;
    std::string path_;
    std::chrono::milliseconds wait_ = kDefaultWait;
    bool usable_ = true;  // false once the change table proved missing
    bool have_ = false;   // record_ holds the row, as last read
    kelp::db::LockDB::ChangeRecord record_;
    kelp::db::LockDB::ChangeRecord pending_;
};
