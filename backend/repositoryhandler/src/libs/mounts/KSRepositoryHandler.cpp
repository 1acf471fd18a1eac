#include "KSRepositoryHandler.h"

#include <dirent.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <regex>
#include <system_error>
#include <thread>

#include "DBConnector.h"
#include "KSClock.h"
#include "KSLogger.h"
#include "KSProperties.h"

namespace {

// Within this many seconds of the last check a handler is up to date without file access.
constexpr time_t kQuietPeriodSeconds = 9;
constexpr unsigned kInvalidNatInt = 4294967295u;
constexpr unsigned kSecondsPerDay = 86400;

const char* const kMainConfig = "/repository.cfg";
const char* const kPartConfig = "/repositorypart.cfg";
const char* const kPartTakenOut = "/repositorypart.no";

bool pathExists(const std::string& path) {
    struct stat st;
    return ::stat(path.c_str(), &st) == 0;
}

// Short enough that every lock id formed from it fits the lock table's key with room for the
// resource name.
constexpr size_t kMaxRepositoryIdLength = 64;

// Letters, digits, '.', '_' and '-', the first a letter or a digit: no slash (toResourceID would
// fold it into an underscore and two ids could meet) and never the form of a path, whose lock
// ids all begin with an underscore.
bool isValidRepositoryId(const char* id) {
    const size_t length = strlen(id);
    auto alnum = [](char c) {
        return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9');
    };
    if (length == 0 || length > kMaxRepositoryIdLength || !alnum(id[0])) return false;
    for (const char* p = id; *p != '\0'; ++p)
        if (!alnum(*p) && *p != '.' && *p != '_' && *p != '-') return false;
    return true;
}

bool isTrue(const char* value) {
    return value != nullptr && strcmp(value, "true") == 0;
}

struct DirCloser {
    void operator()(DIR* d) const {
        if (d != nullptr) closedir(d);
    }
};

// Names in the directory matching the extra configuration pattern, in ascending byte order.
std::vector<std::string> extraConfigFiles(const std::string& directory) {
    static const std::regex pattern("repository\\.[0-9][0-9]\\.[a-zA-Z_0-9]*\\.cfg");
    std::vector<std::string> names;
    std::unique_ptr<DIR, DirCloser> dir(opendir(directory.c_str()));
    if (!dir) return names;
    while (struct dirent* entry = readdir(dir.get())) {
        if (std::regex_match(entry->d_name, pattern)) names.emplace_back(entry->d_name);
    }
    std::sort(names.begin(), names.end());
    return names;
}

// The truncated thread count; text beyond the int range ("1e300", "nan") is clamped rather
// than converted with undefined behaviour.
int threadCount(double value) {
    if (std::isnan(value)) return 0;
    return static_cast<int>(
        std::clamp(value, static_cast<double>(INT_MIN), static_cast<double>(INT_MAX)));
}

// The mount initialisation in progress on this thread, so that a mount's own setup asking
// for the initialised state does not wait for itself.
thread_local const KSRepositoryHandler* initialisingOnThisThread = nullptr;

}  // namespace

unsigned parseNatInt(const char* text) {
    if (text == nullptr || *text == '\0') return kInvalidNatInt;
    unsigned value = 0;
    for (const char* p = text; *p != '\0'; ++p) {
        if (*p < '0' || *p > '9') return kInvalidNatInt;
        value = value * 10u + static_cast<unsigned>(*p - '0');
    }
    return value;
}

KSRepositoryHandler::KSRepositoryHandler(kelp::db::DBConnector* db, const char* path) {
    setup(db, path);
}

KSRepositoryHandler::~KSRepositoryHandler() = default;

time_t KSRepositoryHandler::setup(kelp::db::DBConnector* db, const char* path) {
    resetToDefaults();
    path_ = path != nullptr ? path : "";
    canonicalPath_.clear();
    if (path == nullptr || !pathExists(path_)) {
        unusable_ = true;
    } else {
        unusable_ = false;
        if (char* canonical = canonicalize_file_name(path)) {
            canonicalPath_ = canonical;
            free(canonical);
        }
        parseConfigFile();
        const std::string dirtyLockName = lockScope() + "/.dirty";
        dirtyFlags_.setRepository(db, path_.c_str(), settings_.isShared,
                                  settings_.repositoryId.empty() ? nullptr : dirtyLockName.c_str());
    }
    const time_t now = KSClock::now();
    lastCheck_.store(now);
    return now;
}

void KSRepositoryHandler::resetToDefaults() {
    settings_ = Settings();
    collectNum_ = 100;
    configMtime_ = 0;
    repositoryStatus_.store(0);
    clearMountHandlers();
}

