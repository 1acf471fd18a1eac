#pragma once

// The plan of a maintenance run (the overload check or the emptying of a mount) made without
// acting: every deletion and move the run would make, in order, and the fill level each mount
// would reach.
//
// A dry run is the real run's deciding code working on a private repository handler that
// carries a plan (KSRepositoryHandler::plan()). Wherever the real run acts (deletes, moves,
// writes a state file, takes a lock, sends a warning) the dry run records a step here instead,
// and the plan then stands in for the disk: the walks list directories and stat entries through
// list() and lstat(), and the mounts' fill levels through adjust(), so that every later decision
// of the same run sees the tree and the levels the real run would see after the steps so far.
//
// The simulation counts what the steps free and take in 512-byte blocks and inodes, as stat
// reports them for the files and directories of each resource and for the hash levels that a
// step empties (the real run removes them) or creates. That is exact on tmpfs and close on other
// file systems (which keep directories and metadata in blocks of their own).
//
// Not thread-safe; one maintenance thread owns it.

#include <sys/stat.h>
#include <sys/statvfs.h>

#include <cstdint>
#include <list>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "ResourceEntry.h"

class KSMaintenancePlan {
  public:
    enum class Action { Delete, Move };

    struct Step {
        Action action = Action::Move;
        std::string name;    // the resource's short name
        std::string from;    // its location now
        std::string to;      // the location it would move to (empty for a deletion)
        int fromMount = -1;  // index in the repository's mount list, -1 unknown
        int toMount = -1;
        int64_t time = 0;              // later of last access and last modification
        unsigned long long bytes = 0;  // bytes of its files
    };

    struct Mount {
        std::string path;
        bool dead = false;
        double usedBefore = -1.0;  // percent in use when planning began (-1: unknown)
        double usedAfter = -1.0;   // percent in use after every step of the plan
        double moveLimit = 0.0;    // the limits the run worked with (night mode lowers them)
        double cleanLimit = 0.0;
        uint32_t statusBefore = 0;
        uint32_t statusAfter = 0;
    };

    std::vector<Step> steps;
    std::vector<Mount> mounts;
    // What the real run would record beside its steps, e.g. a new move time of a mount.
    std::vector<std::string> notes;
    bool stopped = false;  // the planning was ended by a stop signal

    // The entries of `directory` as the plan leaves them (an O_NOATIME listing of the disk
    // without what the steps took away, with what they brought).
    void list(const std::string& directory, std::list<std::string>* names) const;
    // lstat of `path` as the plan leaves it: -1 (errno ENOENT) for what the steps took away;
    // a directory with the moved resource's times for what they brought.
    int lstat(const std::string& path, struct stat* st) const;
    bool exists(const std::string& path) const;
    // Bytes of the files below `path` as the plan leaves it.
    unsigned long long bytesOf(const std::string& path) const;
    // Blocks of 512 bytes taken by `path` and everything below it.
    unsigned long long blocksOf(const std::string& path) const;

    // Corrects the file-system figures of the mount at `mountPath` by what the steps so far
    // freed on it and took from it.
    void adjust(const std::string& mountPath, struct statvfs& vfs) const;

    // Records a deletion of `entry` (lying on the mount `mountPath`) and applies it.
    void recordDeletion(const ResourceEntry& entry, const std::string& mountPath, int mountIndex);
    // Records a move of `entry` from the mount `fromPath` to `destination` on the mount `toPath`
    // and applies it.
    void recordMove(const ResourceEntry& entry, const std::string& fromPath, int fromIndex,
                    const std::string& destination, const std::string& toPath, int toIndex);

  private:
    struct Footprint {
        unsigned long long bytes = 0, blocks = 0, inodes = 0;
    };
    struct Added {
        struct stat st;
        Footprint footprint;
    };
    struct Change {
        long long blocks = 0, inodes = 0;  // freed (negative: taken)
    };

    Footprint footprintOf(const std::string& path) const;
    // Takes `path` away and, like the real run's clean-up, the hash levels it leaves empty.
    void takeAway(const std::string& path, const std::string& mountPath);
    // Creates the hash levels above `destination` that are missing and puts it there.
    void bringIn(const std::string& destination, const std::string& mountPath, time_t time,
                 const Footprint& footprint);

    std::set<std::string> removed_;
    std::map<std::string, Added> added_;
    std::map<std::string, Change> changes_;  // by mount path
};

// The tree as a maintenance run sees it: the disk itself (an O_NOATIME listing, lstat) when
// `plan` is null, else the disk as the plan leaves it.
void maintenanceList(const KSMaintenancePlan* plan, const std::string& directory,
                     std::list<std::string>* names);
int maintenanceLstat(const KSMaintenancePlan* plan, const std::string& path, struct stat* st);
