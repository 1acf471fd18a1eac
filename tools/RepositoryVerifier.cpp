#include "RepositoryVerifier.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <list>
#include <memory>
#include <set>
#include <utility>

#include "CopyComparison.h"
#include "KSLegacyLinks.h"
#include "KSPathUtils.h"
#include "KSRepositoryHandler.h"
#include "KSStatus.h"
#include "KSTimedLock.h"
#include "RepoctlCodes.h"
#include "VerifyLockCheck.h"

namespace {

constexpr int kResourceDepth = 3;

bool isHashLevelName(const std::string& name) {
    static const char kAlphabet[] = "QWERTYUIOPASDFGHJKLZXCVBNM1234567890_";
    return name.size() == 2 && std::strchr(kAlphabet, name[0]) != nullptr &&
           std::strchr(kAlphabet, name[1]) != nullptr;
}

// "AB/CD/EF", the hash levels of `name`.
std::string hashLevelsOf(const std::string& name) {
    std::unique_ptr<char[]> hashed(createHash(name.c_str()));
    return std::string(hashed.get(), 8);
}

std::string canonical(const std::string& path) {
    char resolved[PATH_MAX];
    return ::realpath(path.c_str(), resolved) != nullptr ? std::string(resolved) : path;
}

bool present(const std::string& path) {
    struct stat st;
    return ::lstat(path.c_str(), &st) == 0;
}

bool isUnder(const std::string& path, const std::string& directory) {
    return path.size() > directory.size() + 1 &&
           path.compare(0, directory.size(), directory) == 0 && path[directory.size()] == '/';
}

// "2 (conflict)": a lookup status by number and name.
std::string statusText(int status) {
    return std::to_string(status) + " (" + lookupStatusName(status) + ")";
}

// The first entry that two copies, in the order a lookup merges them, hold differently.
std::string conflictAmong(const std::vector<std::string>& copies) {
    for (size_t i = 1; i < copies.size(); ++i) {
        std::string conflict = firstConflict(copies[i - 1], copies[i]);
        if (!conflict.empty()) return conflict;
    }
    return std::string();
}

std::string joinedWords(const std::vector<std::string>& words) {
    std::string text;
    for (const std::string& word : words) text += (text.empty() ? "" : ", ") + word;
    return text;
}

}  // namespace

RepositoryVerifier::RepositoryVerifier(KSRepositoryHandler& repository, Options options)
    : repository_(repository), options_(std::move(options)) {}

VerifyFinding RepositoryVerifier::makeFinding(VerifyKind kind, const std::string& name,
                                              const std::string& path, const std::string& detail,
                                              std::vector<std::string> locations) {
    VerifyFinding finding;
    finding.kind = kind;
    finding.name = name;
    finding.path = path;
    finding.locations = std::move(locations);
    finding.detail = detail;
    return finding;
}

void RepositoryVerifier::add(VerifyFinding finding) {
    findings_.push_back(std::move(finding));
    ++progress_.found;
}

void RepositoryVerifier::prepare() {
    connector_ = repository_.getDbConnector(nullptr);
    for (auto& mount : repository_.mounts()) {
        if (mount->checkStatus(true) & MOUNT_DEAD) {
            deadMounts_.push_back(mount->path());
            continue;
        }
        liveMounts_.push_back(mount.get());
        canonicalMounts_.push_back(canonical(mount->path()));
    }
    counts_.mounts = liveMounts_.size();
    // The set as the file holds it now, not as a cache of this process remembers it.
    KSDirtyFlagHandler& flags = repository_.dirtyFlags();
    flags.checkAndReadSetFile(connector_);
    for (const std::string& name : flags.snapshot()) dirtySnapshot_.push_back(name);
    counts_.dirtyNames = dirtySnapshot_.size();
}

void RepositoryVerifier::run() {
    prepare();
    for (size_t i = 0; i < liveMounts_.size(); ++i) {
        walkMount(*liveMounts_[i], i);
        ++progress_.mountsDone;
    }
    counts_.resources = progress_.resources;
    counts_.hashLevels = progress_.hashLevels;
    settleCopies();
    settleStagedCopies();
    checkDirtySet();
    checkLegacyLinks();
    if (options_.repair) repairAll();
    // Last, since the lock table may throw: everything else is done and reported by then.
    try {
        checkLocks();
    } catch (...) {
        sortFindings();
        throw;
    }
    sortFindings();
}

