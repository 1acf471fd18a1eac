// The multi-process load: worker processes create, read (checking the content), remove, lock
// and mark dirty an overlapping set of resources while another process loops checkOverload_ on
// mounts kept near their move limit. Each worker keeps what it did in a record of its own on
// disk (the truth directory), serialised per resource by flock, so that the final state of
// every resource is known without asking the library, and is compared at the end with what the
// mounts actually hold.

#include <fcntl.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <exception>
#include <fstream>
#include <functional>
#include <map>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "StressLayout.h"
#include "StressRun.h"
#include "repohandler.h"

namespace stress {

namespace {

constexpr long kDay = 86400;
constexpr int kMarksPerWorker = 12;

// Names that would run a command if one reached a shell unquoted or broke out of its quotes.
// The commands only create a file in the current directory, which the run counts at the end.
const char* const kHostileNames[] = {
    "q'uote",         "x';touch shell1;'",    "$(touch shell2)",
    "`touch shell3`", "y\"$(touch shell4)\"", ";touch shell5",
    "|touch shell6",  "a b&touch shell7&",
};

// Counters of one process, written to a file at its end and added up by the parent.
struct Counters {
    std::map<std::string, long long> values;
    void bump(const std::string& name, long long by = 1) { values[name] += by; }
    void save(const std::string& file) const {
        // One "name<TAB>value" line each: the names hold blanks.
        std::ofstream out(file);
        for (const auto& [name, value] : values) out << name << "\t" << value << "\n";
    }
    void load(const std::string& file) {
        std::ifstream in(file);
        std::string name, value;
        while (std::getline(in, name, '\t') && std::getline(in, value)) {
            values[name] += std::stoll(value);
        }
    }
    long long get(const std::string& name) const {
        auto it = values.find(name);
        return it == values.end() ? 0 : it->second;
    }
};

struct Run {
    Options options;
    std::string repository, truth, cwd, locks, var;
    std::vector<std::string> mounts;
    std::vector<std::string> names;
};

// The record of one resource: present or not, and the generation written last.
struct Truth {
    bool present = false;
    unsigned generation = 0;
};

class TruthLock {
  public:
    TruthLock(const Run& run, const std::string& name)
        : file_(run.truth + "/" + hexName(name)),
          fd_(open((file_ + ".lock").c_str(), O_RDWR | O_CREAT, 0644)) {
        if (fd_ >= 0) flock(fd_, LOCK_EX);
    }
    ~TruthLock() {
        if (fd_ >= 0) close(fd_);
    }
    Truth read() const {
        Truth truth;
        std::ifstream in(file_);
        unsigned generation;
        if (in >> generation) {
            truth.present = true;
            truth.generation = generation;
        }
        return truth;
    }
    void write(const Truth& truth) const {
        if (!truth.present) {
            unlink(file_.c_str());
            return;
        }
        std::ofstream(file_) << truth.generation << "\n";
    }

  private:
    std::string file_;
    int fd_;
};

// Holders of a library lock create this file exclusively: a second holder at the same time
// means the lock did not exclude.
class HolderMark {
  public:
    HolderMark(const Run& run, const std::string& name, Counters& counters)
        : file_(run.truth + "/" + hexName(name) + ".held") {
        const int fd = open(file_.c_str(), O_WRONLY | O_CREAT | O_EXCL, 0644);
        if (fd < 0) {
            counters.bump("broken exclusions");
            file_.clear();
        } else {
            close(fd);
        }
    }
    ~HolderMark() {
        if (!file_.empty()) unlink(file_.c_str());
    }

