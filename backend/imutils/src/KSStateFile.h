#pragma once

// The one writer of state files that other processes read (the dirty set, move statistics, move
// state): a file is never rewritten in place, it is replaced.
//
// replace() writes the new content to a file of its own beside the target
// ("<target>.<pid>.<n>.tmp", created exclusively), flushes it to disk (fsync), renames it over
// the target and flushes the directory. rename() is atomic: a reader opens either the complete
// old file or the complete new one, never an empty or half-written one, and a writer killed at
// any moment, or stopped by a full file system, leaves the old file whole. What a killed writer
// can leave is its own temporary file, which no reader looks at.
//
// Writers that read, change and write a file must still exclude each other (a lock) or the last
// rename wins; readers need no lock. Every replacement is a new inode with a new change time,
// which is what KSStateFileCache relies on to notice it.
//
// Thread-safe (no shared state besides a counter for temporary names).

#include <string>


class KSStateFile {
  public:
    enum class Result {
        kReplaced,    // the target now holds exactly `content`
        kNotCreated,  // the temporary file could not be created; nothing changed
        kNotWritten,  // writing, flushing or renaming failed; the target is unchanged
    };

    // Replaces the file `path` by one holding `content`. The new file gets the permission bits
    // of the file it replaces, or 0666 less the umask when there was none. On failure errno
    // tells why and the temporary file is gone again.
    static Result replace(const std::string& path, const std::string& content);
};
