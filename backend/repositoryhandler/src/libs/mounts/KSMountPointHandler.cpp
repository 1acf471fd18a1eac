#include "KSMountPointHandler.h"

#include <dirent.h>
#include <dlfcn.h>
#include <mntent.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <stdexcept>
#include <vector>

#include "KSAssertionException.h"
#include "KSClock.h"
#include "KSLogger.h"
#include "KSMaintenancePlan.h"
#include "KSPathUtils.h"
#include "KSProperties.h"
#include "KSRepositoryHandler.h"
#include "KSStatus.h"

namespace {

const char* const kSourceFile = "backend/repositoryhandler/src/libs/KSMountPointHandler";
const char* const kConfigName = "/repositorypart.cfg";

// A mount found dead is not probed again until this many seconds have passed.
constexpr time_t kDeadRetrySeconds = 299;

bool fileExists(const std::string& path) {
    struct stat st;
    return ::stat(path.c_str(), &st) == 0;
}

bool isTrue(const char* value) {
    return value != nullptr && strcmp(value, "true") == 0;
}

struct FileCloser {
    void operator()(FILE* f) const {
        if (f != nullptr) endmntent(f);
    }
};

struct DirCloser {
    void operator()(DIR* d) const {
        if (d != nullptr) closedir(d);
    }
};

struct PipeCloser {
    void operator()(FILE* f) const {
        if (f != nullptr) pclose(f);
    }
};

// True when `dir` is `path` itself or one of its ancestors.
bool isAncestorOrSelf(const std::string& dir, const std::string& path) {
    if (dir == "/") return !path.empty() && path[0] == '/';
    if (path.compare(0, dir.size(), dir) != 0) return false;
    return path.size() == dir.size() || path[dir.size()] == '/';
}

}  // namespace

KSMountPointHandler::KSMountPointHandler(std::string path, KSRepositoryHandler* repository)
    : path_(std::move(path)), logPath_(path_ + "/.log"), repository_(repository) {
    if (repository_ == nullptr) return;
    const KSRepositoryHandler::Settings& s = repository_->settings();
    config_.switchLimit = s.switchLimit;
    config_.fullLimit = s.fullLimit;
    config_.cleanLimit = s.cleanLimit;
    config_.moveLimit = s.moveLimit;
    config_.hardFullLimit = s.hardFullLimit;
    config_.nomoveTime = s.nomoveTime;
    config_.warnmoveTime = s.warnmoveTime;
    config_.countSize = s.countSize;
    dedicated_ = s.forceDedicated;
}

KSMountPointHandler::~KSMountPointHandler() {
    if (pluginHandle_ != nullptr) dlclose(pluginHandle_);
}

void KSMountPointHandler::setup() {
    const char* var = getenv("VAR");
    if (var != nullptr) {
        std::unique_ptr<char[]> id(toResourceID(path_.c_str(), ""));
        lastMoveFile_ = std::string(var) + "/lastmove-" + (id ? id.get() : "") + ".cfg";
    } else {
        lastMoveFile_.clear();
    }
    if (checkStatus(false) & MOUNT_DEAD) return;
    parseConfigFile();
    // The fill level was measured against the repository's limits; the cached status must
    // reflect the mount's own limits that were only read now.
    status_.store(statusBits(usedPercentage_.load()));
    if (!dedicated_) dedicated_ = isDedicated();
}

int KSMountPointHandler::parseConfigFile() {
    const std::string file = path_ + kConfigName;
    if (!fileExists(file)) return 0;
    struct stat st;
    if (::stat(file.c_str(), &st) == 0) {
        configMtime_ = st.st_mtime;
        if (st.st_size == 0) return 0;
    }
    KSProperties properties;
    if (properties.load(file.c_str())) applyConfig(properties);
    return 0;
}