  private:
    std::string file_;
};

// Where the resource lies now, by reading the mounts: the locations holding a copy.
std::vector<std::string> copiesOf(const Run& run, const std::string& name) {
    std::vector<std::string> copies;
    for (const std::string& mount : run.mounts) {
        const std::string location = locationOn(mount, name);
        if (exists(location)) copies.push_back(location);
    }
    return copies;
}

const char* repo(const Run& run) {
    return run.repository.c_str();
}

// Gives a lock back as a careful caller does: a release refused while the database is away is
// tried again for up to a minute, so a row left behind after that is the library's.
void unlock(const Run& run, const std::string& name, Counters& c) {
    for (int attempt = 0; attempt < 600; ++attempt) {
        try {
            if (unlockResource_(repo(run), name.c_str(), nullptr) == 1) return;
        } catch (const std::exception& e) {
            c.bump("exceptions");
            fprintf(stderr, "unlock of %s: %s\n", name.c_str(), e.what());
        }
        c.bump("unlocks retried");
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
    c.bump("unlocks failed");
}

void createOne(const Run& run, const std::string& name, std::mt19937& random, Counters& c) {
    TruthLock lock(run, name);
    Truth truth = lock.read();
    int status = 0, existed = 0;
    char* location = createLocation_(repo(run), name.c_str(), &status, &existed, false, nullptr);
    c.bump("creates");
    if (location == nullptr) {
        // 16: the lock was not had (the database is away); otherwise a full repository, and a
        // resource that exists must have been found before any mount was chosen.
        if (status == 16)
            c.bump("locks refused");
        else if (truth.present)
            c.bump("lost seen");
        else
            c.bump("creates refused");
        return;
    }
    const std::string path = location;
    release(location);
    if (truth.present) {
        if (existed != 1) c.bump("lost seen");
        return;
    }
    if (existed == 1) {
        c.bump("come back seen");
        return;
    }
    truth.generation += 1;
    if (!writeResource(path, name, truth.generation)) {
        // A full mount is an answer the caller must handle; a vanished parent is not.
        if (errno == ENOENT)
            c.bump("vanished parents");
        else
            c.bump("writes failed");
        removeTree(path);
        return;
    }
    // Archived studies are old: make the resource a candidate for the overload check.
    setAge(path, time(nullptr) - static_cast<long>(2 + random() % 60) * kDay);
    truth.present = true;
    lock.write(truth);
}

void readOne(const Run& run, const std::string& name, Counters& c) {
    TruthLock lock(run, name);
    const Truth truth = lock.read();
    if (lockResource_(repo(run), name.c_str(), nullptr) != 1) {
        c.bump("locks refused");
        return;
    }
    {
        HolderMark held(run, name, c);
        int status = 0;
        char* location =
            getLocation_(repo(run), name.c_str(), &status, false, false, false, false, nullptr);
        c.bump("reads");
        if (status == 2) c.bump("conflicts seen");
        if (location == nullptr) {
            if (truth.present) c.bump("lost seen");
            if (truth.present) fprintf(stderr, "lookup of %s: status %d\n", name.c_str(), status);
        } else {
            if (!truth.present) {
                c.bump("come back seen");
            } else if (status != 2 &&
                       digestOf(location) != expectedDigest(name, truth.generation)) {
                // Status 2 tells the caller the copies conflict; success with wrong content is
                // corruption.
                c.bump("corrupt seen");
            }
            release(location);
        }
    }
    unlock(run, name, c);
}

void removeOne(const Run& run, const std::string& name, Counters& c) {
    TruthLock lock(run, name);
    Truth truth = lock.read();
    const int result = removeResource_(repo(run), name.c_str(), true, false, nullptr);
    c.bump("removes");
    if (result == 16) {
        c.bump("locks refused");
        return;
    }
    if (!truth.present) {
        if ((result & 4) == 0) c.bump("come back seen");
        return;
    }
    if (result == 0) {
        truth.present = false;
        lock.write(truth);
    } else if (result == 1) {
        c.bump("removes still dirty");
    } else {
        c.bump("removes failed");
        // What is left decides the record: nothing on the mounts means it is gone.
        if (copiesOf(run, name).empty()) {
            truth.present = false;
            lock.write(truth);
        }
    }
}

void lockOne(const Run& run, const std::string& name, Counters& c) {
    if (lockResource_(repo(run), name.c_str(), nullptr) != 1) {
        c.bump("locks refused");
        return;
    }
    c.bump("locks");
    {
        HolderMark held(run, name, c);
        std::this_thread::sleep_for(std::chrono::microseconds(300));
    }
    unlock(run, name, c);
}

std::string markName(int worker, int i) {
    return "mark-" + std::to_string(worker) + "-" + std::to_string(i);
}

void worker(const Run& run, int index) {
    Counters c;
    std::mt19937 random(static_cast<unsigned>(getpid() * 7919 + index));
    std::vector<bool> marks(kMarksPerWorker, false);
    // A mark whose setDirty_ failed (it throws when the change did not reach the file) may
    // still be written later by this process; only the next successful call settles it.
    std::vector<bool> unsettled(kMarksPerWorker, false);
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(run.options.seconds);
    while (std::chrono::steady_clock::now() < end) {
        const std::string& name = run.names[random() % run.names.size()];
        int marking = -1;
        try {
            const unsigned op = random() % 100;
            if (op < 35) {
                readOne(run, name, c);
            } else if (op < 60) {
                createOne(run, name, random, c);
            } else if (op < 72) {
                removeOne(run, name, c);
            } else if (op < 82) {
                lockOne(run, name, c);
            } else {
                const int i = static_cast<int>(random() % kMarksPerWorker);
                const bool dirty = !marks[i];
                marking = i;
                setDirty_(repo(run), markName(index, i).c_str(), dirty, nullptr);
                marking = -1;
                marks[i] = dirty;
                unsettled[i] = false;
                c.bump("marks");
                if ((isDirty_(repo(run), markName(index, i).c_str(), nullptr) != 0) != dirty) {
                    c.bump("marks misread by their writer");
                }
            }
        } catch (const std::exception& e) {
            c.bump("exceptions");
            fprintf(stderr, "worker %d: %s\n", index, e.what());
        } catch (...) {
            c.bump("exceptions");
        }
        if (marking >= 0) {
            unsettled[marking] = true;
            c.bump("marks refused");
        }
    }
    std::ofstream out(run.truth + "/marks-" + std::to_string(index));
    for (int i = 0; i < kMarksPerWorker; ++i)
        out << markName(index, i) << " " << (unsettled[i] ? 2 : marks[i] ? 1 : 0) << "\n";
    c.save(run.truth + "/counters-" + std::to_string(index));
}

// The mount index of every resource that lies on exactly one mount.
std::map<std::string, size_t> placement(const Run& run) {
    std::map<std::string, size_t> where;
    for (const std::string& name : run.names) {
        size_t found = 0, at = 0;
        for (size_t m = 0; m < run.mounts.size(); ++m) {
            if (exists(locationOn(run.mounts[m], name))) {
                ++found;
                at = m;
            }
        }
        if (found == 1) where[name] = at;
    }
    return where;
}

void overloader(const Run& run) {
    Counters c;
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(run.options.seconds);
    std::map<std::string, size_t> before = placement(run);
    while (std::chrono::steady_clock::now() < end) {
        try {
            checkOverload_(repo(run), false, false, nullptr);
        } catch (const std::exception& e) {
            c.bump("exceptions");
            fprintf(stderr, "overload check: %s\n", e.what());
        }
        c.bump("overload checks");
        // Resources seen on another mount than before the check: roughly the moves it made.
        const std::map<std::string, size_t> after = placement(run);
        for (const auto& [name, mount] : after) {
            auto it = before.find(name);
            if (it != before.end() && it->second != mount) c.bump("moves seen");
        }
        before = after;
    }
    c.save(run.truth + "/counters-overload");
}

pid_t spawn(const Run& run, const std::function<void()>& body) {
    const pid_t pid = fork();
    if (pid == 0) {
        if (chdir(run.cwd.c_str()) != 0) _exit(3);
        body();
        _exit(0);
    }
    return pid;
}

void writeConfiguration(const Run& run) {
    std::ofstream cfg(run.repository + "/repository.cfg");
    cfg << "mountPoints=p1\\p2\\p3\\p4\n"
        << "isShared=" << (run.options.shared ? "true" : "false") << "\n"
        << "numThreads=4\nmoveTime=1\nnomoveTimeSeconds=3600\n";
    // New resources go to p1 up to 70 % while the overload check moves them off it from 50 %:
    // p1 stays near its move limit and moves never stop. p2 and p3 take them up to 55 % and
    // move from 60 % down to 45 %; p4 is small and takes moves until it is really full, so
    // that copies onto it fail half-way.
    for (size_t i = 0; i < run.mounts.size(); ++i) {
        std::ofstream part(run.mounts[i] + "/repositorypart.cfg");
        if (i == 0) {
            part << "switchLimit=70\nfullLimit=85\ncleanLimit=40\nmoveLimit=50\nhardFullLimit=99\n";
        } else if (i < 3) {
            part << "switchLimit=55\nfullLimit=85\ncleanLimit=45\nmoveLimit=60\nhardFullLimit=99\n";
        } else {
            part << "switchLimit=100\nfullLimit=100\ncleanLimit=100\nmoveLimit=100\n"
                 << "hardFullLimit=100\n";
        }
    }
}

long long countOutput(const std::string& command) {
    if (command.empty()) return 0;
    FILE* pipe = popen(command.c_str(), "r");
    if (pipe == nullptr) return -1;
    long long value = -1;
    if (fscanf(pipe, "%lld", &value) != 1) value = -1;
    pclose(pipe);
    return value;
}

}  // namespace

Figures runLoad(const Options& options) {
    Run run;
    run.options = options;
    removeTree(options.base);
    makeDirs(options.base);
    Mounts mounts(options.base, {1024, 1024, 1024, 384});
    run.repository = mounts.repository();
    for (size_t i = 0; i < mounts.count(); ++i) run.mounts.push_back(mounts.mount(i));
    run.truth = options.base + "/truth";
    run.cwd = options.base + "/cwd";
    run.locks = options.base + "/locks";
    run.var = options.base + "/var";
    for (const std::string& dir : {run.truth, run.cwd, run.locks, run.var}) makeDirs(dir);
    setenv("LOCK_VAR", run.locks.c_str(), 1);
    setenv("VAR", run.var.c_str(), 1);
    // The move-time warnings send a message through this script; it only keeps the lines.
    const std::string admin = options.base + "/admin";
    makeDirs(admin);
    {
        std::ofstream script(admin + "/sendmessage.sh");
        script << "#!/bin/sh\necho \"$*\" >> " << admin << "/messages\n";
    }
    chmod((admin + "/sendmessage.sh").c_str(), 0755);
    setenv("KSADMIN_HOME", admin.c_str(), 1);
    writeConfiguration(run);
    for (int i = 0; i < options.names; ++i) run.names.push_back("1.2.840." + std::to_string(i));
    for (const char* hostile : kHostileNames) run.names.push_back(hostile);

    std::vector<pid_t> children;
    for (int w = 0; w < options.workers; ++w)
        children.push_back(spawn(run, [&run, w] { worker(run, w); }));
    children.push_back(spawn(run, [&run] { overloader(run); }));
    long long restarts = 0;
    if (!options.restartDb.empty()) {
        // The database goes away in the middle of the run and comes back.
        std::this_thread::sleep_for(std::chrono::seconds(options.seconds / 2));
        if (system(options.restartDb.c_str()) == 0) ++restarts;
    }
    long long crashes = 0;
    for (pid_t child : children) {
        int status = 0;
        waitpid(child, &status, 0);
        if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
            ++crashes;
            fprintf(stderr, "process %d ended with status %#x\n", child, status);
        }
    }

