#pragma once

// One repository: its settings from repository.cfg, its ordered mount points, its dirty set and
// the operations that place, find, remove and move resources on those mounts.
//
// Handlers are shared: the process-wide registry (getRepository) and every call in progress
// hold a std::shared_ptr, so a reload replaces a handler without destroying one in use.
// A handler is used by many threads at once; each concern synchronises the state it changes.
//
// Member functions are spread over source files by concern:
//   KSRepositoryHandler.cpp          configuration, setup, up-to-date check, status, mount aids
//   KSRepositoryRegistry.cpp         getRepository and the registry
//   KSRepositoryLookup.cpp           getLocation, getLocationOnMount, callbacks, listings
//   KSRepositoryCreate.cpp           createLocation, createDirectory, mount choice
//   KSRepositoryRemove.cpp           removal, resource status, time properties, makeEmpty
//   KSRepositoryLegacy.cpp           createToLegacy and the legacy take-over helpers
//   KSRepositoryLocks.cpp            lockResource/unlockResource, isDirty/setDirty
//   KSRepositoryCandidates.cpp       getGlobalOldestResources
//   KSRepositoryMove.cpp             moveResourcesFromMount, moveResourcesNew, emptying a mount
//   KSRepositoryOverload.cpp         checkOverload and its steps, deleteResourcesFromMount
//   KSRepositoryPlan.cpp             the dry runs: planCheckOverload, planFreeMount
//   KSRepositoryStatistics.cpp       writeCalcData, warnMoveTimeWarning, moveTimeWarning
//
// This header also declares the whole exported C surface (repohandler.h), so that a C++ caller
// that includes only this header can call every exported function.

#include <atomic>
#include <condition_variable>
#include <csignal>
#include <ctime>
#include <functional>
#include <list>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "KSDirtyFlagHandler.h"
#include "KSMountPointHandler.h"
#include "KSStatus.h"
#include "ResourceEntry.h"
#include "repohandler.h"

struct utimbuf;
class KSMaintenancePlan;
class KSNomoveHandler;
class KSProperties;
namespace kelp {
namespace db {
class DBConnector;
}
}  // namespace kelp

class KSRepositoryHandler {
public:
    // Settings read from repository.cfg (and repository.NN.*.cfg); defaults as documented in
    // the README. Times are in seconds.
    struct Settings {
        std::string legacyDir;  // empty: no legacy directory
        bool maintainLegacyLinks = false;
        bool followLegacyLinks = false;
        double remindLimit = 80.0;
        double warnLimit = 90.0;
        double warn2Limit = 91.0;
        double warn3Limit = 92.0;
        double switchLimit = 93.0;
        double fullLimit = 94.0;
        double cleanLimit = 98.0;
        double moveLimit = 99.0;
        double hardFullLimit = 99.9;
        int numThreads = 64;
        bool isClearable = false;
        bool isClearableMove = false;
        unsigned nomoveTime = 86400;
        unsigned warnmoveTime = 172800;
        unsigned moveTime = 2592000;
        bool isShared = true;
        std::string resolver;  // empty or "RepositoryDataResolver"
        std::string callback;  // empty or "RepositoryStudyCallback"
        bool countSize = true;
        bool authoritativeMode = true;
        bool forceDedicated = false;
        // Empty: lock ids are formed from the repository path. Otherwise the name under which
        // every server locks this repository, wherever it mounts the share.
        std::string repositoryId;
    };

    using MountList = std::vector<std::unique_ptr<KSMountPointHandler>>;
    // The state of one repository-wide lookup (KSRepositoryLookup.cpp).
    struct Lookup;

    // Builds the handler for `path` (already normalised) and runs setup(). Never throws for a
    // missing directory or a bad configuration: the handler is then marked unusable.
    KSRepositoryHandler(kelp::db::DBConnector* db, const char* path);
    ~KSRepositoryHandler();
    KSRepositoryHandler(const KSRepositoryHandler&) = delete;
    KSRepositoryHandler& operator=(const KSRepositoryHandler&) = delete;

