// The overload check: frees every mount that reached its move limit by deleting (clearable
// repositories) or moving its oldest resources, with the night mode that lowers the limits.

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <ctime>
#include <memory>
#include <set>
#include <string>

#include "KSCandidateMove.h"
#include "KSClock.h"
#include "KSLogger.h"
#include "KSMaintenancePlan.h"
#include "KSNomoveHandler.h"
#include "KSPathUtils.h"
#include "KSProperties.h"
#include "KSRepositoryHandler.h"
#include "KSResourceDeleter.h"
#include "KSTimedLock.h"
#include "NightProperties.h"
#include "SmartSemaphore.h"

volatile sig_atomic_t checkoverloadStopped = 0;

namespace {

volatile sig_atomic_t caughtSignal = 0;

constexpr unsigned kFirstCollectNum = 100;
constexpr unsigned kDeleteOnlyMaxCount = 50000;
constexpr unsigned kLargestCollectNum = 50000;  // the bound of recalculateCollectNum
constexpr time_t kEightDays = 691200;
constexpr uint32_t kStopped = 0xFFFFFFFFu;

void say(bool verbose, const char* text) {
    if (verbose) puts(text);
}

}  // namespace

// Only async-signal-safe work here: syslog takes a lock that the interrupted thread may hold,
// so the line naming the signal is written by the run when it sees the flag (stopped()), and
// at the latest on its way out (run()).
void signal_handler(int signal) {
    caughtSignal = signal;
    checkoverloadStopped = 1;
}

// One run of checkOverload. Its member functions are the steps of the procedure; the run
// holds the repository lock from lockRepository() to the end of run().
class KSOverloadRun {
  public:
    KSOverloadRun(KSRepositoryHandler& repository, kelp::db::DBConnector* connection, bool verbose,
                  bool night)
        : repo_(repository), connection_(connection), verbose_(verbose), night_(night) {}

    // Runs the pass; every run that ends with the stop flag set logs the interrupt line once.
    void run();
    int deleteOnly(KSMountPointHandler& mount, KSNomoveHandler* nomove, unsigned maxCount);

  private:
    enum class Deletion { Deleted, Failed, Refused, Touched };
    enum class CycleEnd { MountDone, MovedNothing, Moved };

    // True once a stop signal was caught; the first call of a run that sees it logs the line.
    bool stopped();
    void runSteps();
    bool cannotMove() const { return repo_.repositoryStatus() & REPOSITORY_CANNOTMOVE; }
    void installStopHandlers();
    void restoreDefaultHandlers();
    void checkMount(KSMountPointHandler& mount, int index);
    void lowerLimitsForTheNight(KSMountPointHandler& mount);
    double cleanMount(KSMountPointHandler& mount, int index);
    void cleanClearableMount(KSMountPointHandler& mount, int index);
    CycleEnd runCycle(KSMountPointHandler& mount, int index, bool deleteOld);
    bool deleteOldPass(KSMountPointHandler& mount, ResourceSet& global, const ResourceSet& own);
    bool deleteForRoom(KSMountPointHandler& mount, ResourceSet& global);
    bool gatherUntried(KSMountPointHandler& mount, ResourceSet& global,
                       const std::set<std::string>& tried);
    Deletion deleteCandidate(const ResourceEntry& entry, KSMountPointHandler& mount,
                             bool oldEnough);
    void planDeletion(const ResourceEntry& entry);
    void logCleanEnough();

    KSRepositoryHandler& repo_;
    kelp::db::DBConnector* connection_;
    bool verbose_;
    bool night_;
    KSNomoveHandler nomove_;
    int changes_ = 0;  // deletions and moves of the current cycle
    bool stopReported_ = false;
};

bool KSOverloadRun::stopped() {
    if (!checkoverloadStopped) return false;
    if (!stopReported_) {
        stopReported_ = true;
        rh_logger.infoLog("Checkoverload interrupt signal is %d", static_cast<int>(caughtSignal));
    }
    return true;
}

void KSOverloadRun::installStopHandlers() {
    signal(SIGABRT, signal_handler);
    signal(SIGTERM, signal_handler);
}

void KSOverloadRun::restoreDefaultHandlers() {
    signal(SIGTERM, SIG_DFL);
    signal(SIGABRT, SIG_DFL);
}

