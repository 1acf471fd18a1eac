#include <sys/mount.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <string>

#include "StressLayout.h"
#include "StressRun.h"

namespace stress {

namespace {

void mountOrThrow(const char* type, const std::string& target, const std::string& options) {
    if (!makeDirs(target)) throw std::runtime_error("cannot make " + target);
    if (mount(type, target.c_str(), type, 0, options.empty() ? nullptr : options.c_str()) != 0) {
        throw std::runtime_error("mount " + std::string(type) + " on " + target + ": " +
                                 strerror(errno) + " (needs root)");
    }
}

}  // namespace

Mounts::Mounts(const std::string& base, const std::vector<int>& sizesKiB)
    : repository_(base + "/repo"), count_(sizesKiB.size()) {
    // ramfs keeps time stamps in jiffies, as ext4 and xfs do on the kernels the archive runs
    // on: two rewrites of the dirty file within one tick carry the same modification time.
    mountOrThrow("ramfs", repository_, "");
    mounted_.push_back(repository_);
    for (size_t i = 0; i < sizesKiB.size(); ++i) {
        mountOrThrow("tmpfs", mount(i),
                     "size=" + std::to_string(sizesKiB[i]) + "k,nr_inodes=20000");
        mounted_.insert(mounted_.begin(), mount(i));
    }
}

Mounts::~Mounts() {
    for (const std::string& target : mounted_) {
        if (umount2(target.c_str(), MNT_DETACH) != 0) {
            fprintf(stderr, "umount %s: %s\n", target.c_str(), strerror(errno));
        }
    }
}

void Mounts::wipe() const {
    for (size_t i = 0; i < count_; ++i) {
        for (const std::string& name : entriesOf(mount(i))) {
            if (name != "repositorypart.cfg") removeTree(mount(i) + "/" + name);
        }
    }
    for (const std::string& name : entriesOf(repository_)) {
        if (name.compare(0, 1, ".") == 0) removeTree(repository_ + "/" + name);
    }
}

}  // namespace stress
