#include "VerifyLockCheck.h"

#include <sys/stat.h>

#include <cstdlib>
#include <ctime>
#include <list>
#include <memory>
#include <stdexcept>
#include <utility>

#include "DBConnector.h"
#include "KSPathUtils.h"
#include "KSRepositoryHandler.h"
#include "LockDB.h"
#include "RepoctlLockList.h"

namespace {

const std::string kIdPrefix = "KSRepositoryHandler-";
const std::string kFilePrefix = "semaphore_";

std::string lockId(const std::string& scope, const std::string& resource) {
    std::unique_ptr<char[]> id(toResourceID(scope.c_str(), resource.c_str()));
    return id ? std::string(id.get()) : std::string();
}

bool startsWith(const std::string& text, const std::string& prefix) {
    return text.compare(0, prefix.size(), prefix) == 0;
}

std::string lockDirectory() {
    const char* directory = getenv("LOCK_VAR");
    return directory != nullptr ? directory : ".";
}

}  // namespace

VerifyLockCheck::VerifyLockCheck(KSRepositoryHandler& repository, long long olderThanSeconds,
                                 std::function<bool(const std::string&)> isResourceHere)
    : repository_(repository),
      olderThan_(olderThanSeconds),
      isResourceHere_(std::move(isResourceHere)) {
    const std::string& scope = repository.lockScope();
    ownPrefix_ = lockId(scope, "");
    ownDirtyLock_ = lockId(repository.dirtyFlags().lockName(), "");
    const std::string& id = repository.settings().repositoryId;
    for (const std::string& other : {repository.path(), repository.canonicalPath(), id}) {
        if (other.empty() || other == scope) continue;
        const std::string prefix = lockId(other, "");
        if (prefix == ownPrefix_) continue;
        otherPrefixes_.emplace_back(prefix, other);
        const std::string dirty = lockId(other + "/.dirty", "");
        if (dirty != ownDirtyLock_) otherDirtyLocks_.emplace_back(dirty, other);
    }
}

void VerifyLockCheck::check(kelp::db::DBConnector* connector,
                            std::vector<VerifyFinding>& findings) {
    checkAges(connector, findings);
    checkScopeOfFiles(findings);
    if (connector != nullptr) checkScopeOfRows(connector, findings);
}

void VerifyLockCheck::checkAges(kelp::db::DBConnector* connector,
                                std::vector<VerifyFinding>& findings) {
    RepoctlLockList list(repository_);
    const bool complete = list.load(connector);
    for (const RepoctlLockList::Lock& lock : list.locks()) {
        ++(lock.row ? rowsSeen_ : filesSeen_);
        if (lock.age <= olderThan_) continue;
        VerifyFinding finding;
        finding.kind = lock.row ? VerifyKind::kStaleLockRow : VerifyKind::kStaleLockFile;
        finding.name = lock.id;
        finding.path = lock.file;
        finding.ageSeconds = lock.age;
        finding.detail = (lock.row ? "lock row" : "lock file") + std::string(" of the ") +
                         lock.what + " lock, held for " + std::to_string(lock.age) + " s";
        if (lock.row) finding.detail += " by " + lock.holder + " (" + lock.liveness + ")";
        findings.push_back(std::move(finding));
    }
    if (!complete) throw std::runtime_error(list.error());
}

std::string VerifyLockCheck::otherScopeOf(const std::string& id) const {
    if (startsWith(id, ownPrefix_) || id == ownDirtyLock_ || !startsWith(id, kIdPrefix))
        return std::string();
    for (const auto& other : otherPrefixes_) {
        if (startsWith(id, other.first)) return other.second;
    }
    for (const auto& other : otherDirtyLocks_) {
        if (id == other.first) return other.second;
    }
    // <scope>-<name>: the scope's slashes are underscores now and both may hold dashes, so every
    // cut is tried; a cut whose name is a resource on this repository's mounts tells the scope.
    const std::string rest = id.substr(kIdPrefix.size());
    for (size_t dash = rest.find('-'); dash != std::string::npos; dash = rest.find('-', dash + 1)) {
        const std::string name = rest.substr(dash + 1);
        if (!name.empty() && isSafeResourceName(name.c_str()) && isResourceHere_(name))
            return rest.substr(0, dash);
    }
    return std::string();
}

void VerifyLockCheck::reportScope(const std::string& id, const std::string& path, long long age,
                                  const std::string& what, const std::string& scope,
                                  std::vector<VerifyFinding>& findings) const {
    VerifyFinding finding;
    finding.kind = VerifyKind::kLockScope;
    finding.name = id;
    finding.path = path;
    finding.ageSeconds = age;
    finding.detail = what + " taken under the lock scope \"" + scope +
                     "\", while this server locks the repository under \"" +
                     repository_.lockScope() + "\": the two do not exclude each other";
    findings.push_back(std::move(finding));
}

void VerifyLockCheck::checkScopeOfFiles(std::vector<VerifyFinding>& findings) {
    const std::string directory = lockDirectory();
    std::list<std::string> names;
    listDir(directory.c_str(), &names, true, true);
    const time_t now = time(nullptr);
    for (const std::string& name : names) {
        if (!startsWith(name, kFilePrefix + kIdPrefix)) continue;
        const std::string id = name.substr(kFilePrefix.size());
        const std::string scope = otherScopeOf(id);
        if (scope.empty()) continue;
        const std::string path = directory + "/" + name;
        struct stat st;
        if (::lstat(path.c_str(), &st) != 0 || !S_ISREG(st.st_mode)) continue;
        reportScope(id, path, static_cast<long long>(now - st.st_mtime), "lock file", scope,
                    findings);
    }
}

void VerifyLockCheck::checkScopeOfRows(kelp::db::DBConnector* connector,
                                       std::vector<VerifyFinding>& findings) {
    for (const kelp::db::LockDB::Row& row : connector->lockDB()->locksWithPrefix(kIdPrefix)) {
        const std::string scope = otherScopeOf(row.lockId);
        if (scope.empty()) continue;
        reportScope(row.lockId, std::string(), row.ageSeconds,
                    "lock row of " + (row.actor.empty() ? std::string("no actor") : row.actor),
                    scope, findings);
    }
}
