#include "ScratchRepository.h"

#include <ftw.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <stdexcept>

namespace {

int removeEntry(const char* path, const struct stat*, int, struct FTW*) {
    ::remove(path);
    return 0;
}

}  // namespace

ScratchRepository::ScratchRepository() {
    char pattern[] = "/tmp/rh-repo-XXXXXX";
    if (mkdtemp(pattern) == nullptr) throw std::runtime_error("mkdtemp failed");
    path_ = pattern;
}

ScratchRepository::~ScratchRepository() {
    tmpfs_.clear();
    // FTW_MOUNT keeps the walk off any mount that could not be detached; FTW_PHYS never
    // follows a link out of the tree.
    nftw(path_.c_str(), removeEntry, 16, FTW_DEPTH | FTW_PHYS | FTW_MOUNT);
}

std::string ScratchRepository::addMount(const std::string& name, const Keys& partKeys) {
    const std::string dir = path_ + "/" + name;
    if (mkdir(dir.c_str(), 0755) != 0 && errno != EEXIST) {
        throw std::runtime_error("mkdir " + dir + ": " + strerror(errno));
    }
    writeProperties(dir + "/repositorypart.cfg", partKeys);
    mountNames_.push_back(name);
    tmpfs_.push_back(nullptr);
    return dir;
}

std::string ScratchRepository::addTmpfsMount(const std::string& name, unsigned long long sizeBytes,
                                             unsigned long inodes, const Keys& partKeys) {
    const std::string dir = path_ + "/" + name;
    auto disk = std::make_unique<TmpfsMount>(sizeBytes, inodes, dir);
    mountNames_.push_back(name);
    tmpfs_.push_back(std::move(disk));
    writeProperties(dir + "/repositorypart.cfg", partKeys);
    return dir;
}

void ScratchRepository::writeConfig(const Keys& keys) {
    Keys all = keys;
    bool named = false;
    for (const auto& key : keys) named = named || key.first == "mountPoints";
    if (!named && !mountNames_.empty()) {
        std::string list;
        for (const auto& name : mountNames_) list += (list.empty() ? "" : "\\") + name;
        all.emplace_back("mountPoints", list);
    }
    writeProperties(path_ + "/repository.cfg", all);
}

void ScratchRepository::writeFile(const std::string& relative, const std::string& content) const {
    std::ofstream out(path_ + "/" + relative, std::ios::binary | std::ios::trunc);
    if (!out) throw std::runtime_error("cannot write " + relative);
    out << content;
}

void ScratchRepository::writeProperties(const std::string& file, const Keys& keys) {
    std::ofstream out(file, std::ios::binary | std::ios::trunc);
    if (!out) throw std::runtime_error("cannot write " + file);
    for (const auto& key : keys) out << key.first << "=\"" << key.second << "\"\n";
}