void KSMountPointHandler::applyConfig(KSProperties& properties) {
    auto limit = [&properties](const char* key, double& target) {
        if (properties.getProperty(key) != nullptr) target = getConfigValue(&properties, key);
    };
    limit("switchLimit", config_.switchLimit);
    limit("fullLimit", config_.fullLimit);
    limit("cleanLimit", config_.cleanLimit);
    limit("moveLimit", config_.moveLimit);
    limit("hardFullLimit", config_.hardFullLimit);
    if (const char* type = properties.getProperty("type")) config_.fast = strcmp(type, "fast") == 0;
    if (const char* library = properties.getProperty("moveHere")) {
        loadMovePlugin(library, properties.getProperty("moveParams"));
    }
    if (const char* v = properties.getProperty("nightManagement")) {
        config_.nightManagement = isTrue(v);
    }
    limit("nightVolumemul", config_.nightVolumemul);
    limit("nightLowerPercent", config_.nightLowerPercent);
    limit("deleteOld", config_.deleteOld);
    if (!dedicated_) {
        if (const char* v = properties.getProperty("forceDedicated")) dedicated_ = isTrue(v);
    }
    if (const char* v = properties.getProperty("countSize")) config_.countSize = isTrue(v);
}

void KSMountPointHandler::loadMovePlugin(const char* library, const char* params) {
    void* handle = dlopen(library, RTLD_LAZY);
    if (handle == nullptr) {
        rh_logger.errorLog("EXCEPTION: dlopen error: %s\n", dlerror());
        return;
    }
    if (moveFunction_ != nullptr) {
        // A re-read of the configuration opens the library again; the function bound first
        // stays, so this extra reference is given back at once.
        dlclose(handle);
        return;
    }
    dlerror();
    void* symbol = dlsym(handle, "move");
    if (symbol == nullptr) {
        rh_logger.errorLog("EXCEPTION: dlsym error move: %s\n", dlerror());
        dlclose(handle);
        return;
    }
    if (pluginHandle_ != nullptr) dlclose(pluginHandle_);
    pluginHandle_ = handle;
    moveFunction_ = reinterpret_cast<KSMoveFunction>(symbol);
    moveParams_ = params != nullptr ? params : "";
}

bool KSMountPointHandler::isUpToDate() {
    upToDate_ = true;
    if (repository_ == nullptr || !repository_->mountHandlersInitialising()) return true;
    if (status_.load() & MOUNT_DEAD) return true;
    struct stat st;
    if (::stat((path_ + kConfigName).c_str(), &st) == 0) upToDate_ = st.st_mtime == configMtime_;
    return upToDate_;
}

uint32_t KSMountPointHandler::checkStatus(bool useCached) {
    if (repository_ != nullptr && !repository_->mountHandlersInitialised()) {
        repository_->initMPHandlers();
    }
    const uint32_t previous = status_.load();
    const time_t now = KSClock::now();
    if (previous & MOUNT_DEAD) {
        if (deadSince_.load() + kDeadRetrySeconds >= now) return MOUNT_DEAD;
        return revive(now);
    }
    if (!fileExists(path_ + kConfigName)) return markDead(now);
    if (useCached) return previous;
    return measure(now);
}

// The retry time of a dead mount has come, and repositorypart.cfg must be read again. That
// writes the limits, the plug-in and the dedicated flag, which other threads read once they see
// the mount alive. So one thread at a time revives: it reads the file, measures and only then
// publishes the new status (status_ is atomic, so a thread that sees the mount alive also sees
// the configuration written before). A thread that waited here finds the work done, the mount
// alive or found dead again just now, and answers that without reading the file a second time.
uint32_t KSMountPointHandler::revive(time_t now) {
    std::lock_guard<std::mutex> guard(reviveMutex_);
    const uint32_t current = status_.load();
    if (!(current & MOUNT_DEAD)) return current;
    if (deadSince_.load() + kDeadRetrySeconds >= now) return MOUNT_DEAD;
    if (!fileExists(path_ + kConfigName)) return markDead(now);
    parseConfigFile();
    return measure(now);
}

uint32_t KSMountPointHandler::measure(time_t now) {
    const float used = getUsedPercentage();
    if (used == -1.0f) return markDead(now);
    const uint32_t status = statusBits(used);
    status_.store(status);
    return status;
}

uint32_t KSMountPointHandler::markDead(time_t now) {
    status_.store(MOUNT_DEAD);
    deadSince_.store(now);
    return MOUNT_DEAD;
}

void KSMountPointHandler::reprobe() {
    deadSince_.store(0);
}