    // ---- configuration and registry (KSRepositoryHandler.cpp) ----------------------------

    // Resets every setting to its default and loads the configuration again, in place.
    // Returns the new last-check time. Not safe against concurrent operations on this handler.
    time_t setup(kelp::db::DBConnector* db, const char* path);
    // 0 on success, 1 when a configuration file exists but cannot be read.
    int parseConfigFile();
    // Within 9 seconds of the last check (and without `force`) true without file access.
    // Of several callers whose quiet period ends at the same moment, one does the file checks;
    // the others are answered true for that call.
    bool isUpToDate(bool force);
    // Runs KSMountPointHandler::setup on every mount once (in parallel). A caller on another
    // thread that arrives while the setup runs waits until it is done rather than returning at
    // once, so that it never sees mounts half set up.
    void initMPHandlers();
    bool mountHandlersInitialised() const { return mpInitialised_.load(); }
    bool mountHandlersInitialising() const { return mpInitialising_.load(); }
    // `given` when not null or when the repository is not shared; else the repository's own
    // connector, created on first use and owned by the handler.
    kelp::db::DBConnector* getDbConnector(kelp::db::DBConnector* given);
    bool isShared() const { return settings_.isShared; }
    bool isSingleMountNonClearable() const;
    // Repository status flags (KSStatus.h), computed afresh from every mount.
    int checkRepositoryStatus();
    int repositoryStatus() const { return repositoryStatus_.load(); }
    // Maintenance aids. A mount is taken out by renaming its repositorypart.cfg to
    // repositorypart.no (it then tests as dead) and given back by renaming it again; each aid
    // ends by recomputing the repository status.
    // rndMount toggles a mount chosen by rand(); nothing happens without mounts.
    void rndMount();
    // `mount` true gives the mount at `mountIndex` back (probed again at once), false takes it
    // out. -1 for an index outside the mount list, else 0.
    int MountUnmount(int mountIndex, bool mount);
    // Gives back every mount taken out. The number of mounts given back, or -1 when a rename
    // failed.
    int giveBackMounts();

    const std::string& path() const { return path_; }
    const std::string& canonicalPath() const { return canonicalPath_; }
    // What the lock ids of this repository are formed from (toResourceID's first argument for
    // its resources and its maintenance lock; the dirty file's lock adds "/.dirty"): the
    // `repositoryId` setting when set, else the repository path. Every server that shares the
    // repository must arrive at the same text, or their locks do not exclude each other.
    const std::string& lockScope() const {
        return settings_.repositoryId.empty() ? path_ : settings_.repositoryId;
    }
    const Settings& settings() const { return settings_; }
    MountList& mounts() { return mounts_; }
    const MountList& mounts() const { return mounts_; }
    bool isUnusable() const { return unusable_; }
    bool hasNonFastMount() const { return hasNonFastMount_.load(); }
    KSDirtyFlagHandler& dirtyFlags() { return dirtyFlags_; }
    time_t configModificationTime() const { return configMtime_; }

    // Runs `operation` on every mount with at most `threads` threads (the calling thread
    // included); returns when it has run on all of them.
    static void parallelRun(MountList& mounts, int threads,
                            const std::function<void(KSMountPointHandler&)>& operation);
    // The share of parallelRun done by one thread: the mounts at first, first + step, ...
    static void runInThread(MountList& mounts, int first, int step,
                            const std::function<void(KSMountPointHandler&)>& operation);

    // ---- lookup (KSRepositoryLookup.cpp) --------------------------------------------------

