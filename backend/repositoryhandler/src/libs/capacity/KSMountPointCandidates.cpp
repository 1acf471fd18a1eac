// Gathering candidates on one mount: the oldest resources for the overload check and a random
// selection for emptying a mount.

#include <sys/stat.h>

#include <algorithm>
#include <cstring>
#include <iterator>
#include <list>
#include <random>
#include <string>
#include <vector>

#include "KSClock.h"
#include "KSLogger.h"
#include "KSMaintenancePlan.h"
#include "KSMountPointHandler.h"
#include "KSNomoveHandler.h"
#include "KSPartialCopy.h"
#include "KSPathUtils.h"
#include "KSRepositoryHandler.h"
#include "KSStatus.h"
#include "KSTime.h"

namespace {

constexpr uint32_t kStopped = 0xFFFFFFFFu;
constexpr int kResourceDepth = 3;
constexpr unsigned kCallsPerTimingLine = 1000;

std::string childPath(const std::string& relativeDir, const std::string& name) {
    return relativeDir.empty() ? name : relativeDir + "/" + name;
}

// Keeps the `maxCount` oldest entries seen: a full set takes an entry only when it is not
// newer than the newest kept one, which then goes.
void putBounded(ResourceSet& result, const ResourceEntry& entry, uint32_t maxCount) {
    if (result.size() < maxCount) {
        result.insert(entry);
        return;
    }
    if (entry.time > std::prev(result.end())->time) return;
    if (result.insert(entry).second) result.erase(std::prev(result.end()));
}

}  // namespace

uint32_t KSMountPointHandler::getOldestResources(kelp::db::DBConnector* connection,
                                                 ResourceSet& result, KSNomoveHandler* nomove,
                                                 uint32_t maxCount, ResourceSet* ownSet,
                                                 const std::string& relativeDir, int depth) {
    if (maxCount == 0) return 0;
    if (checkoverloadStopped) return kStopped;
    if (depth == 0 && (checkStatus(true) & MOUNT_DEAD)) return kStopped;

    if (++counters_.calls > kCallsPerTimingLine - 1) {
        counters_.calls = 0;
        rh_logger.infoLog(
            "Times in nanosec by 1000 folders checked: dirtyTime: %lld, accessTime: %lld, "
            "statTime: %lld, listDirTime: %lld, putResultTime: %lld",
            counters_.dirtyTime, counters_.accessTime, counters_.statTime, counters_.listDirTime,
            counters_.putResultTime);
    }
    const int64_t ageLimit = static_cast<int64_t>(KSClock::now()) - config_.nomoveTime;

    const std::string directory = relativeDir.empty() ? path_ : path_ + "/" + relativeDir;
    const KSMaintenancePlan* plan = repository_ != nullptr ? repository_->plan() : nullptr;
    std::list<std::string> names;
    int64_t started = nanoTime();
    maintenanceList(plan, directory, &names);  // O_NOATIME: the walk must not age anything
    counters_.listDirTime += nanoTime() - started;
    // A level left empty while another resource's reservation ran (see clearEmptyHash).
    if (depth == kResourceDepth && names.empty() && plan == nullptr)
        clearEmptyHashLevels(path_, relativeDir);

    for (const std::string& name : names) {
        if (depth == 0 && name == "lost+found") continue;
        if (depth == kResourceDepth && isPartialCopy(name)) continue;  // a copy, not a resource
        if (nomove != nullptr && nomove->isNomove(name.c_str())) continue;
        ResourceEntry entry;
        entry.relativePath = childPath(relativeDir, name);
        entry.path = path_ + "/" + entry.relativePath;
        struct stat st;
        started = nanoTime();
        // lstat: a link inside the tree is never followed out of the mount.
        int statResult = maintenanceLstat(plan, entry.path, &st);
        counters_.statTime += nanoTime() - started;
        if (statResult != 0 || S_ISLNK(st.st_mode)) continue;

        if (depth < kResourceDepth) {
            if (!S_ISDIR(st.st_mode)) continue;
            if (getOldestResources(connection, result, nomove, maxCount, ownSet, entry.relativePath,
                                   depth + 1) == kStopped)
                return kStopped;
            continue;
        }
        ++counters_.checked;
        if (repository_ != nullptr) repository_->progress().checked++;
        started = nanoTime();
        entry.time = lastAccess(entry.path.c_str(), &st);
        counters_.accessTime += nanoTime() - started;
        if (entry.time > ageLimit) continue;
        started = nanoTime();
        // The cached dirty set (re-read at most once a minute) keeps this hot path off the
        // file; every consumer checks the flag again, uncached, under the resource lock.
        bool dirty = repository_->dirtyFlags().isDirty(connection, name.c_str(), true);
        counters_.dirtyTime += nanoTime() - started;
        if (dirty) {
            rh_logger.infoLog("found Dirty resource: %s\n", entry.path.c_str());
            continue;
        }
        entry.name = name;
        started = nanoTime();
        putBounded(result, entry, maxCount);
        if (ownSet != nullptr) ownSet->insert(entry);
        counters_.putResultTime += nanoTime() - started;
    }
    return static_cast<uint32_t>(result.size());
}