void RepositoryVerifier::sortFindings() {
    std::stable_sort(
        findings_.begin(), findings_.end(),
        [](const VerifyFinding& a, const VerifyFinding& b) { return a.kind < b.kind; });
}

// ---- the mounts' trees ------------------------------------------------------------------------

void RepositoryVerifier::walkMount(KSMountPointHandler& mount, size_t index) {
    std::list<std::string> names;
    listDir(mount.path().c_str(), &names, false, false);
    // Only entries named like hash levels are the repository's; the mount's own files
    // (repositorypart.cfg, lost+found, logs) are not looked at.
    for (const std::string& name : names) {
        if (!isHashLevelName(name)) continue;
        const std::string path = mount.path() + "/" + name;
        struct stat st;
        if (::lstat(path.c_str(), &st) != 0) continue;
        if (!S_ISDIR(st.st_mode)) {
            add(makeFinding(VerifyKind::kNotDirectory, "", path,
                            "not a directory, where a hash level belongs"));
            continue;
        }
        walkLevel(mount, index, name, 1);
    }
}

void RepositoryVerifier::walkLevel(KSMountPointHandler& mount, size_t index,
                                   const std::string& levels, int depth) {
    ++progress_.hashLevels;
    const std::string directory = mount.path() + "/" + levels;
    std::list<std::string> names;
    listDir(directory.c_str(), &names, false, false);
    if (names.empty()) {
        // A reserved level is one a creator has just handed out; its resource follows.
        if (present(directory) && !hashLevelReserved(directory)) {
            add(makeFinding(VerifyKind::kEmptyHashLevel, "", directory, "an empty hash level"));
        }
        return;
    }
    for (const std::string& name : names) {
        const std::string child = levels + "/" + name;
        if (depth == kResourceDepth) {
            judgeResourceEntry(mount, index, levels, name);
            continue;
        }
        const std::string path = mount.path() + "/" + child;
        struct stat st;
        if (::lstat(path.c_str(), &st) != 0) continue;
        if (!S_ISDIR(st.st_mode)) {
            add(makeFinding(VerifyKind::kNotDirectory, "", path,
                            "not a directory, where a hash level belongs"));
        } else if (!isHashLevelName(name)) {
            add(makeFinding(VerifyKind::kMisplaced, name, path,
                            "a directory named unlike a hash level, where one belongs"));
        } else {
            walkLevel(mount, index, child, depth + 1);
        }
    }
}

void RepositoryVerifier::judgeResourceEntry(KSMountPointHandler& mount, size_t index,
                                            const std::string& levels, const std::string& entry) {
    const std::string path = mount.path() + "/" + levels + "/" + entry;
    std::string staged;
    if (options_.stagedCopy && options_.stagedCopy(entry, &staged)) {
        stagedCopies_.emplace_back(path, staged);
        return;
    }
    struct stat st;
    if (::lstat(path.c_str(), &st) != 0) return;
    if (!S_ISDIR(st.st_mode)) {
        add(makeFinding(VerifyKind::kNotDirectory, entry, path,
                        S_ISLNK(st.st_mode) ? "a symbolic link, where resources are directories"
                                            : "not a directory, where resources are directories"));
        return;
    }
    const std::string expected = hashLevelsOf(entry);
    if (expected != levels) {
        add(makeFinding(VerifyKind::kMisplaced, entry, path,
                        "under " + levels + ", while its name hashes to " + expected));
        return;
    }
    ++progress_.resources;
    // Copies on earlier mounts were seen when those were walked; only later ones are probed.
    std::vector<std::string> copies{path};
    for (size_t j = index + 1; j < liveMounts_.size(); ++j) {
        const std::string other = resourceLocation(liveMounts_[j]->path(), entry.c_str());
        if (present(other)) copies.push_back(other);
    }
    if (copies.size() > 1 && multipleCopies_.count(entry) == 0)
        multipleCopies_[entry] = std::move(copies);
}

