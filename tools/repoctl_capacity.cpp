// repoctl check-overload and repoctl free-mount: the maintenance calls, with a progress line on
// a terminal (resources checked, moved, deleted, bytes, current mount) and a summary at the end;
// --dry-run prints the plan of the run instead (KSMaintenancePlan.h), --json either as one JSON
// document. Every real run is recorded for `repoctl metrics` (RepoctlLastRun.h).

#include <sys/stat.h>
#include <unistd.h>

#include <csignal>

#include <chrono>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "JsonWriter.h"
#include "KSClock.h"
#include "KSMaintenancePlan.h"
#include "KSRepositoryHandler.h"
#include "RepoctlArgs.h"
#include "RepoctlCommand.h"
#include "RepoctlLastRun.h"
#include "RepoctlNames.h"
#include "RepoctlProgress.h"

namespace {

using Progress = KSRepositoryHandler::MaintenanceProgress;

struct Options {
    std::vector<std::string> positional;  // the repository, then the mount
    bool night = false;
    bool verbose = false;
    bool dryRun = false;
    bool json = false;
};

// false (after the one-line error and the usage) for a bad command line.
bool parse(int argc, char** argv, size_t positionals, bool nightAllowed, Options& options,
           int& code) {
    std::vector<std::string> flags = {"--verbose", "--dry-run", "--json"};
    if (nightAllowed) flags.push_back("--night");
    RepoctlArgs args(argc, argv, flags);
    if (!args.ok() || args.positional().size() != positionals) {
        code = repoctlUsageError(argv[0], !args.ok()         ? args.error()
                                          : positionals == 1 ? "one repository expected"
                                                             : "a repository and a mount expected");
        return false;
    }
    options.positional = args.positional();
    options.night = args.has("--night");
    options.verbose = args.has("--verbose");
    options.dryRun = args.has("--dry-run");
    options.json = args.has("--json");
    if (isRepositoryDirectory(argv[0], options.positional[0])) return true;
    code = 1;
    return false;
}

std::string counts(const Progress& p) {
    char text[160];
    snprintf(text, sizeof text, "checked %llu  moved %llu  deleted %llu  %s", p.checked.load(),
             p.moved.load(), p.deleted.load(), bytesText(p.bytes.load()).c_str());
    return text;
}

std::string currentMount(const KSRepositoryHandler& repo) {
    int index = const_cast<KSRepositoryHandler&>(repo).progress().mountIndex.load();
    if (index < 0 || index >= static_cast<int>(repo.mounts().size())) return "-";
    return repo.mounts()[index]->path();
}

// With --json the library's own printing (verbose lines, the night statistics' lines) goes to
// standard error, so that standard output holds the JSON document alone.
class StdoutToStderr {
  public:
    explicit StdoutToStderr(bool active) {
        if (!active) return;
        fflush(stdout);
        saved_ = dup(STDOUT_FILENO);
        if (saved_ >= 0) dup2(STDERR_FILENO, STDOUT_FILENO);
    }
    ~StdoutToStderr() {
        if (saved_ < 0) return;
        fflush(stdout);
        dup2(saved_, STDOUT_FILENO);
        close(saved_);
    }
    StdoutToStderr(const StdoutToStderr&) = delete;
    StdoutToStderr& operator=(const StdoutToStderr&) = delete;

  private:
    int saved_ = -1;
};

// While a run or a planning goes on, SIGTERM and SIGINT (an operator's Ctrl-C) stop it after
// the resource in hand, as the library's stop flag does, instead of killing the process: the
// run then ends in order and its record says it was stopped. The overload check installs the
// same handler for SIGTERM itself; the emptying does not.
class StopOnSignals {
  public:
    StopOnSignals() {
        term_ = signal(SIGTERM, signal_handler);
        interrupt_ = signal(SIGINT, signal_handler);
    }
    ~StopOnSignals() {
        signal(SIGTERM, term_);
        signal(SIGINT, interrupt_);
    }
    StopOnSignals(const StopOnSignals&) = delete;
    StopOnSignals& operator=(const StopOnSignals&) = delete;

