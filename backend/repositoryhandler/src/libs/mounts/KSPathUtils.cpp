#include "KSPathUtils.h"

#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>
#include <utime.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "KSAssertionException.h"
#include "KSClock.h"
#include "KSHashLevelLock.h"
#include "KSLogger.h"
#include "KSPartialCopy.h"
#include "repohandler.h"

namespace {

const char kAssertFile[] = "backend/repositoryhandler/src/libs/KSRepositoryHandler";

// The hash alphabet; its order fixes where every resource lives on disk.
const char sHashTable[] = "QWERTYUIOPASDFGHJKLZXCVBNM1234567890_";
constexpr unsigned kHashTableSize = sizeof(sHashTable) - 1;
constexpr size_t kPrefixLength = 9;

// Writes the "AB/CD/EF/" prefix of the first `length` bytes of `name` into `out`.
// Sum k is the sum of (i+k)^2 * c_i = C + 2kB + k^2 A with A = sum c_i, B = sum i c_i and
// C = sum i^2 c_i, so one pass keeps three sums instead of six. Arithmetic is modulo 2^32, as
// the six sums themselves would be, so their low bytes come out the same.
void hashPrefix(const char* name, size_t length, char* out) {
    uint32_t a = 0, b = 0, c = 0;
    for (size_t i = 1; i <= length; ++i) {
        const uint32_t value = static_cast<unsigned char>(name[i - 1]);
        const uint32_t index = static_cast<uint32_t>(i);
        a += value;
        b += index * value;
        c += index * index * value;
    }
    uint32_t sums[6];
    for (uint32_t k = 0; k < 6; ++k) sums[k] = c + 2 * k * b + k * k * a;
    size_t pos = 0;
    for (int k = 0; k < 6; ++k) {
        out[pos++] = sHashTable[(sums[k] & 0xFF) % kHashTableSize];
        if (k % 2 == 1) out[pos++] = '/';
    }
}

void appendHashed(std::string& out, const char* component, size_t length) {
    char prefix[kPrefixLength];
    hashPrefix(component, length, prefix);
    out.append(prefix, kPrefixLength);
    out.append(component, length);
}

std::string hashedPath(const char* path, bool hashLast) {
    std::string out;
    if (path == nullptr) return out;
    const char* start = path;
    for (const char* p = path; *p != '\0'; ++p) {
        if (*p != '/') continue;
        if (p > start) {
            appendHashed(out, start, static_cast<size_t>(p - start));
            out.push_back('/');
        }
        start = p + 1;
    }
    const size_t lastLength = strlen(start);
    if (lastLength > 0) {
        if (hashLast) {
            appendHashed(out, start, lastLength);
        } else {
            out.append(start, lastLength);
        }
    }
    return out;
}

char* newCopy(const std::string& text) {
    char* copy = new char[text.size() + 1];
    memcpy(copy, text.c_str(), text.size() + 1);
    return copy;
}

// The prefix up to and including the last slash; empty when there is none.
std::string baseDirOf(const std::string& path) {
    const size_t slash = path.rfind('/');
    return slash == std::string::npos ? std::string() : path.substr(0, slash + 1);
}

bool hasSlash(const char* path) {
    return path != nullptr && strchr(path, '/') != nullptr;
}

// True when some component of `path` is "." or "..": such a relative path could leave the
// directory it is joined to (on the legacy side, where components are not hashed).
bool hasDotComponent(const char* path) {
    const char* start = path;
    for (const char* p = path;; ++p) {
        if (*p == '/' || *p == '\0') {
            const size_t length = static_cast<size_t>(p - start);
            if ((length == 1 && start[0] == '.') ||
                (length == 2 && start[0] == '.' && start[1] == '.')) {
                return true;
            }
            if (*p == '\0') return false;
            start = p + 1;
        }
    }
}

bool refuseDotComponents(const char* function, const char* relPath) {
    if (relPath == nullptr || !hasDotComponent(relPath)) return false;
    rh_logger.errorLog("%s refuses the relative path '%s': it names '.' or '..'", function,
                       relPath);
    return true;
}

// rmdir on mountBase + path, then on each parent hash level up to the first of the mount.
// -1 when the first rmdir failed, else 0. `afterEach` runs after every attempt.
template <typename AfterEach>
int removeLevels(const std::string& mountBase, std::string path, AfterEach afterEach) {
    bool first = true;
    while (true) {
        const int result = rmdir((mountBase + path).c_str());
        afterEach();
        if (result != 0) return first ? -1 : 0;
        first = false;
        char* parent = parentDir(path.c_str());
        if (parent == nullptr) return 0;
        path = parent;
        delete[] parent;
    }
}

// isDangling also holds for entries that are no link at all; of those, a plain file would be
// unlinked, so only links are.
void unlinkIfLink(std::string path) {
    if (!path.empty() && path.back() == '/') path.pop_back();
    struct stat st;
    if (lstat(path.c_str(), &st) == 0 && S_ISLNK(st.st_mode)) unlink(path.c_str());
}

std::string cwdText(bool* ok) {
    char buffer[4096];
    *ok = getcwd(buffer, sizeof(buffer)) != nullptr;
    return *ok ? std::string(buffer) : std::string();
}

}  // namespace