uint32_t KSMountPointHandler::walkResources(
    const std::function<bool(const ResourceEntry&, const struct stat&)>& visit) {
    if (checkoverloadStopped || (checkStatus(true) & MOUNT_DEAD)) return kStopped;
    uint32_t visited = 0;
    std::vector<std::pair<std::string, int>> pending{{std::string(), 0}};
    while (!pending.empty()) {
        if (checkoverloadStopped) return kStopped;
        const auto [relativeDir, depth] = pending.back();
        pending.pop_back();
        std::list<std::string> names;
        listDir((relativeDir.empty() ? path_ : path_ + "/" + relativeDir).c_str(), &names, false,
                false);
        for (const std::string& name : names) {
            if (depth == 0 && name == "lost+found") continue;
            ResourceEntry entry;
            entry.relativePath = childPath(relativeDir, name);
            entry.path = path_ + "/" + entry.relativePath;
            struct stat st;
            if (lstat(entry.path.c_str(), &st) != 0 || S_ISLNK(st.st_mode)) continue;
            if (depth < kResourceDepth) {
                if (S_ISDIR(st.st_mode)) pending.emplace_back(entry.relativePath, depth + 1);
                continue;
            }
            entry.name = name;
            entry.time = lastAccess(entry.path.c_str(), &st);
            ++visited;
            if (!visit(entry, st)) return visited;
        }
    }
    return visited;
}

// FNV-1a of the mount path: the same sequence in every process and build.
void KSMountPointHandler::restartRandomOrder() {
    uint32_t seed = 2166136261u;
    for (unsigned char c : path_) seed = (seed ^ c) * 16777619u;
    random_.seed(seed);
}

// Emptying a mount moves everything, so there is no age limit and dirty resources are taken
// too (the move merges them onto an existing copy). The order is random: the hash directories
// of each level are visited shuffled and the walk stops as soon as `maxCount` resources are
// found, so one call costs about maxCount stats however large the mount, and repeated calls
// after refused or failed moves do not keep meeting the same resources first.
uint32_t KSMountPointHandler::getRandomResources(kelp::db::DBConnector* /*connection*/,
                                                 ResourceSet& result, KSNomoveHandler* nomove,
                                                 uint32_t maxCount) {
    if (maxCount == 0) return 0;
    if (checkoverloadStopped || (checkStatus(true) & MOUNT_DEAD)) return kStopped;
    // One sequence per mount: a dry run of an emptying draws what the real run draws, so that on
    // an unchanged mount both take the same resources in the same batches. Each call of a run
    // still draws anew, and each listing is sorted before it is shuffled, so the order depends
    // on the tree only.
    std::mt19937& random = random_;
    const KSMaintenancePlan* plan = repository_ != nullptr ? repository_->plan() : nullptr;

    struct Level {
        std::string relativeDir;
        int depth;
    };
    std::vector<Level> pending{{std::string(), 0}};
    while (!pending.empty() && result.size() < maxCount) {
        if (checkoverloadStopped) return kStopped;
        Level level = pending.back();
        pending.pop_back();
        std::string directory = level.relativeDir.empty() ? path_ : path_ + "/" + level.relativeDir;
        std::list<std::string> listed;
        maintenanceList(plan, directory, &listed);
        std::vector<std::string> names(listed.begin(), listed.end());
        std::sort(names.begin(), names.end());
        std::shuffle(names.begin(), names.end(), random);
        for (const std::string& name : names) {
            if (level.depth == 0 && name == "lost+found") continue;
            if (level.depth == kResourceDepth && isPartialCopy(name)) continue;
            if (nomove != nullptr && nomove->isNomove(name.c_str())) continue;
            ResourceEntry entry;
            entry.relativePath = childPath(level.relativeDir, name);
            entry.path = path_ + "/" + entry.relativePath;
            struct stat st;
            if (maintenanceLstat(plan, entry.path, &st) != 0 || S_ISLNK(st.st_mode)) continue;
            if (level.depth < kResourceDepth) {
                if (S_ISDIR(st.st_mode)) pending.push_back({entry.relativePath, level.depth + 1});
                continue;
            }
            entry.name = name;
            entry.time = lastAccess(entry.path.c_str(), &st);
            repository_->progress().checked++;
            result.insert(entry);
            if (result.size() >= maxCount) break;
        }
    }
    return static_cast<uint32_t>(result.size());
}
