#pragma once

// What the stress driver knows without asking the library: where a resource must lie on a
// mount (the hashed layout, computed here on its own), what a resource holds (files whose
// content follows from the name and a generation number), and how to read a mount, the dirty
// file and the lock directory straight from the file system.

#include <cstdint>
#include <set>
#include <string>
#include <vector>

namespace stress {

// The three hash levels of `name` ("AB/CD/EF/").
std::string hashPrefix(const std::string& name);
// mountPath + "/" + hash levels + name.
std::string locationOn(const std::string& mountPath, const std::string& name);

// Writes generation `generation` of resource `name` into the directory `location` (created
// here; its parent must exist). False when a write fails (errno kept).
bool writeResource(const std::string& location, const std::string& name, unsigned generation);
// Whether every file of generation `generation` lies, with its content, in at least one of
// `places` (a merge in progress spreads a resource's files over two mounts).
bool completeAcross(const std::vector<std::string>& places, const std::string& name,
                    unsigned generation);
// Digest of what writeResource writes, computed without touching the disk.
uint64_t expectedDigest(const std::string& name, unsigned generation);
// Digest of every file below `dir`: relative names and contents, in name order; 0 when the
// directory cannot be read.
uint64_t digestOf(const std::string& dir);

// The lines of a dirty file as it lies on disk (missing file: empty set).
std::set<std::string> readDirtyFile(const std::string& path);
// Entries of a directory other than "." and ".." (missing directory: none).
std::vector<std::string> entriesOf(const std::string& dir);
bool exists(const std::string& path);
// rm -rf without a shell.
void removeTree(const std::string& path);
// mkdir -p.
bool makeDirs(const std::string& path);
// Sets both times of `path` to `when`.
void setAge(const std::string& path, long when);

// Hex form of a name, safe as a file name whatever the name holds.
std::string hexName(const std::string& name);

}  // namespace stress