std::string errnoText(int error) {
    char buffer[256];
    // GNU strerror_r may return a static text instead of filling the buffer.
    return strerror_r(error, buffer, sizeof(buffer));
}

// ---- hashing and strings ------------------------------------------------------------------

char* createHash(const char* name) {
    const size_t length = name == nullptr ? 0 : strlen(name);
    char* result = new char[length + kPrefixLength + 1];
    hashPrefix(name, length, result);
    if (length > 0) memcpy(result + kPrefixLength, name, length);
    result[kPrefixLength + length] = '\0';
    return result;
}

char* convertToHashed_(const char* path, bool hashLast) {
    return newCopy(hashedPath(path, hashLast));
}

char* append0(const char* a, const char* b) {
    const size_t la = a == nullptr ? 0 : strlen(a);
    const size_t lb = b == nullptr ? 0 : strlen(b);
    char* result = new char[la + lb + 1];
    if (la > 0) memcpy(result, a, la);
    if (lb > 0) memcpy(result + la, b, lb);
    result[la + lb] = '\0';
    return result;
}

char* append(char* a, const char* b) {
    char* result = append0(a, b);
    delete[] a;
    return result;
}

char* baseDir(const char* path) {
    if (path == nullptr) return nullptr;
    const char* slash = strrchr(path, '/');
    if (slash == nullptr) return nullptr;
    return newCopy(std::string(path, static_cast<size_t>(slash - path) + 1));
}

char* parentDir(const char* path) {
    char* base = baseDir(path);
    if (base == nullptr) return nullptr;
    base[strlen(base) - 1] = 'x';
    char* parent = baseDir(base);
    delete[] base;
    return parent;
}

char* toResourceID(const char* repository, const char* resource) {
    std::string id = "KSRepositoryHandler-";
    id += repository == nullptr ? "" : repository;
    id += "-";
    id += resource == nullptr ? "" : resource;
    for (char& c : id) {
        if (c == '/') c = '_';
    }
    return newCopy(id);
}

std::string resourceLocation(const std::string& mountPath, const char* resource) {
    std::string name = resource == nullptr ? "" : resource;
    if (name.empty() || name.back() != '/') name.push_back('/');
    std::string hashed = hashedPath(name.c_str(), false);
    if (!hashed.empty()) hashed.pop_back();
    return mountPath + "/" + hashed;
}

bool isSafeResourceName(const char* resource) {
    if (resource == nullptr || resource[0] == '\0') return false;
    if (strcmp(resource, ".") == 0 || strcmp(resource, "..") == 0) return false;
    // The staging names of copies in progress (KSPartialCopy.h) are never resources.
    if (isPartialCopy(resource)) return false;
    return strchr(resource, '/') == nullptr;
}

