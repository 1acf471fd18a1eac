#pragma once

// One mount point ("part") of a repository: a directory, normally the root of its own file
// system, holding resources under the three-level hashed layout. It reads repositorypart.cfg,
// measures how full its file system is, turns that into a status bit mask (KSStatus.h) and
// remembers when it was found dead so that a dead mount is not probed again for 300 seconds.
//
// Owned by its KSRepositoryHandler, which it refers back to. Setup and the up-to-date check run
// for all mounts of a repository in parallel, one thread per mount at a time; status and used
// percentage are plain values that other threads read without locking.
//
// Member functions are spread over source files by concern:
//   KSMountPointHandler.cpp           configuration, status, fill level, dedicated detection
//   KSMountPointLocation.cpp          getLocation, createLocation, createDirectory, removeResource
//   KSMountPointCandidates.cpp        getOldestResources, getRandomResources
//   KSMountPointMove.cpp              moveResourcesNewInner

#include <sys/statvfs.h>

#include <atomic>
#include <cstdint>
#include <ctime>
#include <functional>
#include <map>
#include <mutex>
#include <random>
#include <string>

#include "ResourceEntry.h"

struct mntent;
class KSRepositoryHandler;
class KSNomoveHandler;
class KSProperties;
namespace kelp {
namespace db {
class DBConnector;
}
}  // namespace kelp

// The mount's copy plug-in: copies `origin` to `destination`; 0 on success.
typedef int (*KSMoveFunction)(const char* origin, const char* destination, const char* params);

class KSMountPointHandler {
public:
    // Settings of repositorypart.cfg; limits in percent of capacity in use, times in seconds.
    struct Config {
        double switchLimit = 93.0;
        double fullLimit = 94.0;
        double cleanLimit = 98.0;
        double moveLimit = 99.0;
        double hardFullLimit = 99.9;
        unsigned nomoveTime = 86400;
        unsigned warnmoveTime = 172800;
        unsigned moveHorizon = 2592000;
        bool fast = false;
        bool nightManagement = false;
        double nightVolumemul = 1.2;
        double nightLowerPercent = 5.0;
        double deleteOld = 5.0;
        bool countSize = true;
    };

    // Counters of the candidate walk, reset per walk; the durations, accumulated over the whole
    // walk, are logged every 1000 directories.
    struct WalkCounters {
        unsigned checked = 0;
        unsigned calls = 0;
        long long dirtyTime = 0, accessTime = 0, statTime = 0, listDirTime = 0, putResultTime = 0;
    };

    // Takes its defaults from `repository` (may be null only in tests of the free functions).
    KSMountPointHandler(std::string path, KSRepositoryHandler* repository);
    ~KSMountPointHandler();  // closes the move plug-in
    KSMountPointHandler(const KSMountPointHandler&) = delete;
    KSMountPointHandler& operator=(const KSMountPointHandler&) = delete;

    // ---- configuration and status (KSMountPointHandler.cpp) ------------------------------

    // Measures the mount; when it is alive, reads repositorypart.cfg, recomputes the cached
    // status against the limits just read and decides whether the mount is dedicated.
    void setup();
    int parseConfigFile();
    bool isUpToDate();
    // Status bit mask; a mount found dead less than 300 s ago answers 256 without disk access.
    // Thread-safe: when a dead mount's retry time has come, one caller re-reads
    // repositorypart.cfg and the others wait and answer its result, so none sees a
    // configuration half read.
    uint32_t checkStatus(bool useCached);
    // Percent in use (the larger of blocks and inodes), or -1.0 when statvfs fails.
    float getUsedPercentage();
    // statvfs of the mount as the maintenance sees it: in a dry run (the repository carries a
    // plan, see KSMaintenancePlan.h) corrected by what the plan's steps free and take. 0, or 8
    // when statvfs fails (logged).
    int fileSystemFigures(struct statvfs* out);
    bool isDedicated();
    // Textual prefix test (a mount /data/p1 also claims /data/p10/x).
    bool isOnThisMount(const char* path) const;
    // Next batch size of a move pass from the drop in use since the cycle start, clamped to
    // 100..50000.
    unsigned recalculateCollectNum(unsigned current);
    void writeToLog(const char* text);
    // Lets the next checkStatus probe the disk even if the mount was found dead less than 300 s
    // ago (used when an operator brings a mount back).
    void reprobe();

    const std::string& path() const { return path_; }
    const std::string& lastMoveFile() const { return lastMoveFile_; }
    KSRepositoryHandler* repository() const { return repository_; }
    Config& config() { return config_; }
    const Config& config() const { return config_; }
    uint32_t status() const { return status_.load(); }
    double usedPercentage() const { return usedPercentage_.load(); }
    double usedAtCycleStart() const { return usedAtCycleStart_; }
    void setUsedAtCycleStart(double used) { usedAtCycleStart_ = used; }
    bool dedicated() const { return dedicated_; }
    bool upToDate() const { return upToDate_; }
    KSMoveFunction moveFunction() const { return moveFunction_; }
    const std::string& moveParams() const { return moveParams_; }
    WalkCounters& counters() { return counters_; }

    // ---- resources on this mount (KSMountPointLocation.cpp) ------------------------------

