#pragma once

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "TmpfsMount.h"

// A repository for one test in a new directory under /tmp: mount directories (plain folders or
// real tmpfs mounts), repository.cfg and each repositorypart.cfg. Everything is removed when
// the object goes, tmpfs mounts unmounted first, even when the test fails. The removal stays
// on the repository's own file system and never follows links.
//
//   ScratchRepository repo;
//   repo.addTmpfsMount("p1", 400 * 4096, 100, {{"switchLimit", "80"}});
//   repo.addMount("p2");
//   repo.writeConfig({{"remindLimit", "0"}});   // mountPoints=p1\p2 is added
//
// Not thread-safe; one owner.
class ScratchRepository {
  public:
    using Keys = std::vector<std::pair<std::string, std::string>>;

    ScratchRepository();
    ~ScratchRepository();
    ScratchRepository(const ScratchRepository&) = delete;
    ScratchRepository& operator=(const ScratchRepository&) = delete;

    const std::string& path() const { return path_; }
    // Path of the mount added i-th.
    std::string mountPath(size_t i) const { return path_ + "/" + mountNames_.at(i); }
    // The tmpfs behind the mount added i-th; null for a plain folder.
    TmpfsMount* tmpfs(size_t i) const { return tmpfs_.at(i).get(); }

    // A plain folder `name` with a repositorypart.cfg holding `partKeys` (an empty file when
    // there are none). Returns its path.
    std::string addMount(const std::string& name, const Keys& partKeys = {});
    // The same on a new tmpfs mount of the given size (bytes) and inode count.
    std::string addTmpfsMount(const std::string& name, unsigned long long sizeBytes,
                              unsigned long inodes, const Keys& partKeys = {});

    // Writes repository.cfg with `keys` in order, followed by mountPoints naming every mount
    // added so far (unless `keys` names mountPoints itself or no mount was added).
    void writeConfig(const Keys& keys = {});
    // Writes `content` to a file relative to the repository directory.
    void writeFile(const std::string& relative, const std::string& content) const;

    // Writes name="value" lines.
    static void writeProperties(const std::string& file, const Keys& keys);

  private:
    std::string path_;
    std::vector<std::string> mountNames_;
    std::vector<std::unique_ptr<TmpfsMount>> tmpfs_;
};
