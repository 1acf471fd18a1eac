#pragma once

#include <dirent.h>
#include <sys/stat.h>
#include <utime.h>

#include <fstream>
#include <set>
#include <sstream>
#include <string>

#include "KSPathUtils.h"

// Small helpers for tests that place resources on mounts by hand.

// Writes `file` with `content` into the resource directory of `name` on the mount at `mount`
// (creating the hash levels). Returns the resource's location.
inline std::string putResource(const std::string& mount, const std::string& name,
                               const std::string& file = "f", const std::string& content = "data") {
    const std::string location = resourceLocation(mount, name.c_str());
    mkdirs(location.c_str(), 0755);
    std::ofstream(location + "/" + file, std::ios::binary) << content;
    return location;
}

inline bool entryExists(const std::string& path) {
    struct stat st;
    return ::lstat(path.c_str(), &st) == 0;
}

inline time_t modificationTime(const std::string& path) {
    struct stat st;
    return ::stat(path.c_str(), &st) == 0 ? st.st_mtime : -1;
}

inline void setTimes(const std::string& path, time_t when) {
    struct utimbuf times {
        when, when
    };
    ::utime(path.c_str(), &times);
}

// The entries of a directory, without "." and "..".
inline std::set<std::string> entriesOf(const std::string& directory) {
    std::set<std::string> names;
    if (DIR* dir = ::opendir(directory.c_str())) {
        while (struct dirent* entry = ::readdir(dir)) {
            const std::string name = entry->d_name;
            if (name != "." && name != "..") names.insert(name);
        }
        ::closedir(dir);
    }
    return names;
}

// The entries of a mount directory other than its own files (config, fill files of the tmpfs
// fixture, lost+found): what resources have left behind.
inline std::set<std::string> hashLevelsOn(const std::string& mount) {
    std::set<std::string> names = entriesOf(mount);
    for (const char* own : {"repositorypart.cfg", "repositorypart.no", ".fill", "lost+found"})
        names.erase(own);
    return names;
}

inline std::string readFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    if (!in) return "<missing>";
    std::stringstream content;
    content << in.rdbuf();
    return content.str();
}