  private:
    void (*term_)(int);
    void (*interrupt_)(int);
};

// The repository whose counters the progress line shows: the registry's handler for a real run,
// the planning's private one for a dry run (handed over from the planning thread).
class Watched {
  public:
    void set(const std::shared_ptr<KSRepositoryHandler>& repo) {
        std::lock_guard<std::mutex> guard(mutex_);
        repo_ = repo;
    }
    std::string line() {
        std::shared_ptr<KSRepositoryHandler> repo;
        {
            std::lock_guard<std::mutex> guard(mutex_);
            repo = repo_;
        }
        if (!repo) return "starting";
        return counts(repo->progress()) + "  mount " + currentMount(*repo);
    }

  private:
    std::mutex mutex_;
    std::shared_ptr<KSRepositoryHandler> repo_;
};

void writeRunJson(const char* command, const std::string& repository, const RepoctlLastRun& run,
                  int result) {
    JsonWriter json(stdout);
    json.beginObject()
        .field("command", command)
        .field("repository", repository)
        .field("dryRun", false)
        .field("night", run.night)
        .field("started", run.started)
        .field("seconds", run.seconds)
        .field("checked", run.checked)
        .field("moved", run.moved)
        .field("deleted", run.deleted)
        .field("bytes", run.bytes)
        .field("stopped", run.stopped)
        .field("result", result)
        .endObject();
    json.finish();
}

// Runs `work` (a real run) with its progress line, records its figures (with the exit status
// that `exitCode` makes of work's result) and reports them. Returns work's result, -1 when it
// threw.
int realRun(const char* command, const Options& options, const std::function<int()>& work,
            const std::function<int(int)>& exitCode) {
    auto repo = getRepository(nullptr, options.positional[0].c_str(), true);
    Watched watched;
    watched.set(repo);
    RepoctlLastRun run;
    run.command = command;
    run.night = options.night;
    run.started = KSClock::now();
    int result;
    {
        StdoutToStderr quiet(options.json);
        StopOnSignals stop;
        result = runWithProgress(
            command, [&] { return watched.line(); }, work, options.json, &run.seconds);
    }
    const Progress& p = repo->progress();
    run.checked = p.checked.load();
    run.moved = p.moved.load();
    run.deleted = p.deleted.load();
    run.bytes = p.bytes.load();
    run.stopped = checkoverloadStopped != 0;
    run.exitCode = exitCode(result);
    if (!RepoctlLastRun::fileFor(repo->path()).empty() && !run.record(repo->path()))
        fprintf(stderr, "repoctl %s: the run could not be recorded in %s: %s\n", command,
                RepoctlLastRun::fileFor(repo->path()).c_str(), strerror(errno));
    if (options.json) {
        writeRunJson(command, repo->path(), run, result);
    } else if (result >= 0) {
        printf("%s: %s in %.1f s%s\n", command, counts(p).c_str(), run.seconds,
               run.stopped ? " (stopped)" : "");
    }
    return result;
}

std::string ageText(long long seconds) {
    char text[32];
    snprintf(text, sizeof text, "%.1f d", static_cast<double>(seconds) / 86400.0);
    return text;
}

std::string percentText(double used) {
    if (used < 0) return "-";
    char text[32];
    snprintf(text, sizeof text, "%.2f %%", used);
    return text;
}

void printPlanText(const char* command, const KSMaintenancePlan& plan, time_t now) {
    unsigned long long moved = 0, deleted = 0, moves = 0, deletions = 0;
    for (const KSMaintenancePlan::Step& step : plan.steps) {
        const bool move = step.action == KSMaintenancePlan::Action::Move;
        printf("%-6s %s%s%s  age %s  %s\n", move ? "move" : "delete", step.from.c_str(),
               move ? " -> " : "", move ? step.to.c_str() : "", ageText(now - step.time).c_str(),
               bytesText(step.bytes).c_str());
        (move ? moved : deleted) += step.bytes;
        ++(move ? moves : deletions);
    }
    for (const KSMaintenancePlan::Mount& m : plan.mounts) {
        if (m.dead) {
            printf("mount %s: dead\n", m.path.c_str());
            continue;
        }
        printf("mount %s: used %s -> %s  (move limit %g, clean limit %g)  %s -> %s\n",
               m.path.c_str(), percentText(m.usedBefore).c_str(), percentText(m.usedAfter).c_str(),
               m.moveLimit, m.cleanLimit, statusText(m.statusBefore, StatusKind::kMount).c_str(),
               statusText(m.statusAfter, StatusKind::kMount).c_str());
    }
    for (const std::string& note : plan.notes) printf("note: %s\n", note.c_str());
    printf("%s --dry-run: %llu moves (%s), %llu deletions (%s)%s; nothing was changed\n", command,
           moves, bytesText(moved).c_str(), deletions, bytesText(deleted).c_str(),
           plan.stopped ? ", planning stopped by a signal" : "");
}

void writePlanJson(const char* command, const std::string& repository, const Options& options,
                   const KSMaintenancePlan& plan, time_t now, int result) {
    unsigned long long moves = 0, deletions = 0, bytes = 0;
    JsonWriter json(stdout);
    json.beginObject()
        .field("command", command)
        .field("repository", repository)
        .field("dryRun", true)
        .field("night", options.night);
    if (options.positional.size() > 1) json.field("mount", options.positional[1]);
    json.key("steps").beginArray();
    for (const KSMaintenancePlan::Step& step : plan.steps) {
        const bool move = step.action == KSMaintenancePlan::Action::Move;
        json.beginObject()
            .field("action", move ? "move" : "delete")
            .field("resource", step.name)
            .field("from", step.from)
            .key("to");
        if (move)
            json.value(step.to);
        else
            json.null();
        json.field("fromMount", step.fromMount)
            .field("toMount", step.toMount)
            .field("time", static_cast<long long>(step.time))
            .field("ageSeconds", static_cast<long long>(now - step.time))
            .field("bytes", step.bytes)
            .endObject();
        ++(move ? moves : deletions);
        bytes += step.bytes;
    }
    json.endArray().key("mounts").beginArray();
    for (const KSMaintenancePlan::Mount& m : plan.mounts) {
        json.beginObject().field("path", m.path).field("dead", m.dead).key("usedBefore");
        m.usedBefore < 0 ? json.null() : json.value(m.usedBefore);
        json.key("usedAfter");
        m.usedAfter < 0 ? json.null() : json.value(m.usedAfter);
        json.field("moveLimit", m.moveLimit).field("cleanLimit", m.cleanLimit).key("statusBefore");
        writeStatusJson(json, static_cast<int>(m.statusBefore), StatusKind::kMount);
        json.key("statusAfter");
        writeStatusJson(json, static_cast<int>(m.statusAfter), StatusKind::kMount);
        json.endObject();
    }
    json.endArray().key("notes").beginArray();
    for (const std::string& note : plan.notes) json.value(note);
    json.endArray()
        .field("moves", moves)
        .field("deletions", deletions)
        .field("bytes", bytes)
        .field("stopped", plan.stopped)
        .field("result", result)
        .endObject();
    json.finish();
}

// Plans the run with its progress line and prints the plan; the planning's result (the real
// run's result) comes back, -1 when it threw.
int dryRun(
    const char* command, const Options& options,
    const std::function<KSMaintenancePlan(const KSRepositoryHandler::PlanWatch&, int*)>& plan) {
    Watched watched;
    KSMaintenancePlan result;
    int code = 0;
    int ran;
    {
        StdoutToStderr quiet(options.json);
        StopOnSignals stop;
        ran = runWithProgress(
            command, [&] { return watched.line(); },
            [&] {
                result = plan(
                    [&](const std::shared_ptr<KSRepositoryHandler>& repo) { watched.set(repo); },
                    &code);
                return 0;
            },
            options.json, nullptr);
    }
    if (ran < 0) return -1;
    const time_t now = KSClock::now();
    if (options.json)
        writePlanJson(command, options.positional[0], options, result, now, code);
    else
        printPlanText(command, result, now);
    return code;
}

int runCheckOverload(int argc, char** argv) {
    Options options;
    int code = 0;
    if (!parse(argc, argv, 1, true, options, code)) return code;
    if (options.dryRun) {
        int code = dryRun(argv[0], options, [&](const KSRepositoryHandler::PlanWatch& watch, int*) {
            return KSRepositoryHandler::planCheckOverload(nullptr, options.positional[0].c_str(),
                                                          options.night, watch);
        });
        return code == 0 ? 0 : 1;
    }
    return realRun(
               argv[0], options,
               [&] {
                   auto repo = getRepository(nullptr, options.positional[0].c_str(), true);
                   repo->checkOverload(repo->getDbConnector(nullptr), options.verbose,
                                       options.night);
                   return 0;
               },
               [](int result) { return result == 0 ? 0 : 1; }) == 0
               ? 0
               : 1;
}

int runFreeMount(int argc, char** argv) {
    Options options;
    int code = 0;
    if (!parse(argc, argv, 2, false, options, code)) return code;
    int result;
    if (options.dryRun) {
        result =
            dryRun(argv[0], options, [&](const KSRepositoryHandler::PlanWatch& watch, int* code) {
                return KSRepositoryHandler::planFreeMount(nullptr, options.positional[0].c_str(),
                                                          options.positional[1].c_str(), code,
                                                          watch);
            });
    } else {
        result = realRun(
            argv[0], options,
            [&] {
                auto repo = getRepository(nullptr, options.positional[0].c_str(), true);
                return repo->moveAllResourcesFromMount(
                    repo->getDbConnector(nullptr), options.positional[1].c_str(), options.verbose);
            },
            [](int code) { return code == 0 ? 0 : 1; });
    }
    if (result == 1) fprintf(stderr, "repoctl %s: not all resources could be moved\n", argv[0]);
    if (result < 0) fprintf(stderr, "repoctl %s: the mount could not be emptied\n", argv[0]);
    return result == 0 ? 0 : 1;
}

RepoctlRegistrar checkOverloadCommand(
    "check-overload", "check-overload REPO [--night] [--dry-run] [--json] [--verbose]",
    "move or delete the oldest resources of every mount past its move limit", &runCheckOverload,
    "Runs one maintenance pass: every mount at or past its move limit is freed by moving its\n"
    "oldest resources to other mounts or, in a clearable repository, by deleting the\n"
    "repository's oldest resources.\n"
    "\n"
    "  --night     lower the limits of night-managed mounts first (the nightly run)\n"
    "  --dry-run   change nothing; print the plan: each resource that would be deleted or\n"
    "              moved (from, to, age, size) and the used percentage each mount would reach\n"
    "  --json      print one JSON document (the run's figures, or with --dry-run the plan)\n"
    "  --verbose   print the maintenance's own progress lines\n"
    "\n"
    "A real run records its figures in $VAR/lastrun-<id>.cfg for repoctl metrics.\n"
    "Exit status: 0 done (or planned), 1 the run failed, 2 usage error.");
RepoctlRegistrar freeMountCommand(
    "free-mount", "free-mount REPO MOUNT [--dry-run] [--json] [--verbose]",
    "move every resource off one mount onto the others", &runFreeMount,
    "Moves every resource of MOUNT onto the other mounts of the repository.\n"
    "\n"
    "  --dry-run   change nothing; print the plan: each resource that would be moved, from\n"
    "              where to where, its age and size, and the used percentage of each mount\n"
    "  --json      print one JSON document (the run's figures, or with --dry-run the plan)\n"
    "  --verbose   print the emptying's own progress lines\n"
    "\n"
    "A real run records its figures in $VAR/lastrun-<id>.cfg for repoctl metrics.\n"
    "Exit status: 0 the mount is (or would be) empty, 1 resources are (or would be) left or\n"
    "the emptying could not begin, 2 usage error.");

}  // namespace