// The steps poll the flag only where they can stop; a signal caught after the last poll (on the
// last mount, while gathering, during a move, in a repository without mounts) is reported here.
void KSOverloadRun::run() {
    try {
        runSteps();
    } catch (...) {
        stopped();
        throw;
    }
    stopped();
}

void KSOverloadRun::runSteps() {
    const std::string& name = repo_.path();
    rh_logger.infoLog("Checkoverload checks repository %s\n", name.c_str());
    installStopHandlers();
    if (verbose_) {
        if (night_) puts("Night manager checkOverload runs");
        printf("checking repository %s\n", name.c_str());
    }
    repo_.deletedDirs_.clear();
    repo_.deletedCount_ = 0;
    repo_.progress_.reset();

    std::unique_ptr<char[]> id(toResourceID(repo_.lockScope().c_str(), ""));
    // Keeps two maintenance passes (or a pass and an emptying) of this repository apart; the
    // destructor releases it on every way out, an exception included. A dry run changes
    // nothing and takes no lock (that would write a lock file or a lock row).
    const bool dryRun = repo_.plan() != nullptr;
    SmartSemaphore repositoryLock(repo_.settings().isShared, dryRun ? nullptr : id.get(),
                                  connection_);
    if (!dryRun && !repositoryLock.lock()) {
        std::string text = "The repository \"" + name + "\" could not be locked.";
        say(verbose_, text.c_str());
        rh_logger.errorLog("%s", text.c_str());
        return;
    }
    repo_.checkRepositoryStatus();
    if (cannotMove() && !repo_.settings().isClearable) {
        rh_logger.errorLog(
            "CheckOverload in repository %s couldn't move, because the repository "
            "is in CANNOTMOVE state!\n",
            name.c_str());
        say(verbose_, "the repository is full, we can't do anything");
        return;
    }
    repo_.collectNum_ = kFirstCollectNum;
    for (size_t i = 0; i < repo_.mounts().size(); ++i) {
        if (stopped()) break;
        repo_.progress_.mountIndex = static_cast<int>(i);
        checkMount(*repo_.mounts()[i], static_cast<int>(i));
    }
    rh_logger.infoLog("checkoverload at the end");
    restoreDefaultHandlers();
    if (!dryRun) repositoryLock.unlock();
}

void KSOverloadRun::checkMount(KSMountPointHandler& mount, int index) {
    rh_logger.infoLog("checking mount %s\n", mount.path().c_str());
    if (verbose_) printf("checking mount %s\n", mount.path().c_str());
    const bool nightManaged = mount.config().nightManagement;
    if (night_ && nightManaged) lowerLimitsForTheNight(mount);

    uint32_t status = mount.checkStatus(true);
    if (!(status & MOUNT_DEAD) && (status & MOUNT_MOVE)) {
        double used = cleanMount(mount, index);
        if (nightManaged && !repo_.plan()) repo_.writeCalcData(verbose_, &mount, used);
    } else if (status & MOUNT_DEAD) {
        rh_logger.infoLog("mount is unmounted\n");
    } else {
        double used = mount.getUsedPercentage();
        rh_logger.infoLog("mount does not need maintenance (moveLimit=%f, used=%f)\n",
                          mount.config().moveLimit, used);
        if (nightManaged && !repo_.plan()) repo_.writeCalcData(verbose_, &mount, used);
    }
}

// The lowered limits stay in memory until the mount's configuration is read again, so two
// night runs in one process lower them twice.
void KSOverloadRun::lowerLimitsForTheNight(KSMountPointHandler& mount) {
    KSMountPointHandler::Config& config = mount.config();
    rh_logger.infoLog("CheckOverload night manager found 'night' mount: %s\n",
                      mount.path().c_str());
    say(verbose_, "Mount is configured to make nightly auto-management");
    const time_t now = KSClock::now();
    const std::string today = NightProperties::dateText(now);
    const std::string eightDaysAgo = NightProperties::dateText(now - kEightDays);
    const std::string file = NightProperties::statisticsFile(mount.path());
    if (!file.empty() && exists(file.c_str())) {
        KSProperties statistics;
        statistics.load(file.c_str());
        // A dry run reads the statistics but leaves the file as it is.
        double volume = NightProperties::calcVolume(statistics, today.c_str(), eightDaysAgo.c_str(),
                                                    repo_.plan() ? nullptr : file.c_str());
        if (volume != -1.0)
            config.nightLowerPercent =
                config.nightVolumemul == 0.0 ? volume : volume * config.nightVolumemul;
    }
    config.cleanLimit -= config.nightLowerPercent;
    config.moveLimit -= config.nightLowerPercent;
    repo_.checkRepositoryStatus();
    rh_logger.infoLog("Mount move and clean limit is temporarily lowered by %f\n",
                      config.nightLowerPercent);
    if (verbose_)
        printf("Mount move and clean limit is temporarily lowered by %f\n",
               config.nightLowerPercent);
}