    // Returned texts are new[] arrays owned by the caller; null when not found. Resource names
    // are single path components (leading slashes are ignored); any other name ("", ".", "..",
    // "a/b") is refused with status 8 and an error log line, before any file or lock is used.
    // `status` may be null. Status codes: KSResourceStatus (KSStatus.h).
    // A failed merge of duplicates or take-over from the legacy directory reports 2 or 8 as the
    // mover said, and any other failure (such as a command's raw exit status) as 2. A configured
    // resolver cannot run without TASKD_HOME: the merge then fails with 2 and an error line.
    char* getLocation(kelp::db::DBConnector* connection, const char* resource, int* status,
                      bool touch, bool lock, bool useCallback, bool onlyIfDirty);
    char* getLocationOnMount(kelp::db::DBConnector* connection, const char* resource,
                             const char* mountName, int* status, bool lock, bool touch);
    // Appends to `locations` every location of the resource, one per live mount that holds a
    // copy (configuration order), and with `includeLegacy` its legacy entry when one exists.
    // Nothing is merged, touched or moved. `lock` takes the resource lock for the walk.
    // Returns the number of locations appended, or the negated status code on failure
    // (-8: null list, unusable repository or unsafe name; -16: the lock was not obtained).
    int getLocations(kelp::db::DBConnector* connection, const char* resource,
                     std::list<std::string>* locations, bool lock, bool includeLegacy);
    // The path of the mount that holds the absolute `path` (after lexical normalisation): the
    // mount directory itself or a directory above it. Null for a relative path or none.
    char* getMountFromPath(kelp::db::DBConnector* connection, const char* path);
    // The path of the mount on which the resource `directory` lies. With a callback configured
    // the information callback is asked first (with "-d"); a non-empty answer is returned as
    // it stands, and in authoritative mode an empty answer gives null. Otherwise the resource
    // is looked up (no lock, no touch, no callback). Null when not found.
    char* getMountPathForDirectory(kelp::db::DBConnector* connection, const char* directory);
    // The names of the resources of every live mount (below the three hash levels), sorted,
    // each once. kind 1: resource directories, 2: plain files at resource level; any other
    // kind gives an empty list. `includeLegacy` adds the entries of the legacy directory
    // (kind 1: directories and links, kind 2: other files). Returns a new[] array of new[]
    // texts, terminated by a null entry; *count (when not null) is its length without it.
    char** listResources(int kind, long* count, bool includeLegacy);
    // $TASKD_HOME/runjavacmd -c "getinfo quorra.repohandler.<callback> -r <resource> -p <repo>
    // [-c] [-d] [-s]", standard output with trailing white space removed. Empty when TASKD_HOME
    // is unset or the command is refused (a name that would leave its quotes). A shell that
    // cannot be started throws std::runtime_error("popen() failed!"), which leaves getLocation
    // and getMountPathForDirectory as well: it is no answer, least of all "not present".
    std::string runInfoCallback(const char* resource, bool c, bool d, bool s);

    // ---- creation and mount choice (KSRepositoryCreate.cpp) -----------------------------

    // Location for a new resource (the caller creates the directory), or the existing one with
    // *existed 1. A name that is not a single component (after leading slashes are removed)
    // throws KSAssertionException. Null with *status 8 when no mount can take it.
    char* createLocation(kelp::db::DBConnector* connection, const char* resource, int* status,
                         int* existed, bool noDirty);
    // As createLocation, but the resource directory itself is created too. *secondStatus
    // (may be null) is 1 when the resource existed already (its location is returned), 0 when
    // it was created. `useCallback`: the lookup consults the information callback, and a new
    // directory is reported to the study callback. `noDirty`: as in createLocation.
    // `exclusive`: an existing resource is not returned: null with *status 8.
    char* createDirectory(kelp::db::DBConnector* connection, const char* resource, int* status,
                          int* secondStatus, bool useCallback, bool noDirty, bool exclusive);
    int getActualMountPoint();
    int getActualMountPointForMove(KSMountPointHandler* source, bool verbose);
    int getActualMountPointForLegacy();

    // ---- removal, status, time properties (KSRepositoryRemove.cpp) ----------------------