void KSRepositoryHandler::clearMountHandlers() {
    mounts_.clear();
    hasNonFastMount_.store(false);
    std::lock_guard<std::mutex> lock(mpInitMutex_);
    mpInitialising_.store(false);
    mpInitialised_.store(false);
}

int KSRepositoryHandler::parseConfigFile() {
    KSProperties properties;
    bool loaded = false;
    const std::string main = path_ + kMainConfig;
    struct stat st;
    if (::stat(main.c_str(), &st) == 0) {
        configMtime_ = st.st_mtime;
        if (!loadConfig(properties, main)) return 1;
        loaded = true;
    }
    for (const std::string& name : extraConfigFiles(path_)) {
        if (!loadConfig(properties, path_ + "/" + name)) return 1;
        loaded = true;
    }
    if (loaded) readSettings(properties);
    clearMountHandlers();
    createMountHandlers(loaded ? properties.getProperty("mountPoints") : nullptr);
    return 0;
}

bool KSRepositoryHandler::loadConfig(KSProperties& properties, const std::string& file) {
    if (properties.load(file.c_str())) return true;
    rh_logger.errorLog("Repository config file could not be loaded: %s, error is:%s", file.c_str(),
                       strerror(errno));
    unusable_ = true;
    return false;
}

void KSRepositoryHandler::readSettings(KSProperties& properties) {
    auto flag = [&properties](const char* key, bool& target) {
        if (const char* v = properties.getProperty(key)) target = isTrue(v);
    };
    auto limit = [&properties](const char* key, double& target) {
        if (properties.getProperty(key) != nullptr) target = getConfigValue(&properties, key);
    };
    auto seconds = [&properties](const char* key, unsigned& target, unsigned factor) {
        const char* v = properties.getProperty(key);
        if (v == nullptr) return;
        const unsigned value = parseNatInt(v);
        if (value != kInvalidNatInt) target = value * factor;
    };
    Settings& s = settings_;
    if (const char* dir = properties.getProperty("legacyDir")) readLegacyDir(properties, dir);
    limit("remindLimit", s.remindLimit);
    limit("warnLimit", s.warnLimit);
    limit("warn2Limit", s.warn2Limit);
    limit("warn3Limit", s.warn3Limit);
    limit("switchLimit", s.switchLimit);
    limit("fullLimit", s.fullLimit);
    limit("cleanLimit", s.cleanLimit);
    limit("moveLimit", s.moveLimit);
    limit("hardFullLimit", s.hardFullLimit);
    if (properties.getProperty("numThreads") != nullptr) {
        s.numThreads = threadCount(getConfigValue(&properties, "numThreads"));
    }
    flag("isClearable", s.isClearable);
    flag("isClearableMove", s.isClearableMove);
    seconds("nomoveTimeSeconds", s.nomoveTime, 1);
    seconds("nomoveTime", s.nomoveTime, kSecondsPerDay);
    seconds("warnmoveTimeSeconds", s.warnmoveTime, 1);
    seconds("warnmoveTime", s.warnmoveTime, kSecondsPerDay);
    seconds("moveTime", s.moveTime, kSecondsPerDay);
    if (const char* v = properties.getProperty("isShared")) s.isShared = strcmp(v, "false") != 0;
    readPluginName(properties, "resolver", "RepositoryDataResolver", s.resolver);
    readPluginName(properties, "callback", "RepositoryStudyCallback", s.callback);
    flag("countSize", s.countSize);
    flag("authoritativeMode", s.authoritativeMode);
    flag("forceDedicated", s.forceDedicated);
    // Empty stands for not set: every server reads the same file, so all of them agree.
    const char* id = properties.getProperty("repositoryId");
    if (id != nullptr && *id != '\0') readRepositoryId(id);
}

// An id that cannot be used makes the repository unusable rather than falling back to the
// path: a server that silently locked under its path would not exclude the servers that lock
// under the id, and the dirty set and the moves would race between them.
void KSRepositoryHandler::readRepositoryId(const char* id) {
    if (isValidRepositoryId(id)) {
        settings_.repositoryId = id;
        return;
    }
    rh_logger.errorLog(
        "Invalid repositoryId \"%s\" in repository %s: it must be 1 to %zu letters, digits, "
        "'.', '_' or '-', beginning with a letter or a digit",
        id, path_.c_str(), kMaxRepositoryIdLength);
    unusable_ = true;
}