// Returns the used percentage measured before cleaning (the base of the statistics).
double KSOverloadRun::cleanMount(KSMountPointHandler& mount, int index) {
    if (verbose_) printf("trying to clean mount %s\n", mount.path().c_str());
    double used = mount.getUsedPercentage();
    rh_logger.infoLog("CheckOverload detected %s has to be clean (moveLimit=%f, used=%f)\n",
                      mount.path().c_str(), mount.config().moveLimit, used);
    const KSRepositoryHandler::Settings& settings = repo_.settings();
    if (!settings.isClearable) {
        if (!cannotMove()) repo_.moveResourcesNew(connection_, &mount);
    } else if (!settings.isClearableMove) {
        rh_logger.infoLog("Isclearable, but no move\n");
        deleteOnly(mount, &nomove_, kDeleteOnlyMaxCount);
    } else {
        cleanClearableMount(mount, index);
    }
    return used;
}

// A cycle that neither deleted nor moved anything ends the mount as well: every candidate it
// had was in use or locked, and repeating it at once would only meet them again.
void KSOverloadRun::cleanClearableMount(KSMountPointHandler& mount, int index) {
    bool deleteOld = mount.config().deleteOld > 0.0;
    say(verbose_, "repository is clearable");
    if (stopped() || !(mount.status() & MOUNT_MOVE)) return;
    for (;;) {
        changes_ = 0;
        CycleEnd end = runCycle(mount, index, deleteOld);
        deleteOld = false;
        if (end != CycleEnd::MovedNothing || changes_ == 0) return;
        if (stopped() || !(mount.checkStatus(false) & MOUNT_MOVE)) return;
    }
}

KSOverloadRun::CycleEnd KSOverloadRun::runCycle(KSMountPointHandler& mount, int index,
                                                bool deleteOld) {
    ResourceSet global;
    ResourceSet own;
    rh_logger.infoLog("Getting global oldest resources");
    int found = repo_.getGlobalOldestResources(connection_, global, &nomove_, repo_.collectNum_,
                                               deleteOld, &own, index);
    if (found < 1) {
        rh_logger.infoLog("no global old resource found");
        say(verbose_, "no global old resource found");
        return CycleEnd::MountDone;
    }
    if (stopped()) {
        rh_logger.infoLog("Checkoverload break because of external stopping");
        return CycleEnd::MountDone;
    }
    rh_logger.infoLog("global old resources found");
    if (deleteOld && !global.empty() && !own.empty() && deleteOldPass(mount, global, own))
        return CycleEnd::MountDone;

    if (verbose_) {
        printf("Move limit: %f Clean limit: %f\n", mount.config().moveLimit,
               mount.config().cleanLimit);
        printf("GlobalOldResources: %lu\n", static_cast<unsigned long>(global.size()));
    }
    if (stopped() || !deleteForRoom(mount, global)) return CycleEnd::MovedNothing;

    if ((mount.checkStatus(false) & MOUNT_MOVE) && !cannotMove()) {
        int moved = repo_.moveResourcesFromMount(connection_, &mount, &nomove_, verbose_,
                                                 repo_.collectNum_);
        changes_ += moved;
        return moved != 0 ? CycleEnd::Moved : CycleEnd::MovedNothing;
    }
    return CycleEnd::MovedNothing;
}

void KSOverloadRun::logCleanEnough() {
    rh_logger.infoLog("Mount cleaning is enough, we created the space needed");
}