std::vector<std::string> RepositoryVerifier::copiesOf(const std::string& name) const {
    std::vector<std::string> copies;
    if (!isSafeResourceName(name.c_str())) return copies;
    for (KSMountPointHandler* mount : liveMounts_) {
        const std::string location = resourceLocation(mount->path(), name.c_str());
        if (present(location)) copies.push_back(location);
    }
    return copies;
}

bool RepositoryVerifier::isResourceHere(const std::string& name) const {
    return !copiesOf(name).empty();
}

// Under the resource's lock no move or merge of it is under way, so what is seen then is how
// the resource really lies.
void RepositoryVerifier::settleCopies() {
    for (const auto& entry : multipleCopies_) {
        const std::string& name = entry.first;
        KSTimedLock lock(repository_.isShared(), repository_.lockScope(), name, connector_);
        if (!lock.acquire(false)) {
            notes_.push_back("the copies of \"" + name +
                             "\" could not be confirmed: its lock was not obtained");
            continue;
        }
        const std::vector<std::string> copies = copiesOf(name);
        if (copies.size() < 2) continue;
        if (repository_.isDirty(connector_, name.c_str()) != 1) {
            add(makeFinding(VerifyKind::kDuplicate, name, copies.front(),
                            "on " + std::to_string(copies.size()) + " mounts, not in the dirty set",
                            copies));
            continue;
        }
        // Dirty with equal copies is a move that stopped after its copy: the next lookup merges
        // it. Copies that differ are what an interrupted copy or merge leaves.
        std::string difference;
        for (size_t i = 1; i < copies.size() && difference.empty(); ++i)
            difference = firstDifference(copies[i - 1], copies[i]);
        if (difference.empty()) continue;
        const std::string conflict = conflictAmong(copies);
        add(makeFinding(VerifyKind::kPartialCopy, name, copies.back(),
                        conflict.empty() ? "dirty, and one copy lacks entries of another (" +
                                               difference + "): a lookup merges them"
                                         : "dirty, and its copies hold an entry differently (" +
                                               conflict + "): no lookup can merge them",
                        copies));
    }
}

// A copy is staged while its resource's lock is held; one still there when the lock is free is
// left over from a move that did not finish.
void RepositoryVerifier::settleStagedCopies() {
    for (const auto& staged : stagedCopies_) {
        const std::string& path = staged.first;
        const std::string& name = staged.second;
        if (name.empty()) {
            add(makeFinding(VerifyKind::kPartialCopy, name, path,
                            "a copy staged by a move, for a resource whose name is shortened "
                            "here: not confirmed under its lock"));
            continue;
        }
        KSTimedLock lock(repository_.isShared(), repository_.lockScope(), name, connector_);
        if (!lock.acquire(false)) {
            notes_.push_back("the staged copy \"" + path +
                             "\" could not be confirmed: its resource's lock was not obtained");
            continue;
        }
        if (present(path)) {
            add(makeFinding(VerifyKind::kPartialCopy, name, path,
                            "a copy staged by a move that did not finish"));
        }
    }
}

// ---- the dirty set ----------------------------------------------------------------------------

void RepositoryVerifier::checkDirtySet() {
    if (!deadMounts_.empty()) {
        if (!dirtySnapshot_.empty())
            notes_.push_back("dirty names were not checked for copies: a mount is dead");
        return;
    }
    const std::string& legacyDir = repository_.settings().legacyDir;
    for (const std::string& name : dirtySnapshot_) {
        auto existsSomewhere = [&] {
            if (isResourceHere(name)) return true;
            return !legacyDir.empty() && isSafeResourceName(name.c_str()) &&
                   present(legacyDir + "/" + name);
        };
        if (existsSomewhere()) continue;
        // The empty name's lock would be the repository's maintenance lock: never taken here.
        std::unique_ptr<KSTimedLock> lock;
        if (!name.empty()) {
            lock = std::make_unique<KSTimedLock>(repository_.isShared(), repository_.lockScope(),
                                                 name, connector_);
            if (!lock->acquire(false)) {
                notes_.push_back("the dirty name \"" + name +
                                 "\" could not be confirmed: its lock was not obtained");
                continue;
            }
            if (existsSomewhere() || repository_.isDirty(connector_, name.c_str()) != 1) continue;
        }
        add(makeFinding(
            VerifyKind::kStaleDirty, name, repository_.dirtyFlags().filePath(),
            "in the dirty set, but on no mount" +
                std::string(legacyDir.empty() ? "" : " and not in the legacy directory")));
    }
}

