#include "TmpfsMount.h"

#include <fcntl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <vector>

namespace {

struct statvfs query(const std::string& path) {
    struct statvfs vfs;
    if (statvfs(path.c_str(), &vfs) != 0) {
        throw std::runtime_error("statvfs " + path + ": " + strerror(errno));
    }
    return vfs;
}

void writeBlocks(const std::string& file, unsigned long blocks) {
    int fd = open(file.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    if (fd < 0) throw std::runtime_error("create " + file + ": " + strerror(errno));
    std::vector<char> block(TmpfsMount::kBlockSize, 'x');
    for (unsigned long i = 0; i < blocks; ++i) {
        if (write(fd, block.data(), block.size()) != static_cast<ssize_t>(block.size())) {
            const std::string error = strerror(errno);
            close(fd);
            throw std::runtime_error("write " + file + ": " + error);
        }
    }
    close(fd);
}

}  // namespace

bool TmpfsMount::canMount() {
    return geteuid() == 0;
}

bool TmpfsMount::ciRequiresMounts() {
    const char* ci = getenv("CI");
    return ci != nullptr && strcmp(ci, "true") == 0;
}

TmpfsMount::TmpfsMount(unsigned long long sizeBytes, unsigned long inodes,
                       const std::string& directory) {
    if (directory.empty()) {
        char pattern[] = "/tmp/rh-tmpfs-XXXXXX";
        if (mkdtemp(pattern) == nullptr) throw std::runtime_error("mkdtemp failed");
        path_ = pattern;
        createdDirectory_ = true;
    } else {
        path_ = directory;
        if (mkdir(path_.c_str(), 0755) == 0) createdDirectory_ = true;
    }
    const std::string options =
        "size=" + std::to_string(sizeBytes) + ",nr_inodes=" + std::to_string(inodes);
    if (mount("tmpfs", path_.c_str(), "tmpfs", 0, options.c_str()) != 0) {
        const std::string error = strerror(errno);
        if (createdDirectory_) rmdir(path_.c_str());
        throw std::runtime_error("mount tmpfs at " + path_ + ": " + error);
    }
}

TmpfsMount::~TmpfsMount() {
    // A test that failed may still hold files open below the mount: detach it lazily then, so
    // the kernel drops it as soon as the last user goes.
    if (umount2(path_.c_str(), 0) != 0) umount2(path_.c_str(), MNT_DETACH);
    if (createdDirectory_) rmdir(path_.c_str());
}

void TmpfsMount::ensureFillDir() {
    const std::string dir = path_ + "/.fill";
    if (mkdir(dir.c_str(), 0755) != 0 && errno != EEXIST) {
        throw std::runtime_error("mkdir " + dir + ": " + strerror(errno));
    }
}

void TmpfsMount::fillBlocksTo(double percent) {
    ensureFillDir();
    const struct statvfs vfs = query(path_);
    const auto target = static_cast<unsigned long>(std::ceil(vfs.f_blocks * percent / 100.0));
    const unsigned long used = vfs.f_blocks - vfs.f_bavail;
    if (target < used) throw std::runtime_error("mount is already fuller than requested");
    if (target > used) {
        writeBlocks(path_ + "/.fill/b" + std::to_string(fileCount_++), target - used);
    }
    const struct statvfs after = query(path_);
    if (after.f_blocks - after.f_bavail != target) {
        throw std::runtime_error("tmpfs did not reach the requested block use");
    }
}

void TmpfsMount::fillInodesTo(double percent) {
    ensureFillDir();
    const struct statvfs vfs = query(path_);
    const auto target = static_cast<unsigned long>(std::ceil(vfs.f_files * percent / 100.0));
    unsigned long used = vfs.f_files - vfs.f_favail;
    if (target < used) throw std::runtime_error("mount already uses more inodes than requested");
    for (; used < target; ++used) {
        const std::string file = path_ + "/.fill/i" + std::to_string(fileCount_++);
        int fd = open(file.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        if (fd < 0) throw std::runtime_error("create " + file + ": " + strerror(errno));
        close(fd);
    }
    const struct statvfs after = query(path_);
    if (after.f_files - after.f_favail != target) {
        throw std::runtime_error("tmpfs did not reach the requested inode use");
    }
}

double TmpfsMount::usedBlocksPercent() const {
    const struct statvfs vfs = query(path_);
    return 100.0 - 100.0 * vfs.f_bavail / vfs.f_blocks;
}

double TmpfsMount::usedInodesPercent() const {
    const struct statvfs vfs = query(path_);
    return 100.0 - 100.0 * vfs.f_favail / vfs.f_files;
}