// Deletes this mount's own resources older than a threshold between the oldest resource of
// the repository and now. Returns true when the mount is clean enough afterwards.
bool KSOverloadRun::deleteOldPass(KSMountPointHandler& mount, ResourceSet& global,
                                  const ResourceSet& own) {
    const int64_t oldest = global.begin()->time;
    const int64_t now = KSClock::now();
    const int64_t threshold =
        static_cast<int64_t>((now - oldest) * mount.config().deleteOld / 100.0 + oldest);
    mount.setUsedAtCycleStart(mount.usedPercentage());
    for (const ResourceEntry& entry : own) {
        if (stopped()) break;
        if (!(mount.status() & MOUNT_CLEAN)) {
            logCleanEnough();
            return true;
        }
        if (entry.time > threshold) continue;
        Deletion done = deleteCandidate(entry, mount, true);
        if (done == Deletion::Deleted || done == Deletion::Failed) global.erase(entry);
        mount.checkStatus(false);
    }
    if (mount.status() & MOUNT_CLEAN) return false;
    logCleanEnough();
    return true;
}

// Deletes the repository's oldest resources while no mount can take a moved one, gathering
// again with a recalculated collect number whenever a set is used up. Returns false when the
// cycle has to end as one that moved nothing.
//
// Each resource is tried at most once here: one that was locked or in use is not waited for
// again (a refused lock costs 30 seconds). So the loop always ends: every round tries a path
// not tried before or multiplies the collect number by ten, the old resources are finitely
// many (a new one is younger than nomoveTime and never gathered), and a gathering at the
// largest collect number that offers nothing untried ends it.
bool KSOverloadRun::deleteForRoom(KSMountPointHandler& mount, ResourceSet& global) {
    std::set<std::string> tried;
    while (cannotMove() && !global.empty()) {
        mount.setUsedAtCycleStart(mount.getUsedPercentage());
        for (const ResourceEntry& entry : global) {
            if (!tried.insert(entry.path).second) continue;
            deleteCandidate(entry, mount, false);
            if (stopped()) return false;
            if (!cannotMove()) return true;
        }
        if (!gatherUntried(mount, global, tried)) return false;
    }
    return true;
}

// Gathers the next set for deleteForRoom: one that holds a resource not tried yet. A set of
// tried resources only counts as a round that freed nothing (the collect number grows ten
// times). false when there is nothing more to try or the run was stopped.
bool KSOverloadRun::gatherUntried(KSMountPointHandler& mount, ResourceSet& global,
                                  const std::set<std::string>& tried) {
    for (;;) {
        repo_.collectNum_ = mount.recalculateCollectNum(repo_.collectNum_);
        global.clear();
        if (repo_.getGlobalOldestResources(connection_, global, &nomove_, repo_.collectNum_, false,
                                           nullptr, -1) < 1) {
            say(verbose_, "No other resources found to be deleted...");
            return false;
        }
        if (stopped()) return false;
        for (const ResourceEntry& entry : global)
            if (tried.count(entry.path) == 0) return true;
        if (repo_.collectNum_ >= kLargestCollectNum) {
            say(verbose_, "No other resources found to be deleted...");
            return false;
        }
        mount.setUsedAtCycleStart(mount.usedPercentage());
    }
}

KSOverloadRun::Deletion KSOverloadRun::deleteCandidate(const ResourceEntry& entry,
                                                       KSMountPointHandler& mount, bool oldEnough) {
    if (repo_.plan() != nullptr) {
        planDeletion(entry);
        return Deletion::Deleted;
    }
    const KSRepositoryHandler::Settings& settings = repo_.settings();
    KSTimedLock lock(settings.isShared, repo_.lockScope(), entry.name, connection_);
    if (!lock.acquire(verbose_)) return Deletion::Refused;
    // Gathering took no lock: a resource read or written since then is not deleted.
    if (lastAccess(entry.path.c_str(), nullptr) != entry.time) {
        if (verbose_) printf("Resource touched while checking: %s\n", entry.path.c_str());
        return Deletion::Touched;
    }
    const char* path = entry.path.c_str();
    const std::string when = timeStampText(entry.time);
    if (oldEnough) {
        rh_logger.infoLog(
            "CheckOverload (mount's old enough) deletes resource: %s when cleaning "
            "mount: %s",
            path, mount.path().c_str());
        rh_logger.infoLog(
            "CheckOverload (mount's old enough): Last access/modification time of "
            "the resource: %s",
            when.c_str());
    } else {
        rh_logger.infoLog("CheckOverload deletes resource: %s when cleaning mount: %s", path,
                          mount.path().c_str());
        rh_logger.infoLog("CheckOverload: Last access/modification time of the resource: %s",
                          when.c_str());
    }
    warnIfRecentlyUsed(repo_, "purged", entry.time);
    if (verbose_ && !oldEnough) {
        printf("Deleting resource: %s\n", path);
        printf("Last access/modification time of the resource: %s\n", when.c_str());
    }
    repo_.deletedDirs_.push_back(entry.path);
    ++repo_.deletedCount_;
    ++changes_;
    const unsigned long long bytes = resourceBytes(entry.path);
    int result = deleteRes(path, settings.callback, entry.name.c_str(), repo_.path().c_str());
    Deletion done = Deletion::Deleted;
    if (result == 0) {
        clearEmptyHash(path);
        repo_.progress_.deleted++;
        repo_.progress_.bytes += bytes;
    } else {
        rh_logger.errorLog(oldEnough ? "Resource deleting (mount's old enough) didn't succeed:%s"
                                     : "Resource deleting didn't succeed:%s",
                           path);
        if (verbose_) printf("Deleting resource %s failed\n", path);
        repo_.dirtyFlags().setDirty(connection_, entry.name.c_str(), true);
        done = Deletion::Failed;
    }
    lock.release();
    repo_.checkRepositoryStatus();
    return done;
}

