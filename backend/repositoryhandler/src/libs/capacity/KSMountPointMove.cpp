// The move pass of repositories that only move: walks one mount's hashed tree and moves every
// resource older than the move time to another mount until the mount is below its clean limit.

#include <sys/stat.h>
#include <sys/statvfs.h>

#include <algorithm>
#include <exception>
#include <list>
#include <string>
#include <vector>

#include "KSCandidateMove.h"
#include "KSClock.h"
#include "KSLogger.h"
#include "KSMaintenancePlan.h"
#include "KSMountPointHandler.h"
#include "KSPartialCopy.h"
#include "KSPathUtils.h"
#include "KSRepositoryHandler.h"
#include "KSPlacementSupport.h"
#include "SmartSemaphore.h"

namespace {

constexpr int kSecondsPerDay = 86400;
constexpr int kHashLevels = 3;

std::vector<std::string> sortedNames(const KSMaintenancePlan* plan, const std::string& directory,
                                     bool directoriesOnly) {
    std::list<std::string> listed;
    maintenanceList(plan, directory, &listed);
    std::vector<std::string> names;
    names.reserve(listed.size());
    for (std::string& name : listed) {
        if (directoriesOnly) {
            struct stat st;
            if (maintenanceLstat(plan, directory + "/" + name, &st) != 0 || !S_ISDIR(st.st_mode))
                continue;
        }
        names.push_back(std::move(name));
    }
    std::sort(names.begin(), names.end());
    return names;
}

// Every hash directory of the mount ("AB/CD/EF"), in byte order: the walk order of the pass.
std::vector<std::string> hashDirectories(const KSMaintenancePlan* plan, const std::string& mount) {
    std::vector<std::string> level{std::string()};
    for (int depth = 0; depth < kHashLevels; ++depth) {
        std::vector<std::string> next;
        for (const std::string& parent : level) {
            std::string directory = parent.empty() ? mount : mount + "/" + parent;
            for (const std::string& name : sortedNames(plan, directory, true)) {
                if (depth == 0 && name == "lost+found") continue;
                next.push_back(parent.empty() ? name : parent + "/" + name);
            }
        }
        level.swap(next);
    }
    return level;
}

// Space taken by a resource in fragments of its file system (the unit of blocksToFree).
double fragmentsOf(const KSMaintenancePlan* plan, const std::string& path, unsigned long fragment) {
    if (plan != nullptr) return static_cast<double>(plan->blocksOf(path)) * 512.0 / fragment;
    struct stat st;
    if (lstat(path.c_str(), &st) != 0) return 0.0;
    double total = static_cast<double>(st.st_blocks) * 512.0 / fragment;
    if (!S_ISDIR(st.st_mode)) return total;
    std::list<std::string> names;
    listDir(path.c_str(), &names, false, false);
    for (const std::string& name : names) total += fragmentsOf(plan, path + "/" + name, fragment);
    return total;
}

// The data that stays on the mount, per whole day of age, estimated: every staying resource
// is counted and the first kSampled of them are measured; an age's amount is its count times
// their mean size. Measuring every one would read the metadata of every file on the mount in
// every pass; the hash order makes the sample independent of age.
class AgeTally {
  public:
    AgeTally(const KSMaintenancePlan* plan, unsigned long fragment)
        : plan_(plan), fragment_(fragment) {}
    void add(int age, const std::string& path) {
        ++counts_[age];
        if (sampled_ >= kSampled) return;
        measured_ += fragmentsOf(plan_, path, fragment_);
        ++sampled_;
    }
    void fill(std::map<int, double>& ageMap) const {
        const double mean = sampled_ != 0 ? measured_ / sampled_ : 0.0;
        for (const auto& [age, count] : counts_) ageMap[age] += static_cast<double>(count) * mean;
    }

  private:
    static constexpr unsigned kSampled = 256;
    const KSMaintenancePlan* plan_;
    unsigned long fragment_;
    std::map<int, unsigned long long> counts_;
    double measured_ = 0.0;
    unsigned sampled_ = 0;
};

// A staged copy that an interrupted move or legacy take-over left (KSPartialCopy.h) is removed
// when its resource's lock can be had at once; a copy still in progress holds that lock, and a
// lock that is busy leaves the entry for a later pass.
void discardLeftoverCopy(KSRepositoryHandler& repository, kelp::db::DBConnector* connection,
                         const std::string& path, const std::string& name) {
    const std::string resource = resourceOfPartialCopy(name);
    if (resource.empty()) return;
    const std::string id = resourceLockId(repository, resource.c_str());
    SmartSemaphore semaphore(repository.isShared(), id.c_str(), connection);
    try {
        if (semaphore.semaphore() == nullptr || !semaphore.semaphore()->lockResource()) return;
    } catch (const std::exception&) {
        return;  // the lock table is away: a later pass
    }
    discardPartialCopy(path);
}

}  // namespace