char* normalize_file_name(const char* path) {
    if (path == nullptr) return nullptr;
    std::string result;
    if (path[0] != '/') {
        bool ok = true;
        result = cwdText(&ok);
        if (!ok) return nullptr;
        // Components are appended after a slash, so the root starts empty ("/a", not "//a").
        if (result == "/") result.clear();
    }
    const char* begin = path;
    for (const char* p = path;; ++p) {
        if (*p != '/' && *p != '\0') continue;
        const std::string component(begin, static_cast<size_t>(p - begin));
        if (component == "..") {
            const size_t slash = result.rfind('/');
            if (slash != std::string::npos) result.resize(slash);
        } else if (!component.empty() && component != ".") {
            result += "/";
            result += component;
        }
        if (*p == '\0') break;
        begin = p + 1;
    }
    if (result.empty()) result = "/";
    char* out = static_cast<char*>(malloc(result.size() + 1));
    if (out == nullptr) return nullptr;
    memcpy(out, result.c_str(), result.size() + 1);
    return out;
}

// ---- file-system helpers ----------------------------------------------------------------

bool exists(const char* path) {
    return path != nullptr && access(path, F_OK) == 0;
}

bool isNotLink(const char* path) {
    if (path == nullptr) return false;
    char buffer[1];
    return readlink(path, buffer, sizeof(buffer)) < 0 && errno == EINVAL;
}

bool isDangling(const char* path) {
    if (path == nullptr) return true;
    std::string linkPath = path;
    if (!linkPath.empty() && linkPath.back() == '/') linkPath.pop_back();
    std::string buffer(100, '\0');
    while (true) {
        const ssize_t length = readlink(linkPath.c_str(), &buffer[0], buffer.size());
        if (length < 0) return true;
        if (static_cast<size_t>(length) < buffer.size()) {
            buffer.resize(static_cast<size_t>(length));
            break;
        }
        buffer.resize(buffer.size() * 2);
    }
    return !exists(buffer.c_str());
}

void mylink(const char* legacyRoot, const char* mountRoot, const char* relPath) {
    char* legacy = baseDir(legacyRoot);
    char* mount = baseDir(mountRoot);
    char* rel = baseDir(relPath);
    if (legacy != nullptr && mount != nullptr && rel != nullptr && !hasDotComponent(rel)) {
        const std::string relDir = rel;
        for (size_t p = relDir.find('/'); p != std::string::npos; p = relDir.find('/', p + 1)) {
            const std::string entry = legacy + relDir.substr(0, p);
            if (exists(entry.c_str())) continue;
            const std::string target = mount + hashedPath(relDir.substr(0, p + 1).c_str(), false);
            if (symlink(target.c_str(), entry.c_str()) != 0) {
                rh_logger.debugLog("Legacy link %s -> %s not created: %s", entry.c_str(),
                                   target.c_str(), errnoText(errno).c_str());
            }
        }
    }
    delete[] legacy;
    delete[] mount;
    delete[] rel;
}

int myunlink(const char* path) {
    if (path == nullptr) return -1;
    std::string target = path;
    if (!target.empty() && target.back() == '/') target.pop_back();
    return unlink(target.c_str());
}

int mkdirs(const char* path, mode_t mode) {
    if (path == nullptr) return -1;
    // The empty path names no directory and has no ancestor to make: nothing to do.
    if (path[0] == '\0') return 0;
    std::string copy = path;
    for (size_t slash = copy.find('/', 1); slash != std::string::npos;
         slash = copy.find('/', slash + 1)) {
        const std::string prefix = copy.substr(0, slash);
        // Another thread or process may create the same hash level between the check and the
        // mkdir; EEXIST then means the level is there, which is all that is needed.
        if (!exists(prefix.c_str()) && mkdir(prefix.c_str(), mode) != 0 && errno != EEXIST) {
            return -1;
        }
    }
    if (!exists(path)) mkdir(path, mode);
    return 0;
}

