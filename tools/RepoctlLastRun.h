#pragma once

#include <string>

// The figures of the last maintenance run (check-overload or free-mount) that repoctl made on a
// repository, kept so that `repoctl metrics` can report them between runs.
//
// They live in "$VAR/lastrun-<repository id>.cfg" (the id as the library forms it from the
// repository path, like the move state's lastmove-*.cfg) in the properties format, replaced
// atomically: a reader sees the previous run's record or the new one, never half of one. Without
// VAR nothing is recorded. Each server keeps its own record of the runs it made.
struct RepoctlLastRun {
    std::string command;    // "check-overload" or "free-mount"
    bool night = false;     // check-overload --night
    long long started = 0;  // seconds since the epoch
    double seconds = 0;     // duration
    unsigned long long checked = 0, moved = 0, deleted = 0, bytes = 0;
    bool stopped = false;  // ended early by a signal or the stop mark
    int exitCode = 0;      // repoctl's exit status for the run

    // The record's file for the repository at `repository`, or empty when VAR is unset.
    static std::string fileFor(const std::string& repository);

    // Replaces the record of `repository`. False (errno set) when it could not be written.
    bool record(const std::string& repository) const;

    // Reads the record of `repository`. False when there is none or it cannot be read.
    bool load(const std::string& repository);
};