    // Returned texts are new[] arrays owned by the caller; null when not found.
    char* getLocation(const char* resource, int* status, int* mountFlags, bool touch,
                      bool useMountStatus);
    char* createLocation(const char* resource, int* status, bool dirty);
    // As createLocation, and also creates the resource directory itself (mode 0755). A
    // directory that exists already is returned as it is, unless `exclusive` is set: then it is
    // an error (status 8, null). The status is `dirty` (0/1) on success.
    char* createDirectory(const char* name, int* status, bool dirty, bool exclusive);
    // Deletes the resource from this mount and the hash levels left empty: 4 when the resource
    // is not here, otherwise the deleter's result (0 or 8).
    int removeResource(const char* resource, bool useCallback);

    // ---- candidates and moving (KSMountPointCandidates.cpp, KSMountPointMove.cpp) --------

    // Size of `result` after the walk; 0 for maxCount 0; 0xFFFFFFFF when stopped or dead.
    // Entries are examined with lstat: a symbolic link anywhere in the tree is skipped, so the
    // walk never leaves the mount and no link is taken for a resource.
    uint32_t getOldestResources(kelp::db::DBConnector* connection, ResourceSet& result,
                                KSNomoveHandler* nomove, uint32_t maxCount, ResourceSet* ownSet,
                                const std::string& relativeDir, int depth);
    // For emptying the mount: up to `maxCount` resources of any age, dirty ones included, found
    // by visiting the hash directories of every level in random order and stopping once enough
    // are found (so a call costs about maxCount stats however large the mount). Skips no-move
    // names and the root "lost+found". Same results as getOldestResources.
    uint32_t getRandomResources(kelp::db::DBConnector* connection, ResourceSet& result,
                                KSNomoveHandler* nomove, uint32_t maxCount);
    // Every resource of the mount, walked as getOldestResources walks (O_NOATIME listings, so no
    // access time changes; lstat, so no link is followed; the root "lost+found" skipped), each
    // given to `visit` with its lastAccess time and its lstat data, of any age, dirty or not.
    // `visit` returns false to end the walk. The number of resources visited, or 0xFFFFFFFF
    // when the stop flag is set or the mount is dead.
    uint32_t walkResources(
        const std::function<bool(const ResourceEntry&, const struct stat&)>& visit);
    // Starts the random order of getRandomResources afresh: the sequence is fixed per mount
    // path, so that an emptying and its dry run, each starting with this, draw alike.
    void restartRandomOrder();
    // Walks the hash directories in byte order from `resumeHash` (wrapping round), moving every
    // resource older than `moveTime` (and not dirty, not in use) to another mount until this
    // one is below its clean limit. `resumeHash` becomes the hash directory in hand when the
    // pass ends early and is cleared after a whole round. `ageMap` gets, per whole day of age,
    // the estimated space (file-system fragments, as blocksToFree counts) of the resources
    // that stay: their count times the mean size of a sample of them.
    // 0 below the clean limit, 1 a whole round left it too full, 2 no target mount left,
    // 3 stopped, -1 the mount cannot be read.
    int moveResourcesNewInner(kelp::db::DBConnector* connection, std::string& resumeHash,
                              unsigned moveTime, std::map<int, double>& ageMap);

private:
    void loadMovePlugin(const char* library, const char* params);
    void applyConfig(KSProperties& properties);
    uint32_t markDead(time_t now);
    uint32_t revive(time_t now);
    uint32_t measure(time_t now);
    uint32_t statusBits(double used) const;
    static bool onlyEntryBesidesLostFound(const std::string& parent);

    std::string path_;
    std::string logPath_;
    std::string lastMoveFile_;
    KSRepositoryHandler* repository_;
    Config config_;
    std::atomic<uint32_t> status_{0};
    std::atomic<double> usedPercentage_{0.0};
    double usedAtCycleStart_ = 0.0;
    std::atomic<time_t> configMtime_{0};
    std::atomic<time_t> deadSince_{0};
    // Serialises the re-reading of the configuration when a dead mount comes back (revive).
    std::mutex reviveMutex_;
    bool dedicated_ = false;
    bool upToDate_ = true;
    void* pluginHandle_ = nullptr;
    KSMoveFunction moveFunction_ = nullptr;
    std::string moveParams_;
    WalkCounters counters_;
    std::mt19937 random_;  // getRandomResources' order; the emptying's thread only
};

// Free functions of the mount layer.
double getConfigValue(KSProperties* properties, const char* key);
// 0, or 8 when statvfs fails (logged). Null arguments throw KSAssertionException.
int myStatVfs(const char* path, struct statvfs* out);
// 0, or 1 when `known` is null and the path cannot be queried.
int blocksToFree(const char* path, double percent, long* count, struct statvfs* known);
bool IsOnTheSameMount(const char* a, const char* b);
// The mount directory of the file system holding `path` (deepest /proc/mounts match).
std::string getMountpoint(const char* path, struct mntent* entry, char* buffer,
                          unsigned long size);
// The whole standard output of a shell command, NUL bytes included. Only for commands built by
// ShellCommand. Throws std::runtime_error("popen() failed!") when the shell cannot be started
// and KSAssertionException for a null command.
std::string exec(const char* command);