int myStat(const char* path, struct stat* out) {
    if (path == nullptr) {
        throw KSAssertionException("resource", __LINE__, kAssertFile,
                                   "null resource parameter in myStat");
    }
    if (out == nullptr) {
        throw KSAssertionException("resStat", __LINE__, kAssertFile,
                                   "null resStat parameter in myStat");
    }
    if (stat(path, out) == 0) return 0;
    const int error = errno;
    rh_logger.errorLog("The resource \"%s\" can not be stat-ed. Error code is %d - %s", path, error,
                       errnoText(error).c_str());
    return 8;
}

int isDir(const char* path, bool* isDirectory, struct stat* known) {
    KS_ASSERT_NOT_NULL(isDirectory, kAssertFile);
    if (known != nullptr) {
        *isDirectory = S_ISDIR(known->st_mode);
        return 0;
    }
    struct stat st;
    const int result = myStat(path, &st);
    if (result == 0) *isDirectory = S_ISDIR(st.st_mode);
    return result;
}

time_t lastAccess(const char* path, struct stat* known) {
    struct stat st;
    if (known == nullptr) {
        if (myStat(path, &st) != 0) return -1;
        known = &st;
    }
    return known->st_atime > known->st_mtime ? known->st_atime : known->st_mtime;
}

time_t lastModified(const char* path) {
    struct stat st;
    if (myStat(path, &st) != 0) return -1;
    return st.st_mtime;
}

time_t lastModified2(const char* path) {
    if (path == nullptr) {
        throw KSAssertionException("file", __LINE__, kAssertFile,
                                   "null file parameter in lastModified2");
    }
    struct stat st;
    if (stat(path, &st) == 0) return st.st_mtime;
    const int error = errno;
    if (error == ENOENT) return 0;
    rh_logger.errorLog("The file \"%s\" can not be stat-ed. Error code is %d - %s", path, error,
                       errnoText(error).c_str());
    return -1;
}

long getSize(const char* path, struct stat* known) {
    if (path == nullptr) return -1;
    struct stat st;
    if (known == nullptr) {
        if (myStat(path, &st) != 0) return -1;
        known = &st;
    }
    long total = static_cast<long>(known->st_blocks);
    if (!S_ISDIR(known->st_mode)) return total;
    std::list<std::string> entries;
    listDir(path, &entries, true, false);
    const std::string base = std::string(path) + "/";
    for (const std::string& entry : entries) {
        const long size = getSize((base + entry).c_str(), nullptr);
        if (size < 0) return -1;
        total += size;
    }
    return total;
}

namespace {

// Owns a DIR* (and with it the descriptor fdopendir took over).
class DirHandle {
  public:
    explicit DirHandle(DIR* dir) : dir_(dir) {}
    ~DirHandle() {
        if (dir_ != nullptr) closedir(dir_);
    }
    DirHandle(const DirHandle&) = delete;
    DirHandle& operator=(const DirHandle&) = delete;
    DIR* get() const { return dir_; }

  private:
    DIR* dir_;
};

DIR* openDirectory(const char* path, bool plainOpen) {
    if (plainOpen) return opendir(path);
    // O_NOATIME keeps scans from changing access times, which serve as resource ages.
    // It is refused (EPERM) for files of other owners unless the caller is privileged.
    int fd = open(path, O_RDONLY | O_DIRECTORY | O_NOATIME | O_CLOEXEC);
    if (fd < 0 && errno == EPERM) fd = open(path, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0) return nullptr;
    DIR* dir = fdopendir(fd);
    if (dir == nullptr) {
        const int error = errno;
        close(fd);
        errno = error;
    }
    return dir;
}

}  // namespace