    Counters c;
    for (int w = 0; w < options.workers; ++w) c.load(run.truth + "/counters-" + std::to_string(w));
    c.load(run.truth + "/counters-overload");

    // The final state, read from the mounts.
    const std::set<std::string> dirty = readDirtyFile(run.repository + "/.dirty");
    long long lost = 0, corrupt = 0, comeBack = 0, duplicates = 0, present = 0;
    for (const std::string& name : run.names) {
        TruthLock lock(run, name);
        const Truth truth = lock.read();
        const std::vector<std::string> copies = copiesOf(run, name);
        if (copies.size() > 1 && dirty.count(name) == 0) ++duplicates;
        if (!truth.present) {
            if (!copies.empty()) ++comeBack;
            continue;
        }
        ++present;
        if (copies.empty()) {
            ++lost;
            continue;
        }
        bool complete = false;
        for (const std::string& copy : copies)
            complete = complete || digestOf(copy) == expectedDigest(name, truth.generation);
        if (!complete) ++corrupt;
    }
    long long lostMarks = 0;
    for (int w = 0; w < options.workers; ++w) {
        std::ifstream in(run.truth + "/marks-" + std::to_string(w));
        std::string name;
        int expected;
        while (in >> name >> expected) {
            if (expected != 2 && (dirty.count(name) != 0) != (expected != 0)) ++lostMarks;
        }
    }
    long long leftoverLocks = 0;
    for (const std::string& entry : entriesOf(run.locks))
        if (entry.compare(0, 10, "semaphore_") == 0) ++leftoverLocks;
    if (options.shared) leftoverLocks += countOutput(options.lockRows);
    const long long shellExecutions = static_cast<long long>(entriesOf(run.cwd).size());