void KSRepositoryHandler::readLegacyDir(KSProperties& properties, const char* dir) {
    if (!pathExists(dir)) {
        rh_logger.errorLog(
            "%s", (std::string("Legacy directory \"") + dir + "\" does not exists.").c_str());
        return;
    }
    settings_.legacyDir = dir;
    if (const char* v = properties.getProperty("maintainLegacyLinks")) {
        settings_.maintainLegacyLinks = isTrue(v);
    }
    if (const char* v = properties.getProperty("followLegacyLinks")) {
        settings_.followLegacyLinks = isTrue(v);
    }
}

void KSRepositoryHandler::readPluginName(KSProperties& properties, const char* key,
                                         const char* accepted, std::string& target) {
    const char* v = properties.getProperty(key);
    if (v == nullptr || *v == '\0') return;
    if (strcmp(v, accepted) == 0) {
        target = v;
    } else if (strcmp(key, "resolver") == 0) {
        rh_logger.errorLog("Invalid resolver detected, repohandler defaults to normal: %s", v);
    } else {
        rh_logger.errorLog("Invalid callback detected, repohandler defaults to normal: %s", v);
    }
}

void KSRepositoryHandler::createMountHandlers(const char* mountPoints) {
    std::string list = mountPoints != nullptr ? mountPoints : "";
    size_t start = 0;
    while (start <= list.size()) {
        size_t end = list.find('\\', start);
        if (end == std::string::npos) end = list.size();
        if (end > start) {
            mounts_.push_back(std::make_unique<KSMountPointHandler>(
                path_ + "/" + list.substr(start, end - start), this));
        }
        start = end + 1;
    }
    if (mounts_.empty()) mounts_.push_back(std::make_unique<KSMountPointHandler>(path_, this));
}

bool KSRepositoryHandler::isUpToDate(bool force) {
    const time_t now = KSClock::now();
    time_t last = lastCheck_.load();
    if (!force && last + kQuietPeriodSeconds >= now) return true;
    // One caller per quiet period does the file checks; callers racing with it keep the
    // handler they have for this one call.
    if (!lastCheck_.compare_exchange_strong(last, now) && !force) return true;
    lastCheck_.store(now);
    struct stat st;
    if (::stat((path_ + kMainConfig).c_str(), &st) != 0) return false;
    if (st.st_mtime != configMtime_) return false;
    if (!mpInitialised_.load()) return true;
    std::atomic<bool> changed{false};
    parallelRun(mounts_, settings_.numThreads, [&changed](KSMountPointHandler& mount) {
        if (!mount.isUpToDate()) changed.store(true);
    });
    return !changed.load();
}

void KSRepositoryHandler::initMPHandlers() {
    {
        std::unique_lock<std::mutex> lock(mpInitMutex_);
        if (mpInitialised_.load()) return;
        if (mpInitialising_.load()) {
            // A mount's own setup asks again from inside the initialisation: let it go on.
            // Any other thread waits for the mounts to be ready.
            if (initialisingOnThisThread == this) return;
            mpInitDone_.wait(lock, [this] { return mpInitialised_ || !mpInitialising_; });
            return;
        }
        mpInitialising_.store(true);
    }
    // The mutex is not held while the mounts set up: their checkStatus calls come back here
    // from the worker threads.
    bool nonFast = false;
    std::mutex nonFastMutex;
    try {
        setUpMounts(nonFast, nonFastMutex);
    } catch (...) {
        // Waiting threads must not sleep for ever: they wake, and the next caller tries again.
        {
            std::lock_guard<std::mutex> lock(mpInitMutex_);
            mpInitialising_.store(false);
        }
        mpInitDone_.notify_all();
        throw;
    }
    if (nonFast) hasNonFastMount_.store(true);
    {
        std::lock_guard<std::mutex> lock(mpInitMutex_);
        mpInitialised_.store(true);
    }
    mpInitDone_.notify_all();
}

void KSRepositoryHandler::setUpMounts(bool& nonFast, std::mutex& nonFastMutex) {
    parallelRun(mounts_, settings_.numThreads,
                [this, &nonFast, &nonFastMutex](KSMountPointHandler& mount) {
                    // Marks this thread as setting up this repository, also when setup throws.
                    struct Mark {
                        const KSRepositoryHandler* outer = initialisingOnThisThread;
                        explicit Mark(const KSRepositoryHandler* self) {
                            initialisingOnThisThread = self;
                        }
                        ~Mark() { initialisingOnThisThread = outer; }
                    } mark(this);
                    mount.setup();
                    if (!mount.config().fast) {
                        std::lock_guard<std::mutex> guard(nonFastMutex);
                        nonFast = true;
                    }
                });
}

