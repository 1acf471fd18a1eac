#include "RamfsMount.h"

#include <sys/mount.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <stdexcept>

RamfsMount::RamfsMount() {
    char pattern[] = "/tmp/rh_ramfs_XXXXXX";
    if (mkdtemp(pattern) == nullptr) throw std::runtime_error("mkdtemp failed");
    path_ = pattern;
    if (mount("ramfs", path_.c_str(), "ramfs", 0, "mode=0755") != 0) {
        std::string error = strerror(errno);
        rmdir(path_.c_str());
        throw std::runtime_error("mount ramfs on " + path_ + ": " + error);
    }
}

RamfsMount::~RamfsMount() {
    if (umount2(path_.c_str(), 0) != 0) umount2(path_.c_str(), MNT_DETACH);
    rmdir(path_.c_str());
}