    Figures f;
    const std::string prefix = options.shared ? "load shared " : "load files ";
    f.add(prefix + "operations",
          c.get("creates") + c.get("reads") + c.get("removes") + c.get("locks") + c.get("marks"),
          false);
    f.add(prefix + "overload checks", c.get("overload checks"), false);
    f.add(prefix + "moves seen", c.get("moves seen"), false);
    f.add(prefix + "resources present", present, false);
    f.add(prefix + "lost", lost + c.get("lost seen"), true);
    f.add(prefix + "corrupt", corrupt + c.get("corrupt seen"), true);
    f.add(prefix + "come back after removal", comeBack + c.get("come back seen"), true);
    f.add(prefix + "duplicates outside the dirty set", duplicates, true);
    // Figures named with --tolerate belong to faults known to be open: printed, not judged.
    f.add(prefix + "lost marks", lostMarks + c.get("marks misread by their writer"),
          options.tolerate.count("lost-marks") == 0);
    f.add(prefix + "leftover locks", leftoverLocks, options.tolerate.count("leftover-locks") == 0);
    f.add(prefix + "broken exclusions", c.get("broken exclusions"), true);
    f.add(prefix + "crashes", crashes, true);
    f.add(prefix + "shell executions", shellExecutions, true);
    f.add(prefix + "vanished parents", c.get("vanished parents"), true);
    f.add(prefix + "unresolved conflicts seen", c.get("conflicts seen"), false);
    f.add(prefix + "removes refused as still dirty", c.get("removes still dirty"), false);
    f.add(prefix + "locks refused", c.get("locks refused"), false);
    f.add(prefix + "marks refused", c.get("marks refused"), false);
    f.add(prefix + "exceptions", c.get("exceptions"), false);
    f.add(prefix + "unlocks retried", c.get("unlocks retried"), false);
    f.add(prefix + "unlocks failed", c.get("unlocks failed"), false);
    if (options.shared) f.add(prefix + "database restarts", restarts, false);
    return f;
}

}  // namespace stress