int listDir(const char* path, std::list<std::string>* names, bool plainOpen, bool skipDirectories) {
    if (names == nullptr) return 0;
    if (path == nullptr) return static_cast<int>(names->size());
    DirHandle dir(openDirectory(path, plainOpen));
    if (dir.get() == nullptr) {
        const int error = errno;
        // Walks list directories from an earlier listing; one removed meanwhile (an emptied
        // hash level, a moved resource) is normal and no error for the operator.
        if (error == ENOENT) {
            rh_logger.debugLog("listDir could not open '%s'; errno : %d (%s)\n", path, error,
                               errnoText(error).c_str());
        } else {
            rh_logger.errorLog("listDir could not open '%s'; errno : %d (%s)\n", path, error,
                               errnoText(error).c_str());
        }
        return 0;
    }
    while (const dirent* entry = readdir(dir.get())) {
        if (strcmp(entry->d_name, ".") == 0 || strcmp(entry->d_name, "..") == 0) continue;
        if (skipDirectories && entry->d_type == DT_DIR) continue;
        names->emplace_back(entry->d_name);
    }
    return static_cast<int>(names->size());
}

// The level directly above the resource keeps its access time: it may hold a reservation (see
// clearEmptyHash), which renewing it to now would end.
void touchHashedDirs(const char* path) {
    if (path == nullptr) return;
    std::string current = path;
    for (int level = 0; level < 4; ++level) {
        const size_t slash = current.rfind('/');
        if (slash == std::string::npos) return;
        current.resize(slash);
        // A level that does not exist (any more) simply fails, as a test beforehand would.
        if (level == 0) {
            const struct timespec times[2] = {{0, UTIME_OMIT}, {0, UTIME_NOW}};
            utimensat(AT_FDCWD, current.c_str(), times, 0);
        } else {
            utime(current.c_str(), nullptr);
        }
    }
}

// ---- creating and removing hash levels --------------------------------------------------
//
// Many threads and processes create hash levels on a mount (new locations, moves, merges) while
// others remove the levels that a removal or a move has left empty. The protocol between them:
//
// 1. A level is removed only with rmdir, which fails on a directory that holds anything, so a
//    level holding a resource, or a resource being copied in, is never removed.
// 2. Creating the levels of a location (and reserving them, 4.) and deciding on and removing
//    empty levels both happen under the mount's KSHashLevelLock. A clean-up therefore never
//    acts on what it saw before a creator prepared the levels, and a creator never returns
//    levels that a clean-up is about to remove. (On a file system without flock on
//    directories both go on without the lock; the reservation then narrows the race to the
//    moment between a clean-up's check and its rmdir.)
// 3. Every creator reserves the last level for its resource (4.), the moves as well
//    (moveCandidate) although they copy the resource in at once. A move counts as done only
//    when the resource is on the target.
// 4. A location handed to a caller (createLocation_) stays empty until the caller creates the
//    resource, after the library has returned and released the lock. For that time the last
//    level carries a reservation: its access time is set kReservationSeconds into the future,
//    with the nanoseconds naming the resource it was reserved for (reservationTag; 0 when
//    several resources reserved it at once). A clean-up leaves a reserved level alone, except
//    when the reservation is that of the very resource whose removal it follows: that resource
//    was created, so the reservation has done its work.
// 5. Nothing else moves an access time into the future, and nothing lowers one that lies
//    there: touchHashedDirs renews only the modification time of the last level, the walks read
//    with O_NOATIME, and relatime or noatime do not update an access time that is later than the
//    modification and change times (a strictatime mount would end reservations early).
//
// An empty level is therefore left behind only while another resource's reservation runs; the
// clean-up after that resource, or any clean-up of the level after the reservation ran out
// (clearEmptyHashLevels on the maintenance's walks), removes it.