    // The status of a locked lookup with the callback (KSResourceStatus); 8 for a name that is
    // not a single path component (the empty one included, logged).
    int checkResourceStatus(kelp::db::DBConnector* connection, const char* resource);
    // Removal results are the statuses of the single removals ORed together: 0 removed, 1 still
    // dirty (nothing removed), 4 nowhere, 8 erroneous (also an unsafe name, and a null
    // `mountName`), 16 lock failed. A legacy entry that does not exist is not examined, so its
    // absence logs nothing.
    int removeResource(kelp::db::DBConnector* connection, const char* resource, bool lock,
                       bool useCallback);
    int removeResourceOnMount(kelp::db::DBConnector* connection, const char* resource,
                              const char* mountName, bool lock, bool useCallback);
    // Access and modification time of the resource's location; false (pair untouched) when the
    // resource is not found or its location cannot be stat-ed. setTimeProperties: utime on the
    // location (null `times`: now). Both answer false for a name that is not a single path
    // component (the empty one included, logged).
    bool getTimeProperties(kelp::db::DBConnector* connection, const char* resource,
                           struct utimbuf* times);
    bool setTimeProperties(kelp::db::DBConnector* connection, const char* resource,
                           const struct utimbuf* times);
    // Empties the whole repository: clears the dirty set, gives back every mount taken out and
    // removes (locked, with the callback) every resource listed by listResources, the legacy
    // directory's entries included. Only entries below the hash levels are taken for
    // resources, so the mounts' own files stay.
    void makeEmpty(kelp::db::DBConnector* connection);

    // ---- legacy directory (KSRepositoryLegacy.cpp) ---------------------------------------

    // new[] text of the created legacy path, or null (no legacy directory, unsafe name,
    // mkdirs failure).
    char* createToLegacy(const char* resource);

    // ---- locks and dirty flags (KSRepositoryLocks.cpp) -----------------------------------

    // Takes the lock of toResourceID(path, resource) (a lock row for shared repositories, a
    // lock file otherwise) and keeps it after the call: 1, or 0 after waiting up to 30 seconds
    // (logged). Slashes in the name are flattened in the identity, so any name is safe here,
    // except the empty one: it would be the repository's own maintenance lock, and is refused
    // with 0 (logged). A null resource throws KSAssertionException.
    int lockResource(kelp::db::DBConnector* connection, const char* resource);
    // Gives that lock back whoever took it: 1, or 0 when the release fails (logged), e.g. when
    // no lock file is there, and for the empty name (logged), which would release a running
    // maintenance pass's repository lock. A null resource throws KSAssertionException.
    int unlockResource(kelp::db::DBConnector* connection, const char* resource);
    // 1 when the resource is in the dirty set as the .dirty file holds it now, else 0 (also for
    // the empty name, refused and logged).
    int isDirty(kelp::db::DBConnector* connection, const char* resource);
    // Adds the resource to the dirty set or removes it (see KSDirtyFlagHandler::setDirty).
    // False when the change could not be written to the .dirty file. The empty name is refused
    // (logged), changes nothing and answers true.
    bool setDirty(kelp::db::DBConnector* connection, const char* resource, bool dirty);

    // ---- capacity management --------------------------------------------------------------