// Walk order: the hash directories in byte order, starting at `resumeHash` and wrapping round
// to the ones before it, so successive passes share out the moving over the whole mount instead
// of always emptying the first hash directories. `resumeHash` is set to the hash directory in
// hand when the pass ends early (below the clean limit, no target left, stopped) and cleared
// when the whole tree was walked. The age map gets, per whole day of age, the estimated space
// (in file-system fragments, the unit of blocksToFree) of the resources that stay on the mount
// (see AgeTally), so the caller can find the move time that would free enough next time.
int KSMountPointHandler::moveResourcesNewInner(kelp::db::DBConnector* connection,
                                               std::string& resumeHash, unsigned moveTime,
                                               std::map<int, double>& ageMap) {
    struct stat st;
    if (lstat(path_.c_str(), &st) != 0 || !S_ISDIR(st.st_mode)) {
        rh_logger.errorLog("moveResourcesNewInner cannot read mount %s", path_.c_str());
        return -1;
    }
    struct statvfs fs;
    unsigned long fragment =
        (statvfs(path_.c_str(), &fs) == 0 && fs.f_frsize > 0) ? fs.f_frsize : 4096;

    const KSMaintenancePlan* plan = repository_->plan();
    const std::vector<std::string> hashes = hashDirectories(plan, path_);
    const size_t start =
        std::lower_bound(hashes.begin(), hashes.end(), resumeHash) - hashes.begin();
    const time_t now = KSClock::now();
    const int64_t youngest = static_cast<int64_t>(now) - moveTime;
    CandidateMove how;
    how.connection = connection;
    AgeTally staying(plan, fragment);
    auto finish = [&](int result) {
        staying.fill(ageMap);
        return result;
    };

    for (size_t k = 0; k < hashes.size(); ++k) {
        const std::string& hash = hashes[(start + k) % hashes.size()];
        const std::vector<std::string> names = sortedNames(plan, path_ + "/" + hash, false);
        // Levels left empty while another resource's reservation ran (see clearEmptyHash).
        if (names.empty() && plan == nullptr) clearEmptyHashLevels(path_, hash);
        for (const std::string& name : names) {
            if (checkoverloadStopped) {
                resumeHash = hash;
                return finish(3);
            }
            if (isPartialCopy(name)) {
                discardLeftoverCopy(*repository_, connection, path_ + "/" + hash + "/" + name, name);
                continue;
            }
            ResourceEntry entry;
            entry.name = name;
            entry.relativePath = hash + "/" + name;
            entry.path = path_ + "/" + entry.relativePath;
            if (maintenanceLstat(plan, entry.path, &st) != 0 || S_ISLNK(st.st_mode)) continue;
            ++counters_.checked;
            repository_->progress().checked++;
            entry.time = lastAccess(entry.path.c_str(), &st);
            const int age = static_cast<int>((now - entry.time) / kSecondsPerDay);
            if (entry.time > youngest) {
                staying.add(age, entry.path);
                continue;
            }
            int targetIndex = repository_->getActualMountPointForMove(this, false);
            if (targetIndex < 0 || targetIndex >= static_cast<int>(repository_->mounts().size())) {
                rh_logger.infoLog("No mount to move resources to (at resource: %s )",
                                  entry.path.c_str());
                rh_logger.infoLog("Nospaceleft? checkoverload couldn't move");
                resumeHash = hash;
                return finish(2);
            }
            KSMountPointHandler& target = *repository_->mounts()[targetIndex];
            CandidateMoveResult moved = moveCandidate(*repository_, how, entry, target);
            if (moved == CandidateMoveResult::Vanished) continue;
            if (moved != CandidateMoveResult::Moved) {
                staying.add(age, entry.path);
                continue;
            }
            if (getUsedPercentage() < config_.cleanLimit) {
                resumeHash = hash;
                return finish(0);
            }
        }
    }
    resumeHash.clear();
    return finish(getUsedPercentage() < config_.cleanLimit ? 0 : 1);
}