void KSRepositoryHandler::parallelRun(MountList& mounts, int threads,
                                      const std::function<void(KSMountPointHandler&)>& operation) {
    if (mounts.empty()) return;
    const int count = static_cast<int>(mounts.size());
    const int n = std::min(threads, count);
    if (n < 2) {
        for (auto& mount : mounts) operation(*mount);
        return;
    }
    std::vector<std::thread> workers;
    std::vector<int> notStarted;
    workers.reserve(n - 1);
    for (int i = 1; i < n; ++i) {
        try {
            workers.emplace_back(runInThread, std::ref(mounts), i, n, std::cref(operation));
        } catch (const std::system_error&) {
            // Out of threads: this thread takes over that share rather than skipping mounts.
            notStarted.push_back(i);
        }
    }
    runInThread(mounts, 0, n, operation);
    for (int i : notStarted) runInThread(mounts, i, n, operation);
    for (auto& worker : workers) worker.join();
}

void KSRepositoryHandler::runInThread(MountList& mounts, int first, int step,
                                      const std::function<void(KSMountPointHandler&)>& operation) {
    for (size_t i = first; i < mounts.size(); i += step) operation(*mounts[i]);
}

kelp::db::DBConnector* KSRepositoryHandler::getDbConnector(kelp::db::DBConnector* given) {
    if (given != nullptr || !settings_.isShared) return given;
    std::lock_guard<std::mutex> lock(connectorMutex_);
    if (!ownConnector_) ownConnector_.reset(kelp::db::DBConnector::createConnector(false));
    return ownConnector_.get();
}

bool KSRepositoryHandler::isSingleMountNonClearable() const {
    return mounts_.size() == 1 && !settings_.isClearable;
}

int KSRepositoryHandler::checkRepositoryStatus() {
    if (mounts_.empty()) {
        repositoryStatus_.store(REPOSITORY_MISSING);
        return REPOSITORY_MISSING;
    }
    bool incomplete = false;
    bool anyBelowFullAndClean = false;
    int live = 0;
    uint32_t all = ~0u;
    for (auto& mount : mounts_) {
        const uint32_t s = mount->checkStatus(false);
        if (s & MOUNT_DEAD) {
            incomplete = true;
            continue;
        }
        ++live;
        all &= s;
        if (!(s & (MOUNT_FULL | MOUNT_CLEAN))) anyBelowFullAndClean = true;
    }
    int status = 0;
    if (live == 0) {
        status = REPOSITORY_MISSING;
    } else {
        if (incomplete) status |= REPOSITORY_INCOMPLETE;
        if (!anyBelowFullAndClean) status |= REPOSITORY_CANNOTMOVE;
        if (all & MOUNT_FULL) status |= MOUNT_CLEAN;
        if (all & MOUNT_SWITCH) status |= MOUNT_SWITCH;
        status |= all & (MOUNT_WARN3 | MOUNT_WARN2 | MOUNT_WARN | MOUNT_REMIND);
    }
    repositoryStatus_.store(status);
    return status;
}

void KSRepositoryHandler::rndMount() {
    if (mounts_.empty()) return;
    const std::string& mount = mounts_[rand() % mounts_.size()]->path();
    if (pathExists(mount + kPartConfig)) {
        ::rename((mount + kPartConfig).c_str(), (mount + kPartTakenOut).c_str());
    } else {
        ::rename((mount + kPartTakenOut).c_str(), (mount + kPartConfig).c_str());
    }
    checkRepositoryStatus();
}

int KSRepositoryHandler::MountUnmount(int mountIndex, bool mount) {
    if (mountIndex < 0 || static_cast<size_t>(mountIndex) >= mounts_.size()) return -1;
    KSMountPointHandler& handler = *mounts_[mountIndex];
    const std::string config = handler.path() + kPartConfig;
    const std::string takenOut = handler.path() + kPartTakenOut;
    if (mount && !pathExists(config)) {
        if (::rename(takenOut.c_str(), config.c_str()) == 0) handler.reprobe();
    } else if (!mount && pathExists(config)) {
        ::rename(config.c_str(), takenOut.c_str());
    }
    checkRepositoryStatus();
    return 0;
}

int KSRepositoryHandler::giveBackMounts() {
    int givenBack = 0;
    bool failed = false;
    for (auto& handler : mounts_) {
        const std::string config = handler->path() + kPartConfig;
        const std::string takenOut = handler->path() + kPartTakenOut;
        if (pathExists(config) || !pathExists(takenOut)) continue;
        if (::rename(takenOut.c_str(), config.c_str()) == 0) {
            handler->reprobe();
            ++givenBack;
        } else {
            failed = true;
        }
    }
    checkRepositoryStatus();
    return failed ? -1 : givenBack;
}