// ---- legacy links -----------------------------------------------------------------------------

void RepositoryVerifier::checkLegacyLinks() {
    const std::string& legacyDir = repository_.settings().legacyDir;
    if (legacyDir.empty()) return;
    std::list<std::string> names;
    listDir(legacyDir.c_str(), &names, false, false);
    for (const std::string& name : names) {
        ++counts_.legacyEntries;
        const std::string path = legacyDir + "/" + name;
        struct stat st;
        if (::lstat(path.c_str(), &st) != 0 || !S_ISLNK(st.st_mode)) continue;
        judgeLegacyLink(name, path);
    }
}

void RepositoryVerifier::judgeLegacyLink(const std::string& name, const std::string& path) {
    struct stat st;
    if (::stat(path.c_str(), &st) != 0) {
        // A link into a dead mount cannot be judged: its resource may well be there.
        char text[PATH_MAX + 1];
        const ssize_t n = ::readlink(path.c_str(), text, PATH_MAX);
        const std::string target = n > 0 ? std::string(text, n) : std::string();
        for (const std::string& dead : deadMounts_) {
            if (isUnder(target, dead)) return;
        }
        add(makeFinding(VerifyKind::kDanglingLink, name, path,
                        "points at \"" + target + "\", which does not exist"));
        return;
    }
    const std::string target = canonical(path);
    for (size_t i = 0; i < liveMounts_.size(); ++i) {
        if (!isUnder(target, canonicalMounts_[i])) continue;
        if (target == canonical(resourceLocation(liveMounts_[i]->path(), name.c_str()))) return;
        add(makeFinding(
            VerifyKind::kForeignLink, name, path,
            "points at \"" + target + "\", which is not the location of \"" + name + "\""));
        return;
    }
    add(makeFinding(VerifyKind::kForeignLink, name, path,
                    "points at \"" + target + "\", outside the repository's mounts"));
}

// ---- locks ------------------------------------------------------------------------------------

void RepositoryVerifier::checkLocks() {
    VerifyLockCheck locks(repository_, options_.olderThanSeconds,
                          [this](const std::string& name) { return isResourceHere(name); });
    std::vector<VerifyFinding> found;
    auto keep = [&] {
        counts_.lockFiles = locks.filesSeen();
        counts_.lockRows = locks.rowsSeen();
        for (VerifyFinding& finding : found) add(std::move(finding));
    };
    try {
        locks.check(repository_.isShared() ? connector_ : nullptr, found);
    } catch (...) {
        keep();
        throw;
    }
    keep();
}

// ---- repairs ----------------------------------------------------------------------------------

void RepositoryVerifier::repairAll() {
    // Merges first: a merge re-points the legacy link and clears the levels it empties.
    const VerifyKind order[] = {VerifyKind::kDuplicate,   VerifyKind::kPartialCopy,
                                VerifyKind::kStaleDirty,  VerifyKind::kDanglingLink,
                                VerifyKind::kForeignLink, VerifyKind::kEmptyHashLevel};
    for (VerifyKind kind : order) {
        for (VerifyFinding& finding : findings_) {
            if (finding.kind != kind) continue;
            finding.repair.attempted = true;
            switch (kind) {
                case VerifyKind::kDuplicate:
                    repairDuplicate(finding);
                    break;
                case VerifyKind::kPartialCopy:
                    repairPartialCopy(finding);
                    break;
                case VerifyKind::kStaleDirty:
                    repairStaleDirty(finding);
                    break;
                case VerifyKind::kEmptyHashLevel:
                    repairEmptyLevel(finding);
                    break;
                default:
                    repairLink(finding);
                    break;
            }
            if (finding.repair.done) ++progress_.repaired;
        }
    }
}

