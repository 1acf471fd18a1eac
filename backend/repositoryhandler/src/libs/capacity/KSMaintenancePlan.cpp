#include "KSMaintenancePlan.h"

#include <cerrno>
#include <cstring>
#include <type_traits>

#include "KSPathUtils.h"

namespace {

constexpr int kHashLevels = 3;

std::string parentOf(const std::string& path) {
    const size_t slash = path.rfind('/');
    return slash == std::string::npos ? std::string() : path.substr(0, slash);
}

struct stat directoryStat(time_t time, blkcnt_t blocks) {
    struct stat st;
    memset(&st, 0, sizeof st);
    st.st_mode = S_IFDIR | 0755;
    st.st_nlink = 2;
    st.st_atime = time;
    st.st_mtime = time;
    st.st_ctime = time;
    st.st_blocks = blocks;
    return st;
}

}  // namespace

void maintenanceList(const KSMaintenancePlan* plan, const std::string& directory,
                     std::list<std::string>* names) {
    if (plan != nullptr)
        plan->list(directory, names);
    else
        listDir(directory.c_str(), names, false, false);
}

int maintenanceLstat(const KSMaintenancePlan* plan, const std::string& path, struct stat* st) {
    return plan != nullptr ? plan->lstat(path, st) : ::lstat(path.c_str(), st);
}

void KSMaintenancePlan::list(const std::string& directory, std::list<std::string>* names) const {
    if (names == nullptr || removed_.count(directory) != 0) return;
    std::list<std::string> listed;
    if (added_.count(directory) == 0) listDir(directory.c_str(), &listed, false, false);
    const std::string prefix = directory + "/";
    for (std::string& name : listed)
        if (removed_.count(prefix + name) == 0) names->push_back(std::move(name));
    for (auto it = added_.lower_bound(prefix); it != added_.end(); ++it) {
        if (it->first.compare(0, prefix.size(), prefix) != 0) break;
        const std::string rest = it->first.substr(prefix.size());
        if (rest.find('/') == std::string::npos) names->push_back(rest);
    }
}

int KSMaintenancePlan::lstat(const std::string& path, struct stat* st) const {
    if (removed_.count(path) != 0) {
        errno = ENOENT;
        return -1;
    }
    auto it = added_.find(path);
    if (it != added_.end()) {
        *st = it->second.st;
        return 0;
    }
    return ::lstat(path.c_str(), st);
}

bool KSMaintenancePlan::exists(const std::string& path) const {
    struct stat st;
    return lstat(path, &st) == 0;
}

KSMaintenancePlan::Footprint KSMaintenancePlan::footprintOf(const std::string& path) const {
    auto it = added_.find(path);
    if (it != added_.end()) return it->second.footprint;
    Footprint total;
    struct stat st;
    if (lstat(path, &st) != 0) return total;
    total.blocks = static_cast<unsigned long long>(st.st_blocks);
    total.inodes = 1;
    if (S_ISREG(st.st_mode)) total.bytes = static_cast<unsigned long long>(st.st_size);
    if (!S_ISDIR(st.st_mode)) return total;
    std::list<std::string> names;
    list(path, &names);
    for (const std::string& name : names) {
        const Footprint part = footprintOf(path + "/" + name);
        total.bytes += part.bytes;
        total.blocks += part.blocks;
        total.inodes += part.inodes;
    }
    return total;
}

unsigned long long KSMaintenancePlan::bytesOf(const std::string& path) const {
    return footprintOf(path).bytes;
}

unsigned long long KSMaintenancePlan::blocksOf(const std::string& path) const {
    return footprintOf(path).blocks;
}

void KSMaintenancePlan::adjust(const std::string& mountPath, struct statvfs& vfs) const {
    auto it = changes_.find(mountPath);
    if (it == changes_.end()) return;
    const unsigned long fragment = vfs.f_frsize != 0 ? vfs.f_frsize : vfs.f_bsize;
    if (fragment == 0) return;
    const long long blocks = it->second.blocks * 512 / static_cast<long long>(fragment);
    const auto shift = [](auto& value, long long by) {
        const long long next = static_cast<long long>(value) + by;
        value = next < 0 ? 0 : static_cast<std::remove_reference_t<decltype(value)>>(next);
    };
    shift(vfs.f_bavail, blocks);
    shift(vfs.f_bfree, blocks);
    shift(vfs.f_favail, it->second.inodes);
    shift(vfs.f_ffree, it->second.inodes);
}

void KSMaintenancePlan::takeAway(const std::string& path, const std::string& mountPath) {
    std::string current = path;
    for (int level = 0; level <= kHashLevels; ++level) {
        if (level > 0) {
            // A hash level goes with the last resource in it.
            std::list<std::string> left;
            list(current, &left);
            if (!left.empty()) return;
        }
        const Footprint footprint = footprintOf(current);
        Change& change = changes_[mountPath];
        change.blocks += static_cast<long long>(footprint.blocks);
        change.inodes += static_cast<long long>(footprint.inodes);
        if (added_.erase(current) == 0) removed_.insert(current);
        current = parentOf(current);
        if (current.size() <= mountPath.size()) return;
    }
}

void KSMaintenancePlan::bringIn(const std::string& destination, const std::string& mountPath,
                                time_t time, const Footprint& footprint) {
    // The missing hash levels, outermost first.
    std::vector<std::string> levels;
    for (std::string level = parentOf(destination); level.size() > mountPath.size();
         level = parentOf(level))
        levels.insert(levels.begin(), level);
    Change& change = changes_[mountPath];
    std::string parent = mountPath;
    for (const std::string& level : levels) {
        struct stat st;
        if (lstat(level, &st) != 0) {
            struct stat above;
            const blkcnt_t blocks = lstat(parent, &above) == 0 ? above.st_blocks : 0;
            if (removed_.erase(level) == 0) {
                Added made;
                made.st = directoryStat(time, blocks);
                made.footprint.blocks = static_cast<unsigned long long>(blocks);
                made.footprint.inodes = 1;
                added_[level] = made;
            }
            change.blocks -= static_cast<long long>(blocks);
            change.inodes -= 1;
        }
        parent = level;
    }
    // Back where it lay on the disk (moved off and on again): the disk shows it as it is.
    if (removed_.erase(destination) == 0) {
        Added resource;
        resource.st = directoryStat(time, 0);
        resource.footprint = footprint;
        added_[destination] = resource;
    }
    change.blocks -= static_cast<long long>(footprint.blocks);
    change.inodes -= static_cast<long long>(footprint.inodes);
}

void KSMaintenancePlan::recordDeletion(const ResourceEntry& entry, const std::string& mountPath,
                                       int mountIndex) {
    Step step;
    step.action = Action::Delete;
    step.name = entry.name;
    step.from = entry.path;
    step.fromMount = mountIndex;
    step.time = entry.time;
    step.bytes = bytesOf(entry.path);
    steps.push_back(step);
    takeAway(entry.path, mountPath);
}

void KSMaintenancePlan::recordMove(const ResourceEntry& entry, const std::string& fromPath,
                                   int fromIndex, const std::string& destination,
                                   const std::string& toPath, int toIndex) {
    const Footprint footprint = footprintOf(entry.path);
    Step step;
    step.action = Action::Move;
    step.name = entry.name;
    step.from = entry.path;
    step.to = destination;
    step.fromMount = fromIndex;
    step.toMount = toIndex;
    step.time = entry.time;
    step.bytes = footprint.bytes;
    steps.push_back(step);
    takeAway(entry.path, fromPath);
    bringIn(destination, toPath, static_cast<time_t>(entry.time), footprint);
}
