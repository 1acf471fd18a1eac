#pragma once

// The two campaigns of rh_stress: a multi-process load beside a looping overload check, and
// SIGKILL at many moments of the maintenance and of writes of the dirty file.

#include <map>
#include <set>
#include <string>
#include <vector>

namespace stress {

struct Options {
    std::string base;
    bool shared = false;
    int workers = 4;
    int seconds = 60;
    int names = 80;
    int points = 200;
    std::string restartDb;  // shell command that stops and starts the database server
    std::string lockRows;   // shell command that prints the number of rows in the lock table
    // Kinds of killed work (kill) or figures ("lost-marks", "leftover-locks"; load) that do not
    // decide the exit status: faults known to be open.
    std::set<std::string> tolerate;
};

// Figures in print order; the names in `invariants` must all be 0.
struct Figures {
    std::vector<std::pair<std::string, long long>> values;
    std::set<std::string> invariants;
    void add(const std::string& name, long long value, bool invariant) {
        values.emplace_back(name, value);
        if (invariant) invariants.insert(name);
    }
};

Figures runLoad(const Options& options);
Figures runKills(const Options& options);
// Whether `key` names a kind of killed work (moves, filling-moves, merges, legacy-take-overs,
// emptying, dirty-writes).
bool isKillWork(const std::string& key);

// The mounts of one run: the repository directory on ramfs (coarse time stamps) and its
// mounts p1..pN on tmpfs of the given sizes in KiB. Unmounted by the destructor.
class Mounts {
  public:
    Mounts(const std::string& base, const std::vector<int>& sizesKiB);
    ~Mounts();
    Mounts(const Mounts&) = delete;
    Mounts& operator=(const Mounts&) = delete;

    const std::string& repository() const { return repository_; }
    std::string mount(size_t i) const { return repository_ + "/p" + std::to_string(i + 1); }
    size_t count() const { return count_; }
    // Removes everything on the mounts but their repositorypart.cfg, and the repository's
    // state files (.dirty, statistics).
    void wipe() const;

  private:
    std::string repository_;
    size_t count_;
    std::vector<std::string> mounted_;
};

}  // namespace stress