    // One maintenance pass over the mounts in configuration order, under the repository lock
    // (`verbose`: progress on standard output; `night`: night-managed mounts' limits are
    // lowered first, in memory). So that a pass always ends, a cleaning cycle that neither
    // deleted nor moved anything ends its mount, and deleting for room (while no mount can
    // take a moved resource) tries each resource once: it gathers again with a recalculated
    // collect number until it has deleted enough, or a gathering at the largest collect number
    // (50000) offers no resource it has not tried yet. A run that ends with the stop flag set
    // logs "Checkoverload interrupt signal is %d" once, whatever way it ends.
    void checkOverload(kelp::db::DBConnector* connection, bool verbose, bool night);
    int getGlobalOldestResources(kelp::db::DBConnector* connection, ResourceSet& result,
                                 KSNomoveHandler* nomove, unsigned collectNum, bool deleteOld,
                                 ResourceSet* ownSet, int mountIndex);
    int moveResourcesFromMount(kelp::db::DBConnector* connection, KSMountPointHandler* mount,
                               KSNomoveHandler* nomove, bool verbose, unsigned collectNum);
    int moveResourcesNew(kelp::db::DBConnector* connection, KSMountPointHandler* mount);
    int deleteResourcesFromMount(kelp::db::DBConnector* connection, KSMountPointHandler* mount,
                                 KSNomoveHandler* nomove, unsigned maxCount);
    // Empties the mount whose path is `mount`; `verbose` also prints progress. Returns
    //   0  the mount holds no resource any more ("Finished.");
    //   1  resources were left on it: one could not be moved (each is tried once per call), no
    //      other mount could take more, the run was stopped by a signal, or the mount went dead
    //      meanwhile ("Not all resources could be moved");
    //  -1  the emptying did not begin: the mount is unknown or unmounted, or the repository
    //      lock was refused. Nothing was moved.
    int moveAllResourcesFromMount(kelp::db::DBConnector* connection, const char* mount,
                                  bool verbose);
    // Moves the resource onto the last usable fast mount; its new location (new[]), or null
    // when it needs no move, cannot be found or the move did not leave it there (any non-zero
    // moveRes result, a failed copy command's status included).
    char* unAge(kelp::db::DBConnector* connection, const char* resource);
    // Records today's percent of `mount` freed since `usedBefore` in its statistics file
    // (NightProperties.h): the day's first record always, later ones only when space was freed.
    // Logged, never printed (`verbose` changes nothing). Without VAR: an error line, no record.
    void writeCalcData(bool verbose, KSMountPointHandler* mount, double usedBefore);
    // Administrators' warnings through $KSADMIN_HOME/sendmessage.sh, at most one a day per
    // subject, told by the time of a marker file in $TMP ("/tmp" when TMP is unset).
    void warnMoveTimeWarning(const char* action, const time_t* resourceTime);
    void moveTimeWarning(KSMountPointHandler* mount, int days);
    std::list<std::string>* getDeletedDirs() { return &deletedDirs_; }
    unsigned collectNum() const { return collectNum_; }

    // Counters of the maintenance in progress (checkOverload, moveAllResourcesFromMount), reset
    // when one starts. Written by the maintenance thread, readable from any other thread, so
    // that a tool can show progress while the maintenance runs.
    struct MaintenanceProgress {
        std::atomic<unsigned long long> checked{0};  // resources looked at
        std::atomic<unsigned long long> moved{0};
        std::atomic<unsigned long long> deleted{0};
        std::atomic<unsigned long long> bytes{0};  // moved or deleted
        std::atomic<int> mountIndex{-1};           // mount being worked on, -1 none
        void reset() {
            checked = moved = deleted = bytes = 0;
            mountIndex = -1;
        }
    };
    MaintenanceProgress& progress() { return progress_; }

    // ---- dry runs (KSRepositoryPlan.cpp) ---------------------------------------------------