// The dry run's deletion: what deleteCandidate does to the run's figures and to the fill
// levels, recorded in the plan instead of done. The resource counts as untouched and its lock
// as free, as they are on an unchanged repository.
void KSOverloadRun::planDeletion(const ResourceEntry& entry) {
    KSMaintenancePlan& plan = *repo_.plan();
    int index = -1;
    for (size_t i = 0; i < repo_.mounts().size(); ++i)
        if (liesOnMount(*repo_.mounts()[i], entry.path)) index = static_cast<int>(i);
    const std::string mountPath = index < 0 ? std::string() : repo_.mounts()[index]->path();
    plan.recordDeletion(entry, mountPath, index);
    repo_.deletedDirs_.push_back(entry.path);
    ++repo_.deletedCount_;
    ++changes_;
    repo_.progress_.deleted++;
    repo_.progress_.bytes += plan.steps.back().bytes;
    repo_.checkRepositoryStatus();
}

// Delete-only cleaning: batches of the mount's oldest resources, each batch as large as the
// collect number, until the mount is below its clean limit or `maxCount` deletions were tried.
// A batch in which nothing could be deleted (all in use or locked) ends it.
int KSOverloadRun::deleteOnly(KSMountPointHandler& mount, KSNomoveHandler* nomove,
                              unsigned maxCount) {
    KSNomoveHandler ownNomove;
    KSNomoveHandler* skip = nomove != nullptr ? nomove : &ownNomove;
    unsigned tried = 0;
    while (tried < maxCount && !stopped() && (mount.checkStatus(false) & MOUNT_CLEAN)) {
        ResourceSet candidates;
        mount.counters() = KSMountPointHandler::WalkCounters();
        uint32_t found = mount.getOldestResources(connection_, candidates, skip,
                                                  std::min(repo_.collectNum_, maxCount - tried),
                                                  nullptr, std::string(), 0);
        rh_logger.infoLog("Checkoverload checked %d resources (place 0), repo:%s, mount:%s",
                          static_cast<int>(mount.counters().checked), repo_.path().c_str(),
                          mount.path().c_str());
        if (found == 0 || found == kStopped) break;
        mount.setUsedAtCycleStart(mount.getUsedPercentage());
        unsigned handled = 0;
        for (const ResourceEntry& entry : candidates) {
            if (tried >= maxCount || stopped() || !(mount.checkStatus(false) & MOUNT_CLEAN)) break;
            Deletion done = deleteCandidate(entry, mount, false);
            if (done == Deletion::Refused) skip->setNomove(entry.name.c_str(), true);
            if (done == Deletion::Deleted || done == Deletion::Failed) {
                ++handled;
                ++tried;
            }
        }
        if (handled == 0) break;
        repo_.collectNum_ = mount.recalculateCollectNum(repo_.collectNum_);
    }
    return static_cast<int>(tried);
}

void KSRepositoryHandler::checkOverload(kelp::db::DBConnector* connection, bool verbose,
                                        bool night) {
    KSOverloadRun(*this, connection, verbose, night).run();
}

int KSRepositoryHandler::deleteResourcesFromMount(kelp::db::DBConnector* connection,
                                                  KSMountPointHandler* mount,
                                                  KSNomoveHandler* nomove, unsigned maxCount) {
    return KSOverloadRun(*this, connection, false, false).deleteOnly(*mount, nomove, maxCount);
}
