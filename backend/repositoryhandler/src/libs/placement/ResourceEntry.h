#pragma once

// A candidate for moving or deleting: one resource directory with its age.

#include <cstdint>
#include <cstring>
#include <set>
#include <string>

struct ResourceEntry {
    std::string path;          // mount path + "/" + relative path
    std::string relativePath;  // hash levels and name, below the mount
    std::string name;          // the resource's short name
    int64_t time = 0;          // later of last access and last modification (seconds)
};

// Oldest first; equal times in descending path order. Same time and path: one entry.
struct ltres {
    bool operator()(const ResourceEntry& a, const ResourceEntry& b) const {
        if (a.time != b.time) return a.time < b.time;
        return std::strcmp(a.path.c_str(), b.path.c_str()) > 0;
    }
};

using ResourceSet = std::set<ResourceEntry, ltres>;