uint32_t KSMountPointHandler::statusBits(double used) const {
    uint32_t bits = 0;
    if (repository_ != nullptr) {
        const KSRepositoryHandler::Settings& s = repository_->settings();
        if (s.remindLimit > 0 && used >= s.remindLimit) bits |= MOUNT_REMIND;
        if (s.warnLimit > 0 && used >= s.warnLimit) bits |= MOUNT_WARN;
        if (s.warn2Limit > 0 && used >= s.warn2Limit) bits |= MOUNT_WARN2;
        if (s.warn3Limit > 0 && used >= s.warn3Limit) bits |= MOUNT_WARN3;
    }
    if (used >= config_.switchLimit) bits |= MOUNT_SWITCH;
    if (used >= config_.fullLimit) bits |= MOUNT_FULL;
    if (used >= config_.cleanLimit) bits |= MOUNT_CLEAN;
    if (config_.moveLimit < 100 && used >= config_.moveLimit) bits |= MOUNT_MOVE;
    if (used >= config_.hardFullLimit) bits |= MOUNT_HARDFULL;
    return bits;
}

float KSMountPointHandler::getUsedPercentage() {
    if (repository_ != nullptr && !repository_->mountHandlersInitialised()) {
        repository_->initMPHandlers();
    }
    struct statvfs vfs;
    if (fileSystemFigures(&vfs) != 0) {
        usedPercentage_.store(-1.0);
        return -1.0f;
    }
    // Counts go through single precision first, as the fill levels were always computed.
    const double blocks =
        100.0 - static_cast<float>(vfs.f_bavail) / (static_cast<float>(vfs.f_blocks) / 100.0);
    const double inodes =
        100.0 - static_cast<float>(vfs.f_favail) / (static_cast<float>(vfs.f_files) / 100.0);
    double used = blocks;
    if (!std::isnan(inodes) && (std::isnan(blocks) || inodes > blocks)) used = inodes;
    usedPercentage_.store(used);
    return static_cast<float>(used);
}

int KSMountPointHandler::fileSystemFigures(struct statvfs* out) {
    const int result = myStatVfs(path_.c_str(), out);
    if (result == 0 && repository_ != nullptr && repository_->plan() != nullptr)
        repository_->plan()->adjust(path_, *out);
    return result;
}

bool KSMountPointHandler::isDedicated() {
    if (dedicated_) return true;
    std::string resolved = path_;
    if (char* canonical = canonicalize_file_name(path_.c_str())) {
        resolved = canonical;
        free(canonical);
    } else {
        rh_logger.errorLog("Error in isDedicated(1) error:%s", strerror(errno));
    }
    const std::string mountDir = getMountpoint(resolved.c_str(), nullptr, nullptr, 0);
    if (mountDir.empty()) return false;
    if (resolved == mountDir) return true;
    const size_t slash = resolved.rfind('/');
    std::string parent = slash == std::string::npos ? "." : resolved.substr(0, slash);
    if (slash == 0) parent = "/";
    if (parent != mountDir) return false;
    return onlyEntryBesidesLostFound(parent);
}

// The parent is the file system's root: the mount owns it when nothing else lives there.
bool KSMountPointHandler::onlyEntryBesidesLostFound(const std::string& parent) {
    std::unique_ptr<DIR, DirCloser> dir(opendir(parent.c_str()));
    if (!dir) return false;
    int entries = 0;
    while (struct dirent* entry = readdir(dir.get())) {
        const char* name = entry->d_name;
        if (strcmp(name, ".") == 0 || strcmp(name, "..") == 0) continue;
        if (strcmp(name, "lost+found") == 0) continue;
        ++entries;
    }
    return entries == 1;
}

bool KSMountPointHandler::isOnThisMount(const char* path) const {
    return path != nullptr && strncmp(path, path_.c_str(), path_.size()) == 0;
}

unsigned KSMountPointHandler::recalculateCollectNum(unsigned current) {
    const double used = usedPercentage_.load();
    const double drop = usedAtCycleStart_ - used;
    const double aboveClean = used - config_.cleanLimit;
    // 64-bit and compared before truncation: a tiny drop gives an estimate past any 32-bit count.
    const uint64_t tenTimes = 10ull * current;
    uint64_t next = current;
    if (drop == 0) {
        next = tenTimes;
    } else if (drop > 0 && aboveClean > 0) {
        const double estimate = static_cast<float>(current) * aboveClean / drop;
        if (estimate <= static_cast<double>(tenTimes))
            next = std::max<uint64_t>(current / 10, static_cast<uint64_t>(estimate));
        else
            next = tenTimes;
    }
    return static_cast<unsigned>(std::min<uint64_t>(std::max<uint64_t>(next, 100), 50000));
}

