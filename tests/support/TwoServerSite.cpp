#include "TwoServerSite.h"

#include <dirent.h>
#include <fcntl.h>
#include <ftw.h>
#include <net/if.h>
#include <sched.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <set>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "ChildProcess.h"
#include "repohandler.h"

namespace {

// The brick's host name: glusterd refuses 127.0.0.1 and "localhost" as a brick host, so the
// site's private /etc/hosts gives this name to 127.0.0.1.
const char* const kBrickHost = "rh-gluster-brick";
const char* const kVolume = "rhshared";

struct SiteDirs {
    std::string work;     // everything below it is the site's
    std::string backing;  // the storage's own directory (the brick for GlusterFS)
    std::string viewA, viewB, observer;
    std::string gluster;  // glusterd's state, sockets and logs
    std::string outcome;
    std::string log;  // output of the commands the site runs
};

std::string errnoText(const std::string& what) {
    return what + ": " + strerror(errno);
}

void makeDirectory(const std::string& path) {
    if (mkdir(path.c_str(), 0755) != 0 && errno != EEXIST)
        throw std::runtime_error(errnoText("mkdir " + path));
}

void writeText(const std::string& file, const std::string& text) {
    std::ofstream out(file, std::ios::trunc);
    out << text;
    if (!out.flush()) throw std::runtime_error("cannot write " + file);
}

// Runs a program without a shell, its output appended to the site's log. Its exit code, or
// 128 + signal.
int runProgram(const std::vector<std::string>& argv, const std::string& log) {
    fflush(nullptr);
    const pid_t pid = fork();
    if (pid < 0) throw std::runtime_error(errnoText("fork"));
    if (pid == 0) {
        const int fd = open(log.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
        if (fd >= 0) {
            dup2(fd, 1);
            dup2(fd, 2);
        }
        std::vector<char*> args;
        for (const std::string& a : argv) args.push_back(const_cast<char*>(a.c_str()));
        args.push_back(nullptr);
        execvp(args[0], args.data());
        _exit(127);
    }
    int status = 0;
    while (waitpid(pid, &status, 0) < 0)
        if (errno != EINTR) return 255;
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

void mustRun(const std::vector<std::string>& argv, const std::string& log) {
    const int code = runProgram(argv, log);
    if (code == 0) return;
    std::string line;
    for (const std::string& a : argv) line += (line.empty() ? "" : " ") + a;
    throw std::runtime_error("\"" + line + "\" failed with " + std::to_string(code) + " (see " +
                             log + ")");
}

void bringUpLoopback() {
    const int fd = socket(AF_INET, SOCK_DGRAM, 0);
    if (fd < 0) throw std::runtime_error(errnoText("socket"));
    struct ifreq request;
    memset(&request, 0, sizeof request);
    strncpy(request.ifr_name, "lo", IFNAMSIZ - 1);
    const bool up = ioctl(fd, SIOCGIFFLAGS, &request) == 0 &&
                    (request.ifr_flags |= IFF_UP, ioctl(fd, SIOCSIFFLAGS, &request) == 0);
    const int error = errno;
    close(fd);
    if (!up) throw std::runtime_error(std::string("loopback up: ") + strerror(error));
}

void bindOver(const std::string& source, const std::string& target) {
    if (mount(source.c_str(), target.c_str(), nullptr, MS_BIND, nullptr) != 0)
        throw std::runtime_error(errnoText("bind " + source + " over " + target));
}

// A private /etc/hosts that adds the brick's name, and private places for what glusterd and
// its clients write, so nothing of the machine's own GlusterFS set-up is read or changed.
void isolateGlusterFiles(const SiteDirs& dirs) {
    std::ifstream in("/etc/hosts");
    std::stringstream hosts;
    hosts << in.rdbuf() << "\n127.0.0.1 " << kBrickHost << "\n";
    writeText(dirs.gluster + "/hosts", hosts.str());
    bindOver(dirs.gluster + "/hosts", "/etc/hosts");
    // Only directories that exist are covered: creating one would change the machine.
    for (const char* dir : {"/var/log/glusterfs", "/var/lib/glusterd", "/run/gluster"}) {
        struct stat st;
        if (stat(dir, &st) != 0) continue;
        const std::string own = dirs.gluster + dir;
        mustRun({"mkdir", "-p", own}, dirs.log);
        bindOver(own, dir);
    }
}

std::string glusterCli(const SiteDirs& dirs) {
    return "--glusterd-sock=" + dirs.gluster + "/glusterd.socket";
}

void startGluster(const TwoServerRun& run, const SiteDirs& dirs) {
    writeText(dirs.gluster + "/glusterd.vol",
              "volume management\n"
              "    type mgmt/glusterd\n"
              "    option working-directory " +
                  dirs.gluster +
                  "/state\n"
                  "    option run-directory " +
                  dirs.gluster +
                  "/run\n"
                  "    option glusterd-sockfile " +
                  dirs.gluster +
                  "/glusterd.socket\n"
                  "    option transport-type socket\n"
                  "    option transport.socket.listen-port 24007\n"
                  "    option ping-timeout 0\n"
                  "    option event-threads 1\n"
                  "end-volume\n");
    makeDirectory(dirs.gluster + "/state");
    makeDirectory(dirs.gluster + "/run");
    mustRun({"glusterd", "-f", dirs.gluster + "/glusterd.vol", "-l", dirs.gluster + "/glusterd.log",
             "-p", dirs.gluster + "/glusterd.pid"},
            dirs.log);
    const std::string cli = glusterCli(dirs);
    for (int attempt = 0;; ++attempt) {
        if (runProgram({"gluster", cli, "--mode=script", "volume", "list"}, dirs.log) == 0) break;
        if (attempt == 100) throw std::runtime_error("glusterd did not answer within 20 s");
        std::this_thread::sleep_for(std::chrono::milliseconds(200));
    }
    mustRun({"gluster", cli, "--mode=script", "volume", "create", kVolume,
             std::string(kBrickHost) + ":" + dirs.backing + "/brick", "force"},
            dirs.log);
    if (run.glusterClientCachesOff) {
        // The client-side translators that keep attributes, directory entries or file content.
        for (const char* option :
             {"performance.stat-prefetch", "performance.quick-read", "performance.io-cache",
              "performance.read-ahead", "performance.open-behind", "performance.write-behind",
              "performance.readdir-ahead"})
            mustRun({"gluster", cli, "--mode=script", "volume", "set", kVolume, option, "off"},
                    dirs.log);
    }
    mustRun({"gluster", cli, "--mode=script", "volume", "start", kVolume}, dirs.log);
}

void stopGluster(const SiteDirs& dirs) {
    runProgram({"gluster", glusterCli(dirs), "--mode=script", "volume", "stop", kVolume, "force"},
               dirs.log);
    std::ifstream pidFile(dirs.gluster + "/glusterd.pid");
    pid_t pid = 0;
    if (pidFile >> pid && pid > 1) kill(pid, SIGTERM);
}

// Mounts the storage at `view` in the calling process's mount namespace.
void mountView(const TwoServerRun& run, const SiteDirs& dirs, const std::string& view) {
    makeDirectory(view);
    switch (run.storage) {
        case SharedStorage::PlainDirectory:
            bindOver(dirs.backing, view);
            return;
        case SharedStorage::Bindfs: {
            const std::string t = std::to_string(run.attributeCacheSeconds);
            mustRun(
                {"bindfs", "-o", "attr_timeout=" + t + ",entry_timeout=" + t, dirs.backing, view},
                dirs.log);
            return;
        }
        case SharedStorage::GlusterFs: {
            std::vector<std::string> command{"mount", "-t", "glusterfs"};
            if (!run.glusterMountOptions.empty()) {
                command.push_back("-o");
                command.push_back(run.glusterMountOptions);
            }
            command.push_back(std::string(kBrickHost) + ":/" + kVolume);
            command.push_back(view);
            mustRun(command, dirs.log);
            return;
        }
    }
}

void unmountView(const std::string& view) {
    if (umount2(view.c_str(), 0) != 0) umount2(view.c_str(), MNT_DETACH);
}

std::string name(char server, int k) {
    return std::string(1, server) + "-" + std::to_string(k);
}

// One server's share of the work: every name marked, every even one cleared again after the
// next mark, so that marks and clears of both servers interleave.
void work(const std::string& repository, char server, int names) {
    for (int k = 0; k < names; ++k) {
        setDirty_(repository.c_str(), name(server, k).c_str(), true, nullptr);
        if (k % 2 == 1) setDirty_(repository.c_str(), name(server, k - 1).c_str(), false, nullptr);
    }
}

// A server: its own mount namespace and client, ready when mounted, working on "go".
pid_t startServer(const TwoServerRun& run, const SiteDirs& dirs, const std::string& view,
                  char server, int ready, int go) {
    fflush(nullptr);
    const pid_t pid = fork();
    if (pid != 0) return pid;
    int code = 0;
    try {
        if (unshare(CLONE_NEWNS) != 0) throw std::runtime_error(errnoText("unshare"));
        mountView(run, dirs, view);
        // Loaded, bound to its dirty file and connected before the start, so that both
        // servers' changes overlap from the first one.
        isDirty_((view + "/repo").c_str(), "warm-up", nullptr);
        char byte = 1;
        if (write(ready, &byte, 1) != 1 || read(go, &byte, 1) != 1) _exit(3);
        work(view + "/repo", server, run.namesPerServer);
        unmountView(view);
    } catch (const std::exception& e) {
        fprintf(stderr, "server %c: %s\n", server, e.what());
        code = 2;
    }
    fflush(nullptr);
    _exit(code);
}

int waitFor(pid_t pid) {
    int status = 0;
    while (waitpid(pid, &status, 0) < 0)
        if (errno != EINTR) return 255;
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

std::set<std::string> readLines(const std::string& file) {
    std::set<std::string> lines;
    std::ifstream in(file);
    for (std::string line; std::getline(in, line);) lines.insert(line);
    return lines;
}

void compare(const std::set<std::string>& found, int names, TwoServerOutcome& outcome) {
    outcome.marksLost = outcome.clearedMarksBack = outcome.mustStay = outcome.cleared = 0;
    for (char server : {'a', 'b'}) {
        for (int k = 0; k < names; ++k) {
            const bool present = found.count(name(server, k)) != 0;
            // The last even name is never cleared: its clear would follow a mark that is not made.
            const bool stays = k % 2 == 1 || k == names - 1;
            (stays ? outcome.mustStay : outcome.cleared) += 1;
            if (stays && !present) ++outcome.marksLost;
            if (!stays && present) ++outcome.clearedMarksBack;
        }
    }
}

// Ends what the site started and what was left to it: as a child subreaper the site became the
// parent of every daemon its commands started (glusterd, the brick, FUSE daemons), so exactly
// those are its children now.
void endLeftoverChildren() {
    const pid_t self = getpid();
    for (int round = 0; round < 50; ++round) {
        std::vector<pid_t> children;
        std::unique_ptr<DIR, int (*)(DIR*)> proc(opendir("/proc"), closedir);
        while (struct dirent* entry = proc ? readdir(proc.get()) : nullptr) {
            const pid_t pid = atoi(entry->d_name);
            if (pid <= 0) continue;
            std::ifstream status("/proc/" + std::string(entry->d_name) + "/status");
            for (std::string line; std::getline(status, line);) {
                if (line.rfind("PPid:", 0) != 0) continue;
                if (atoi(line.c_str() + 5) == self) children.push_back(pid);
                break;
            }
        }
        if (children.empty()) return;
        for (pid_t pid : children) kill(pid, round < 25 ? SIGTERM : SIGKILL);
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        while (waitpid(-1, nullptr, WNOHANG) > 0) {
        }
    }
}

void writeOutcome(const std::string& file, const TwoServerOutcome& o) {
    writeText(file, std::to_string(o.marksLost) + " " + std::to_string(o.clearedMarksBack) + " " +
                        std::to_string(o.mustStay) + " " + std::to_string(o.cleared) + " " +
                        std::to_string(o.seconds) + "\n" + o.failure + "\n");
}

void runServers(const TwoServerRun& run, const SiteDirs& dirs, TwoServerOutcome& outcome) {
    int ready[2], go[2];
    if (pipe(ready) != 0 || pipe(go) != 0) throw std::runtime_error(errnoText("pipe"));
    const pid_t a = startServer(run, dirs, dirs.viewA, 'a', ready[1], go[0]);
    const pid_t b =
        startServer(run, dirs, run.differentPaths ? dirs.viewB : dirs.viewA, 'b', ready[1], go[0]);
    close(ready[1]);
    char bytes[2] = {1, 1};
    const bool bothReady = read(ready[0], bytes, 1) == 1 && read(ready[0], bytes + 1, 1) == 1;
    const auto start = std::chrono::steady_clock::now();
    if (bothReady && write(go[1], bytes, 2) != 2) throw std::runtime_error(errnoText("write"));
    close(go[1]);
    const int codeA = waitFor(a), codeB = waitFor(b);
    outcome.seconds =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    close(ready[0]);
    close(go[0]);
    if (!bothReady || codeA != 0 || codeB != 0)
        throw std::runtime_error("a server failed (exit codes " + std::to_string(codeA) + ", " +
                                 std::to_string(codeB) + "; see " + dirs.log + ")");
}

void prepareStorage(const TwoServerRun& run, const SiteDirs& dirs) {
    makeDirectory(dirs.backing);
    if (run.coarseTimestamps && mount("none", dirs.backing.c_str(), "ramfs", 0, nullptr) != 0)
        throw std::runtime_error(errnoText("mount ramfs"));
    if (run.storage == SharedStorage::GlusterFs) {
        makeDirectory(dirs.backing + "/brick");
        startGluster(run, dirs);
    }
}

// The repository is made through the observer's client, as a server would make it.
void makeRepository(const TwoServerRun& run, const SiteDirs& dirs) {
    const std::string repo = dirs.observer + "/repo";
    makeDirectory(repo);
    std::string config = "isShared=true\n";
    if (run.differentPaths)
        config += "repositoryId=rh-two-servers-" + std::to_string(getpid()) + "\n";
    writeText(repo + "/repository.cfg", config);
}

// Longer than any cache of the observer's client: bindfs's attribute and entry timeouts, or
// GlusterFS's default client caches (attributes, metadata and data, one second each).
int quietSeconds(const TwoServerRun& run) {
    return run.storage == SharedStorage::GlusterFs ? 4 : run.attributeCacheSeconds + 2;
}

int runSite(const TwoServerRun& run, const SiteDirs& dirs) {
    TwoServerOutcome outcome;
    try {
        prctl(PR_SET_CHILD_SUBREAPER, 1);
        alarm(static_cast<unsigned>(run.limitSeconds));
        const bool gluster = run.storage == SharedStorage::GlusterFs;
        if (unshare(CLONE_NEWNS | (gluster ? CLONE_NEWNET : 0)) != 0)
            throw std::runtime_error(errnoText("unshare"));
        if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0)
            throw std::runtime_error(errnoText("make / private"));
        if (gluster) {
            bringUpLoopback();
            isolateGlusterFiles(dirs);
        }
        prepareStorage(run, dirs);
        mountView(run, dirs, dirs.observer);
        makeRepository(run, dirs);
        runServers(run, dirs, outcome);
        std::this_thread::sleep_for(std::chrono::seconds(quietSeconds(run)));
        compare(readLines(dirs.observer + "/repo/.dirty"), run.namesPerServer, outcome);
    } catch (const std::exception& e) {
        outcome.failure = e.what();
    }
    unmountView(dirs.observer);
    if (run.storage == SharedStorage::GlusterFs) stopGluster(dirs);
    endLeftoverChildren();
    writeOutcome(dirs.outcome, outcome);
    return outcome.failure.empty() ? 0 : 1;
}

void removeTree(const std::string& root) {
    nftw(
        root.c_str(),
        [](const char* p, const struct stat*, int, struct FTW*) { return ::remove(p), 0; }, 32,
        FTW_DEPTH | FTW_PHYS | FTW_MOUNT);
}

TwoServerOutcome readOutcome(const std::string& file, int siteCode) {
    TwoServerOutcome o;
    std::ifstream in(file);
    if (!(in >> o.marksLost >> o.clearedMarksBack >> o.mustStay >> o.cleared >> o.seconds)) {
        o.failure = "the site ended with " + std::to_string(siteCode) + " and left no outcome";
        return o;
    }
    in.ignore(1);
    std::getline(in, o.failure);
    return o;
}

bool programExists(const char* program) {
    for (const char* dir : {"/usr/bin/", "/usr/sbin/", "/bin/", "/sbin/"})
        if (access((std::string(dir) + program).c_str(), X_OK) == 0) return true;
    return false;
}

}  // namespace

bool twoServerSiteAvailable(std::string& why) {
    if (geteuid() != 0) {
        why = "the two-server site needs root (mount namespaces and mounts)";
        return false;
    }
    if (access("/dev/fuse", R_OK | W_OK) != 0) {
        why = "the two-server site needs /dev/fuse";
        return false;
    }
    const int code = runInChild([] { return unshare(CLONE_NEWNS | CLONE_NEWNET) == 0 ? 0 : 1; });
    if (code != 0) {
        why = "the two-server site needs mount and network namespaces (unshare refused them)";
        return false;
    }
    return true;
}

std::string twoServerProgramsMissing() {
    std::string missing;
    for (const char* program : {"bindfs", "glusterd", "gluster", "mount.glusterfs"})
        if (!programExists(program)) missing += std::string(missing.empty() ? "" : ", ") + program;
    if (missing.empty()) return missing;
    return missing + " missing: scripts/deps installs bindfs and glusterfs-server";
}

TwoServerOutcome runTwoServers(const TwoServerRun& run) {
    char pattern[] = "/tmp/rh-2srv-XXXXXX";
    if (mkdtemp(pattern) == nullptr) return {errnoText("mkdtemp"), -1, -1, 0, 0, 0};
    SiteDirs dirs;
    dirs.work = pattern;
    dirs.backing = dirs.work + "/storage";
    dirs.viewA = dirs.work + "/share";
    dirs.viewB = dirs.work + "/elsewhere";
    dirs.observer = dirs.work + "/observer";
    dirs.gluster = dirs.work + "/gluster";
    dirs.outcome = dirs.work + "/outcome";
    dirs.log = dirs.work + "/site.log";
    makeDirectory(dirs.gluster);
    const int code = runInChild([&] { return runSite(run, dirs); });
    TwoServerOutcome outcome = readOutcome(dirs.outcome, code);
    if (!outcome.failure.empty()) {
        std::ifstream log(dirs.log);
        std::stringstream text;
        text << log.rdbuf();
        outcome.failure += "\n--- site log ---\n" + text.str();
    }
    removeTree(dirs.work);
    return outcome;
}
