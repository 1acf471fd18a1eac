// repoctl metrics: the state of repositories in the Prometheus text exposition format, on
// standard output or written atomically into a node exporter's textfile directory.

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <memory>
#include <set>
#include <string>

#include "KSPathUtils.h"
#include "KSRepositoryHandler.h"
#include "KSStateFile.h"
#include "KSStatus.h"
#include "PrometheusText.h"
#include "RepoctlArgs.h"
#include "RepoctlCommand.h"
#include "RepoctlLastRun.h"
#include "RepoctlLockList.h"
#include "RepoctlNames.h"

namespace {

using Labels = PrometheusText::Labels;

const char kFileName[] = "repohandler.prom";

const int kMountBits[] = {MOUNT_REMIND, MOUNT_WARN,  MOUNT_WARN2, MOUNT_WARN3, MOUNT_SWITCH,
                          MOUNT_FULL,   MOUNT_CLEAN, MOUNT_MOVE,  MOUNT_DEAD,  MOUNT_HARDFULL};

// One sample per status bit, 0 or 1, named as repoctl status names them.
void addStatusBits(PrometheusText& page, const std::string& name, const std::string& help,
                   const Labels& labels, int status, StatusKind kind) {
    for (int bit : kMountBits) {
        const std::vector<std::string> names = statusBitNames(bit, kind);
        if (names.empty()) continue;
        Labels withBit = labels;
        withBit.emplace_back("bit", names[0]);
        page.add(name, help, "gauge", withBit, (status & bit) ? 1 : 0);
    }
}

void addMount(PrometheusText& page, KSRepositoryHandler& repo, KSMountPointHandler& mount) {
    const Labels labels = {{"repository", repo.path()}, {"mount", mount.path()}};
    const int status = static_cast<int>(mount.status());
    if (!(status & MOUNT_DEAD))
        page.add("repohandler_mount_used_percent",
                 "Used share of the mount's blocks or inodes, whichever is larger, in percent "
                 "(no sample while the mount is dead).",
                 "gauge", labels, mount.usedPercentage());
    const auto& s = repo.settings();
    const auto& c = mount.config();
    const std::pair<const char*, double> limits[] = {
        {"remind", s.remindLimit}, {"warn", s.warnLimit},     {"warn2", s.warn2Limit},
        {"warn3", s.warn3Limit},   {"switch", c.switchLimit}, {"full", c.fullLimit},
        {"clean", c.cleanLimit},   {"move", c.moveLimit},     {"hardfull", c.hardFullLimit}};
    for (const auto& limit : limits) {
        Labels withLimit = labels;
        withLimit.emplace_back("limit", limit.first);
        page.add("repohandler_mount_limit_percent",
                 "The mount's limits in percent: status bits are set past them.", "gauge",
                 withLimit, limit.second);
    }
    page.add("repohandler_mount_status", "The mount's status bits as a number.", "gauge", labels,
             status);
    addStatusBits(page, "repohandler_mount_status_bit",
                  "1 when the mount's status bit is set (remind, warn, warn2, warn3, switch, full, "
                  "clean, move, dead, hardfull).",
                  labels, status, StatusKind::kMount);
}

// Lock files and rows, and the age of the oldest. False when they could not all be read.
bool addLocks(PrometheusText& page, KSRepositoryHandler& repo, const Labels& labels) {
    kelp::db::DBConnector* connector = nullptr;
    bool complete = true;
    try {
        if (repo.isShared()) connector = repo.getDbConnector(nullptr);
    } catch (const std::exception& e) {
        fprintf(stderr, "repoctl metrics: %s: %s\n", repo.path().c_str(), e.what());
        complete = false;
    }
    RepoctlLockList list(repo);
    if (!list.load(connector)) {
        fprintf(stderr, "repoctl metrics: %s: %s\n", repo.path().c_str(), list.error().c_str());
        complete = false;
    }
    long long files = 0, rows = 0, oldest = 0;
    for (const auto& lock : list.locks()) {
        (lock.row ? rows : files) += 1;
        oldest = std::max(oldest, lock.age);
    }
    page.add("repohandler_lock_files", "Lock files of the repository in LOCK_VAR.", "gauge", labels,
             files);
    if (repo.isShared() && complete)
        page.add("repohandler_lock_rows",
                 "Rows of the lock table held on the repository (shared repositories).", "gauge",
                 labels, rows);
    page.add("repohandler_oldest_lock_age_seconds",
             "Age of the repository's oldest lock file or row in seconds; 0 without locks.",
             "gauge", labels, oldest);
    return complete;
}

void addLastRun(PrometheusText& page, const std::string& given, KSRepositoryHandler& repo) {
    RepoctlLastRun run;
    if (!run.load(repo.path()) && !run.load(given)) return;
    const Labels labels = {{"repository", repo.path()}, {"command", run.command}};
    page.add("repohandler_last_run_timestamp_seconds",
             "Start of the last maintenance run, seconds since the epoch.", "gauge", labels,
             run.started);
    page.add("repohandler_last_run_duration_seconds", "Duration of the last maintenance run.",
             "gauge", labels, run.seconds);
    page.add("repohandler_last_run_checked_resources",
             "Resources the last maintenance run looked at.", "gauge", labels, run.checked);
    page.add("repohandler_last_run_moved_resources", "Resources the last maintenance run moved.",
             "gauge", labels, run.moved);
    page.add("repohandler_last_run_deleted_resources",
             "Resources the last maintenance run deleted.", "gauge", labels, run.deleted);
    page.add("repohandler_last_run_bytes", "Bytes the last maintenance run moved or deleted.",
             "gauge", labels, run.bytes);
    page.add("repohandler_last_run_stopped",
             "1 when the last maintenance run was stopped early (signal or stop mark).", "gauge",
             labels, run.stopped ? 1 : 0);
    page.add("repohandler_last_run_night", "1 when the last maintenance run was a night run.",
             "gauge", labels, run.night ? 1 : 0);
    page.add("repohandler_last_run_exit_code", "repoctl's exit status of the last maintenance run.",
             "gauge", labels, run.exitCode);
}

// All metrics of one repository; false when something could not be read.
bool addRepository(PrometheusText& page, const std::string& path) {
    struct stat st;
    const bool present = stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
    std::shared_ptr<KSRepositoryHandler> repo =
        present ? getRepository(nullptr, path.c_str(), true) : nullptr;
    const bool usable = repo && !repo->isUnusable();
    const std::string name = repo ? repo->path() : path;
    const Labels labels = {{"repository", name}};
    page.add("repohandler_repository_usable",
             "1 when the repository directory exists and its configuration could be read.", "gauge",
             labels, usable ? 1 : 0);
    if (!present) {
        fprintf(stderr, "repoctl metrics: no repository directory \"%s\"\n", path.c_str());
        return false;
    }
    const int status = repo->checkRepositoryStatus();
    page.add("repohandler_repository_status", "The repository's status bits as a number.", "gauge",
             labels, status);
    addStatusBits(page, "repohandler_repository_status_bit",
                  "1 when the repository's status bit is set (remind, warn, warn2, warn3, switch, "
                  "cannotmove, full, incomplete, missing).",
                  labels, status, StatusKind::kRepository);
    page.add("repohandler_mounts", "Mounts configured for the repository.", "gauge", labels,
             static_cast<double>(repo->mounts().size()));
    for (auto& mount : repo->mounts()) addMount(page, *repo, *mount);
    KSDirtyFlagHandler& flags = repo->dirtyFlags();
    bool complete = usable;
    try {
        flags.checkAndReadSetFile(repo->getDbConnector(nullptr));
        page.add("repohandler_dirty_resources",
                 "Resources in the repository's dirty set (copies not yet settled).", "gauge",
                 labels, static_cast<double>(flags.snapshot().size()));
    } catch (const std::exception& e) {
        fprintf(stderr, "repoctl metrics: %s: dirty set: %s\n", name.c_str(), e.what());
        complete = false;
    }
    complete &= addLocks(page, *repo, labels);
    addLastRun(page, path, *repo);
    return complete;
}

// repoctl metrics REPO... [--textfile DIR]
int runMetrics(int argc, char** argv) {
    RepoctlArgs args(argc, argv, {}, {"--textfile"});
    if (!args.ok()) return repoctlUsageError(argv[0], args.error());
    if (args.positional().empty()) return repoctlUsageError(argv[0], "no repository given");
    const char* dir = args.value("--textfile");
    struct stat st;
    if (dir && (stat(dir, &st) != 0 || !S_ISDIR(st.st_mode))) {
        fprintf(stderr, "repoctl %s: no directory \"%s\" for the text file\n", argv[0], dir);
        return 1;
    }
    PrometheusText page;
    bool complete = true;
    std::set<std::string> seen;
    for (const std::string& path : args.positional()) {
        if (!seen.insert(path).second) continue;
        complete &= addRepository(page, path);
    }
    const std::string text = page.text();
    if (dir == nullptr) {
        fputs(text.c_str(), stdout);
    } else if (KSStateFile::replace(std::string(dir) + "/" + kFileName, text) !=
               KSStateFile::Result::kReplaced) {
        fprintf(stderr, "repoctl %s: cannot write %s/%s: %s\n", argv[0], dir, kFileName,
                errnoText(errno).c_str());
        return 1;
    }
    return complete ? 0 : 1;
}

RepoctlRegistrar metricsCommand(
    "metrics", "metrics REPO... [--textfile DIR]",
    "the repositories' state as Prometheus metrics, for a node exporter's textfile collector",
    &runMetrics,
    "Prints the metrics of each repository in the Prometheus text exposition format, or with\n"
    "--textfile DIR replaces DIR/repohandler.prom atomically (the collector never reads half\n"
    "a file). Every metric is a gauge named repohandler_*, labelled with the repository (and\n"
    "the mount, the limit, the status bit or the maintenance command):\n"
    "  repository_usable, repository_status, repository_status_bit{bit}, mounts,\n"
    "  mount_used_percent, mount_limit_percent{limit}, mount_status, mount_status_bit{bit},\n"
    "  dirty_resources, lock_files, lock_rows (shared repositories),\n"
    "  oldest_lock_age_seconds, and of the last check-overload or free-mount run:\n"
    "  last_run_timestamp_seconds, last_run_duration_seconds, last_run_checked_resources,\n"
    "  last_run_moved_resources, last_run_deleted_resources, last_run_bytes,\n"
    "  last_run_stopped, last_run_night, last_run_exit_code.\n"
    "Exit status 1 when a repository is missing or unusable or something could not be read\n"
    "(what could be read is still written), or the file could not be written.\n");

}  // namespace