namespace {

constexpr time_t kReservationSeconds = 120;
constexpr long kSharedReservation = 0;

// 1 .. 999999999, from the resource's name (FNV-1a).
long reservationTag(const std::string& name) {
    uint64_t hash = 1469598103934665603ull;
    for (unsigned char c : name) {
        hash ^= c;
        hash *= 1099511628211ull;
    }
    return static_cast<long>(hash % 999999999ull) + 1;
}

bool reservationRuns(const struct stat& st) {
    return st.st_atim.tv_sec > KSClock::now();
}

// Sets or extends the reservation of `level` (whose status is `st`) for `name`. Called under
// the mount's lock.
void reserveLevel(const std::string& level, const struct stat& st, const std::string& name) {
    struct timespec times[2] = {{KSClock::now() + kReservationSeconds, reservationTag(name)},
                                {0, UTIME_OMIT}};
    if (reservationRuns(st)) {
        if (st.st_atim.tv_nsec != times[0].tv_nsec) times[0].tv_nsec = kSharedReservation;
        if (st.st_atim.tv_sec > times[0].tv_sec) times[0].tv_sec = st.st_atim.tv_sec;
    }
    if (utimensat(AT_FDCWD, level.c_str(), times, 0) != 0) {
        rh_logger.debugLog("The hash level \"%s\" could not be reserved: %s", level.c_str(),
                           errnoText(errno).c_str());
    }
}

// True when `level` is reserved for some resource other than `name`.
bool reservedForOther(const std::string& level, const std::string& name) {
    struct stat st;
    if (::lstat(level.c_str(), &st) != 0 || !S_ISDIR(st.st_mode) || !reservationRuns(st))
        return false;
    return st.st_atim.tv_nsec != reservationTag(name);
}

// The text before the last slash of `path` (cut there); false when there is no slash.
bool cutAtLastSlash(std::string& path) {
    const size_t slash = path.rfind('/');
    if (slash == std::string::npos) return false;
    path.resize(slash);
    return true;
}

// Under the mount's lock: removes the empty levels above `resource` (a name on the mount),
// starting with `level`, at most `count` of them, unless the first is reserved for another.
void removeEmptyLevels(const std::string& mount, std::string level, int count,
                       const std::string& resource) {
    // Without the lock (a file system without flock on directories) the reservation alone
    // protects the levels: only a creator that reserves between the check and the rmdir below
    // can lose its level then.
    KSHashLevelLock lock(mount);
    if (reservedForOther(level, resource)) return;
    for (int removed = 0; removed < count; ++removed) {
        // rmdir, not remove: a plain file where a hash level should be is data, never cleared.
        if (rmdir(level.c_str()) != 0) return;
        if (!cutAtLastSlash(level)) return;
    }
}

}  // namespace

namespace {

// The mount exists (its caller found it alive), so only the levels below it are made, each with
// one mkdir: EEXIST means another creator made it, which is all that is needed. A mount that is
// gone meanwhile fails with ENOENT instead of being made again as a plain directory. *madeLast
// tells whether the last level was made by this call.
bool makeLevelsBelow(const std::string& mount, const std::string& levels, bool* madeLast) {
    *madeLast = false;
    const std::string top = mount + "/";
    if (levels.compare(0, top.size(), top) != 0) return mkdirs(levels.c_str(), 0755) == 0;
    for (size_t slash = levels.find('/', top.size()); slash != std::string::npos;
         slash = levels.find('/', slash + 1)) {
        *madeLast = ::mkdir(levels.substr(0, slash).c_str(), 0755) == 0;
        if (!*madeLast && errno != EEXIST) return false;
    }
    if (levels.back() != '/') {
        *madeLast = ::mkdir(levels.c_str(), 0755) == 0;
        if (!*madeLast && errno != EEXIST) return false;
    }
    return true;
}

}  // namespace

bool prepareHashLevels(const std::string& mount, const std::string& levels, const char* name) {
    std::string last = levels;
    while (last.size() > 1 && last.back() == '/') last.pop_back();
    KSHashLevelLock lock(mount);
    bool madeLast = false;
    if (!makeLevelsBelow(mount, levels, &madeLast)) return false;
    // A last level made just now, under the lock that every creator takes, is a directory that
    // nobody can have reserved yet (its access time is its creation time): its status need not
    // be read. Without the lock another creator may have reserved it meanwhile.
    struct stat st = {};
    if (!madeLast || !lock.held()) {
        if (::stat(last.c_str(), &st) != 0) return false;
        if (!S_ISDIR(st.st_mode)) {
            errno = ENOTDIR;
            return false;
        }
    }
    reserveLevel(last, st, name == nullptr ? "" : name);
    return true;
}