void KSMountPointHandler::writeToLog(const char* /*text*/) {}

double getConfigValue(KSProperties* properties, const char* key) {
    KS_ASSERT_NOT_NULL(properties, kSourceFile);
    KS_ASSERT_NOT_NULL(key, kSourceFile);
    const char* value = properties->getProperty(key);
    if (value == nullptr) {
        rh_logger.errorLog("%s is not found in getConfigValue() - should not happen", key);
        return 0.0;
    }
    return strtod(value, nullptr);
}

int myStatVfs(const char* path, struct statvfs* out) {
    if (path == nullptr) {
        throw KSAssertionException("mountPath", __LINE__, kSourceFile,
                                   "null mountPath parameter in myStatVfs");
    }
    if (out == nullptr) {
        throw KSAssertionException("resStatVfs", __LINE__, kSourceFile,
                                   "null resStatVfs parameter in myStatVfs");
    }
    if (statvfs(path, out) == 0) return 0;
    const int error = errno;
    const std::string message = std::string("Error occured while statvfs call to \"") + path +
                                "\". Error code is " + std::to_string(error) + " - " +
                                strerror(error);
    rh_logger.errorLog("%s", message.c_str());
    return RESOURCE_STATUS_ERRONEOUS;
}

int blocksToFree(const char* path, double percent, long* count, struct statvfs* known) {
    KS_ASSERT_NOT_NULL(count, kSourceFile);
    struct statvfs own;
    if (known == nullptr) {
        if (path == nullptr || statvfs(path, &own) != 0) return 1;
        known = &own;
    }
    const float total = static_cast<float>(known->f_blocks);
    const float used = static_cast<float>(known->f_blocks - known->f_bavail);
    *count = static_cast<long>(
        used - static_cast<float>(static_cast<long>(total * static_cast<float>(percent) / 100.0f)));
    return 0;
}

bool IsOnTheSameMount(const char* a, const char* b) {
    if (a == nullptr || b == nullptr) return false;
    struct statvfs first, second;
    if (statvfs(a, &first) != 0 || statvfs(b, &second) != 0) return false;
    return first.f_bfree == second.f_bfree && first.f_bavail == second.f_bavail &&
           first.f_ffree == second.f_ffree && first.f_favail == second.f_favail;
}

std::string getMountpoint(const char* path, struct mntent* entry, char* buffer,
                          unsigned long size) {
    if (path == nullptr) return std::string();
    const std::string target = path;
    std::string best;
    long bestIndex = -1;
    // Overlay mounts carry long option lists; a line cut short would be read as two entries.
    std::vector<char> scratch(65536);
    struct mntent current;
    {
        std::unique_ptr<FILE, FileCloser> mounts(setmntent("/proc/mounts", "r"));
        if (!mounts) return std::string();
        // Later lines mount over earlier ones, so an equally deep later entry wins.
        for (long i = 0; getmntent_r(mounts.get(), &current, scratch.data(), scratch.size()); ++i) {
            const std::string dir = current.mnt_dir;
            if (isAncestorOrSelf(dir, target) && dir.size() >= best.size()) {
                best = dir;
                bestIndex = i;
            }
        }
    }
    if (bestIndex < 0 || entry == nullptr || buffer == nullptr || size == 0) return best;
    // A second pass fills the caller's entry, so that its fields point into the caller's buffer.
    std::unique_ptr<FILE, FileCloser> mounts(setmntent("/proc/mounts", "r"));
    for (long i = 0; mounts && getmntent_r(mounts.get(), &current, buffer, static_cast<int>(size));
         ++i) {
        if (i == bestIndex && best == current.mnt_dir) {
            *entry = current;
            break;
        }
    }
    return best;
}

std::string exec(const char* command) {
    KS_ASSERT_NOT_NULL(command, kSourceFile);
    std::unique_ptr<FILE, PipeCloser> pipe(popen(command, "r"));
    if (!pipe) throw std::runtime_error("popen() failed!");
    std::string output;
    char piece[127];
    size_t length;
    while ((length = fread(piece, 1, sizeof piece, pipe.get())) > 0) output.append(piece, length);
    return output;
}