    // What checkOverload(connection, false, night) would do now to the repository at `path`,
    // decided by the same code on a private handler (see KSMaintenancePlan.h), without
    // changing anything on disk, in the dirty set or in the database: no lock is taken, no
    // file written, no resource touched, and the registry's handler (its limits included) is
    // left alone. A stop signal ends the planning as it ends a run. Exceptions pass as from
    // checkOverload. `watch`, when set, is called (in the calling thread) with the private
    // handler before the planning starts, e.g. to show its progress() from another thread.
    using PlanWatch = std::function<void(const std::shared_ptr<KSRepositoryHandler>&)>;
    static KSMaintenancePlan planCheckOverload(kelp::db::DBConnector* connection, const char* path,
                                               bool night, const PlanWatch& watch = nullptr);
    // What moveAllResourcesFromMount(connection, mount, false) would do, the same way; `result`
    // (may be null) gets the result the real run would return.
    static KSMaintenancePlan planFreeMount(kelp::db::DBConnector* connection, const char* path,
                                           const char* mount, int* result,
                                           const PlanWatch& watch = nullptr);
    // The plan that this handler's maintenance records its steps in instead of acting, or null
    // for a real run. Only the private handlers of the functions above carry one.
    KSMaintenancePlan* plan() const { return plan_; }

private:
    void resetToDefaults();
    void setUpMounts(bool& nonFast, std::mutex& nonFastMutex);
    void clearMountHandlers();
    bool loadConfig(KSProperties& properties, const std::string& file);
    void readSettings(KSProperties& properties);
    void readLegacyDir(KSProperties& properties, const char* dir);
    void readRepositoryId(const char* id);
    void readPluginName(KSProperties& properties, const char* key, const char* accepted,
                        std::string& target);
    void createMountHandlers(const char* mountPoints);
    // The search over the mounts of one lookup, with its dirty and legacy steps.
    char* searchAndSettle(Lookup& lookup, kelp::db::DBConnector* connection);
    // Lookup fallback (KSRepositoryLegacy.cpp): a resource found only in the legacy directory
    // is moved onto a mount when one can take it.
    char* takeOverFromLegacy(const char* resource, int* status, bool touch, bool dirty);
    std::string legacySource(const char* resource, int* status, bool* wasLink);
    // Why `source` cannot be the resource's old directory and must not be taken over (copied,
    // then deleted), or null when it can be.
    const char* takeOverRefusal(const std::string& source, const char* resource) const;
    void writeToLegacyLog(const char* path);
    // Removal helper (KSRepositoryRemove.cpp).
    bool removeFromLegacy(const char* resource, bool useCallback, int* result);
    bool isOwnResourceDirectory(const std::string& target, const char* resource) const;

    std::string path_;
    std::string canonicalPath_;
    time_t configMtime_ = 0;
    std::atomic<time_t> lastCheck_{0};
    std::unique_ptr<kelp::db::DBConnector> ownConnector_;
    std::mutex connectorMutex_;
    MountList mounts_;
    KSDirtyFlagHandler dirtyFlags_;
    Settings settings_;
    bool unusable_ = false;
    std::atomic<int> repositoryStatus_{0};

    // The steps of checkOverload (KSRepositoryOverload.cpp) keep the run's state here.
    friend class KSOverloadRun;
    MaintenanceProgress progress_;
    KSMaintenancePlan* plan_ = nullptr;
    std::list<std::string> deletedDirs_;
    unsigned deletedCount_ = 0;
    unsigned collectNum_ = 100;

    std::mutex mpInitMutex_;
    std::condition_variable mpInitDone_;
    std::atomic<bool> mpInitialising_{false};
    std::atomic<bool> mpInitialised_{false};
    std::atomic<bool> hasNonFastMount_{false};
};

// The registry: the up-to-date handler of the repository at `path` (normalised first), loaded
// on first use. Never null; a missing directory yields a handler marked unusable.
// Thread-safe: one process-wide reader-writer lock guards the map.
std::shared_ptr<KSRepositoryHandler> getRepository(kelp::db::DBConnector* db, const char* path,
                                                   bool checkUpToDate);

// Decimal digits only, accumulated in 32-bit unsigned arithmetic; 4294967295 for an empty text,
// a null or any other character.
unsigned parseNatInt(const char* text);

// Set by signal_handler (SIGTERM, SIGABRT during an overload check); never cleared.
extern volatile sig_atomic_t checkoverloadStopped;
// Only records the signal and sets the flag (syslog is not async-signal-safe): the line
// "Checkoverload interrupt signal is %d" is logged by the overload check instead, once by
// every run that the flag stops (later runs in the process included).
void signal_handler(int signal);