void clearEmptyHash(const char* path) {
    if (path == nullptr || exists(path)) return;
    const std::string resource = path;
    std::string level = resource;
    if (!cutAtLastSlash(level)) return;
    // The mount is the directory above the three hash levels.
    std::string mount = level;
    for (int up = 0; up < 3; ++up) {
        if (!cutAtLastSlash(mount)) {
            mount = ".";
            break;
        }
    }
    if (mount.empty()) mount = "/";
    const size_t slash = resource.rfind('/');
    removeEmptyLevels(mount, level, 3, resource.substr(slash + 1));
}

void clearEmptyHashLevels(const std::string& mount, const std::string& levels) {
    std::string level = mount + "/" + levels;
    while (level.size() > 1 && level.back() == '/') level.pop_back();
    // As many levels as `levels` names, so that "AB/CD" never reaches the mount directory.
    int count = 0;
    for (size_t start = 0; start < levels.size() && count < 3;) {
        const size_t slash = levels.find('/', start);
        const size_t end = slash == std::string::npos ? levels.size() : slash;
        if (end > start) ++count;
        start = end + 1;
    }
    if (count > 0) removeEmptyLevels(mount, level, count, std::string());
}

bool hashLevelReserved(const std::string& level) {
    struct stat st;
    return ::lstat(level.c_str(), &st) == 0 && S_ISDIR(st.st_mode) && reservationRuns(st);
}

// ---- directories on a mount -----------------------------------------------------------------

int createDirectory(const char* legacyRoot, const char* mountRoot, const char* relPath) {
    if (!hasSlash(relPath)) return 1;
    if (!hasSlash(mountRoot)) return 2;
    if (refuseDotComponents("createDirectory", relPath)) return 1;
    const std::string target = baseDirOf(mountRoot) + hashedPath(baseDirOf(relPath).c_str(), false);
    mkdirs(target.c_str(), 0755);
    if (legacyRoot != nullptr) mylink(legacyRoot, mountRoot, relPath);
    return 0;
}

int removeDirectory(const char* legacyRoot, const char* mountRoot, const char* relPath) {
    if (relPath == nullptr || !hasSlash(mountRoot)) return -1;
    if (refuseDotComponents("removeDirectory", relPath)) return -1;
    const std::string mountBase = baseDirOf(mountRoot);
    // A legacy root without a slash names no directory; joining it would land in the working
    // directory.
    const std::string legacyBase = baseDirOf(legacyRoot == nullptr ? "" : legacyRoot);
    std::string legacy = baseDirOf(relPath);
    bool haveLegacy = !legacyBase.empty() && !legacy.empty();
    auto cleanLegacy = [&]() {
        while (haveLegacy && isDangling((legacyBase + legacy).c_str())) {
            unlinkIfLink(legacyBase + legacy);
            char* parent = parentDir(legacy.c_str());
            if (parent == nullptr) {
                haveLegacy = false;
                return;
            }
            legacy = parent;
            delete[] parent;
        }
    };
    const std::string hashed = hashedPath(relPath, false);
    // An empty or all-slash relative path would name the mount root itself.
    if (hashed.empty()) return -1;
    return removeLevels(mountBase, hashed, cleanLegacy);
}

int createDirectoryForFile(const char* mountRoot, const char* relFile) {
    if (!hasSlash(mountRoot)) return 2;
    const std::string directory = baseDirOf(hashedPath(relFile, true));
    if (directory.empty()) return 1;
    if (refuseDotComponents("createDirectoryForFile", relFile)) return 1;
    mkdirs((baseDirOf(mountRoot) + directory).c_str(), 0755);
    return 0;
}

int removeDirectoryForFile(const char* mountRoot, const char* relFile) {
    if (!hasSlash(mountRoot)) return -1;
    const std::string directory = baseDirOf(hashedPath(relFile, true));
    if (directory.empty()) return -1;
    if (refuseDotComponents("removeDirectoryForFile", relFile)) return -1;
    return removeLevels(baseDirOf(mountRoot), directory, [] {});
}