// Marking the name dirty makes the library's own locked lookup search every mount and merge
// the copies (moveRes: copy what is missing, compare, remove the earlier copy).
void RepositoryVerifier::repairDuplicate(VerifyFinding& finding) {
    const char* name = finding.name.c_str();
    repository_.setDirty(connector_, name, true);
    int status = 0;
    std::unique_ptr<char[]> location(
        repository_.getLocation(connector_, name, &status, false, true, false, true));
    const std::vector<std::string> copies = copiesOf(finding.name);
    finding.repair.done = copies.size() == 1 && status == RESOURCE_STATUS_FOUND;
    if (finding.repair.done) {
        finding.repair.action = "merged by a locked lookup onto " + copies.front();
    } else {
        finding.repair.action = "marked dirty; the locked lookup answered " + statusText(status) +
                                " and left " + std::to_string(copies.size()) +
                                " copies, which every lookup now searches";
    }
}

// Only copies that the library's merge can join: where both hold an entry differently, the merge
// would stop half-way and the operator must choose.
void RepositoryVerifier::repairPartialCopy(VerifyFinding& finding) {
    if (finding.locations.empty()) {
        finding.repair.action = "left: a staged copy is for the operator";
        return;
    }
    const std::string conflict = conflictAmong(copiesOf(finding.name));
    if (!conflict.empty()) {
        finding.repair.action = "left: the copies hold an entry differently (" + conflict + ")";
        return;
    }
    int status = 0;
    std::unique_ptr<char[]> location(repository_.getLocation(connector_, finding.name.c_str(),
                                                             &status, false, true, false, true));
    const std::vector<std::string> copies = copiesOf(finding.name);
    finding.repair.done = copies.size() == 1 && status == RESOURCE_STATUS_FOUND;
    finding.repair.action = finding.repair.done
                                ? "merged by a locked lookup onto " + copies.front()
                                : "the locked lookup answered " + statusText(status) +
                                      " and left " + std::to_string(copies.size()) + " copies";
}

void RepositoryVerifier::repairStaleDirty(VerifyFinding& finding) {
    if (finding.name.empty() || !isSafeResourceName(finding.name.c_str())) {
        finding.repair.action = finding.name.empty()
                                    ? "not repaired: the empty name cannot be looked up"
                                    : "not repaired: not a resource name, which no lookup takes; "
                                      "repoctl dirty REPO clear NAME clears it";
        return;
    }
    int status = 0;
    std::unique_ptr<char[]> location(repository_.getLocation(connector_, finding.name.c_str(),
                                                             &status, false, true, false, true));
    finding.repair.done = repository_.isDirty(connector_, finding.name.c_str()) == 0;
    finding.repair.action = finding.repair.done
                                ? "cleared by a locked lookup, which searched every mount"
                                : "not cleared: the locked lookup answered " + statusText(status);
}

void RepositoryVerifier::repairLink(VerifyFinding& finding) {
    if (!isSafeResourceName(finding.name.c_str())) {
        finding.repair.action = "not repaired: not a resource name";
        return;
    }
    KSTimedLock lock(repository_.isShared(), repository_.lockScope(), finding.name, connector_);
    if (!lock.acquire(false)) {
        finding.repair.action = "not repaired: the resource's lock was not obtained";
        return;
    }
    const std::vector<std::string> copies = copiesOf(finding.name);
    if (copies.size() != 1) {
        finding.repair.action = copies.empty()
                                    ? "not repaired: no copy on a mount to point at"
                                    : "not repaired: copies on " + std::to_string(copies.size()) +
                                          " mounts (" + joinedWords(copies) + ")";
        return;
    }
    const bool set = setLink(copies.front().c_str(), finding.path.c_str());
    finding.repair.done = set && canonical(finding.path) == canonical(copies.front());
    finding.repair.action = finding.repair.done
                                ? "re-pointed at " + copies.front()
                                : "not repaired: the link could not be replaced (see the log)";
}

void RepositoryVerifier::repairEmptyLevel(VerifyFinding& finding) {
    for (KSMountPointHandler* mount : liveMounts_) {
        const std::string top = mount->path() + "/";
        if (finding.path.compare(0, top.size(), top) != 0) continue;
        clearEmptyHashLevels(mount->path(), finding.path.substr(top.size()));
        break;
    }
    finding.repair.done = !present(finding.path);
    finding.repair.action = finding.repair.done
                                ? "removed"
                                : "kept: a resource arrived or a creator reserved it meanwhile";
}
