#include "VerifyLockCheck.h"

#include <sys/stat.h>

#include <cstdlib>
#include <ctime>
#include <list>
#include <memory>
#include <utility>

#include "DBConnector.h"
#include "KSPathUtils.h"
#include "KSRepositoryHandler.h"
#include "LockDB.h"

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

VerifyLockCheck::Reading VerifyLockCheck::read(const std::string& id) const {
    Reading reading;
    if (startsWith(id, ownPrefix_) || id == ownDirtyLock_) {
        reading.ours = true;
        return reading;
    }
    for (const auto& other : otherPrefixes_) {
        if (startsWith(id, other.first)) reading.otherScope = other.second;
    }
    for (const auto& other : otherDirtyLocks_) {
        if (id == other.first) reading.otherScope = other.second;
    }
    if (!reading.otherScope.empty() || !startsWith(id, kIdPrefix)) return reading;
    // <scope>-<name>: the scope's slashes are underscores now and both may hold dashes, so every
    // cut is tried; a cut whose name is a resource on this repository's mounts tells the scope.
    const std::string rest = id.substr(kIdPrefix.size());
    for (size_t dash = rest.find('-'); dash != std::string::npos; dash = rest.find('-', dash + 1)) {
        const std::string name = rest.substr(dash + 1);
        if (name.empty() || !isSafeResourceName(name.c_str())) continue;
        if (isResourceHere_(name)) {
            reading.otherScope = rest.substr(0, dash);
            break;
        }
    }
    return reading;
}

void VerifyLockCheck::judge(const std::string& id, const std::string& path, long long age,
                            VerifyKind staleKind, const char* what,
                            std::vector<VerifyFinding>& findings) {
    const Reading reading = read(id);
    if (reading.ours && age > olderThan_) {
        VerifyFinding finding{staleKind, id, path, {}, {}, age, {}};
        finding.detail = std::string(what) + " held for " + std::to_string(age) + " s";
        findings.push_back(std::move(finding));
    } else if (!reading.otherScope.empty()) {
        VerifyFinding finding{VerifyKind::kLockScope, id, path, {}, {}, age, {}};
        finding.detail = std::string(what) + " taken under the lock scope \"" + reading.otherScope +
                         "\", while this server locks the repository under \"" +
                         repository_.lockScope() + "\": the two do not exclude each other";
        findings.push_back(std::move(finding));
    }
}

void VerifyLockCheck::checkFiles(std::vector<VerifyFinding>& findings) {
    const std::string directory = lockDirectory();
    std::list<std::string> names;
    listDir(directory.c_str(), &names, true, true);
    const time_t now = time(nullptr);
    for (const std::string& name : names) {
        if (!startsWith(name, kFilePrefix + kIdPrefix)) continue;
        const std::string path = directory + "/" + name;
        struct stat st;
        if (::lstat(path.c_str(), &st) != 0 || !S_ISREG(st.st_mode)) continue;
        ++filesSeen_;
        judge(name.substr(kFilePrefix.size()), path, static_cast<long long>(now - st.st_mtime),
              VerifyKind::kStaleLockFile, "lock file", findings);
    }
}

void VerifyLockCheck::checkRows(std::vector<VerifyFinding>& findings) {
    kelp::db::DBConnector* connector = repository_.getDbConnector(nullptr);
    if (connector == nullptr) return;
    for (const kelp::db::LockDB::Row& row : connector->lockDB()->locksWithPrefix(kIdPrefix)) {
        ++rowsSeen_;
        judge(row.lockId, std::string(), row.ageSeconds, VerifyKind::kStaleLockRow,
              ("lock row of " + (row.actor.empty() ? std::string("no actor") : row.actor)).c_str(),
              findings);
    }
}
