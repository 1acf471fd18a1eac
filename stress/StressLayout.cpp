#include "StressLayout.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utime.h>

#include <algorithm>
#include <cerrno>
#include <fstream>
#include <sstream>

namespace stress {

namespace {

const char kAlphabet[] = "QWERTYUIOPASDFGHJKLZXCVBNM1234567890_";

uint64_t mix(uint64_t hash, const std::string& text) {
    for (unsigned char c : text) hash = (hash ^ c) * 1099511628211ull;
    return hash;
}

// The files of a resource: relative path and content.
std::vector<std::pair<std::string, std::string>> filesOf(const std::string& name,
                                                         unsigned generation) {
    std::vector<std::pair<std::string, std::string>> files;
    uint64_t seed = mix(1469598103934665603ull, name + "#" + std::to_string(generation));
    const char* paths[] = {"a", "b", "s/c"};
    for (const char* path : paths) {
        seed = seed * 6364136223846793005ull + 1442695040888963407ull;
        const size_t size = 512 + (seed >> 33) % (12 * 1024);
        std::string content = name + "#" + std::to_string(generation) + "#" + path + "\n";
        while (content.size() < size)
            content += static_cast<char>('a' + (content.size() + seed) % 26);
        files.emplace_back(path, content);
    }
    return files;
}

uint64_t digestBelow(const std::string& dir, const std::string& relative, uint64_t hash, bool* ok) {
    std::vector<std::string> names = entriesOf(dir);
    std::sort(names.begin(), names.end());
    for (const std::string& name : names) {
        const std::string path = dir + "/" + name;
        struct stat st;
        if (lstat(path.c_str(), &st) != 0) {
            *ok = false;
            continue;
        }
        const std::string rel = relative.empty() ? name : relative + "/" + name;
        if (S_ISDIR(st.st_mode)) {
            hash = digestBelow(path, rel, hash, ok);
        } else {
            std::ifstream in(path, std::ios::binary);
            std::stringstream content;
            content << in.rdbuf();
            hash = mix(mix(hash, rel + "\n"), content.str());
        }
    }
    return hash;
}

}  // namespace

std::string hashPrefix(const std::string& name) {
    uint32_t sums[6] = {0, 0, 0, 0, 0, 0};
    for (size_t i = 1; i <= name.size(); ++i) {
        const uint32_t c = static_cast<unsigned char>(name[i - 1]);
        for (uint32_t k = 0; k < 6; ++k) sums[k] += (i + k) * (i + k) * c;
    }
    std::string prefix;
    for (int k = 0; k < 6; ++k) {
        prefix += kAlphabet[(sums[k] & 0xff) % 37];
        if (k % 2 == 1) prefix += '/';
    }
    return prefix;
}

std::string locationOn(const std::string& mountPath, const std::string& name) {
    return mountPath + "/" + hashPrefix(name) + name;
}

bool writeResource(const std::string& location, const std::string& name, unsigned generation) {
    if (mkdir(location.c_str(), 0755) != 0 && errno != EEXIST) return false;
    for (const auto& [path, content] : filesOf(name, generation)) {
        const std::string file = location + "/" + path;
        const size_t slash = file.rfind('/');
        if (!makeDirs(file.substr(0, slash))) return false;
        const int fd = open(file.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        if (fd < 0) return false;
        size_t done = 0;
        while (done < content.size()) {
            const ssize_t n = write(fd, content.data() + done, content.size() - done);
            if (n <= 0) {
                const int error = errno;
                close(fd);
                errno = error;
                return false;
            }
            done += static_cast<size_t>(n);
        }
        if (close(fd) != 0) return false;
    }
    return true;
}

bool completeAcross(const std::vector<std::string>& places, const std::string& name,
                    unsigned generation) {
    for (const auto& [path, content] : filesOf(name, generation)) {
        bool found = false;
        for (const std::string& place : places) {
            std::ifstream in(place + "/" + path, std::ios::binary);
            if (!in) continue;
            std::stringstream text;
            text << in.rdbuf();
            if (text.str() == content) {
                found = true;
                break;
            }
        }
        if (!found) return false;
    }
    return true;
}

uint64_t expectedDigest(const std::string& name, unsigned generation) {
    auto files = filesOf(name, generation);
    std::sort(files.begin(), files.end());
    uint64_t hash = 1469598103934665603ull;
    // The directory "s" sorts between "a"/"b" and its file; walk order is by entry name, so
    // the digest follows the same order as digestOf: a, b, s/c.
    for (const auto& [path, content] : files) hash = mix(mix(hash, path + "\n"), content);
    return hash;
}

uint64_t digestOf(const std::string& dir) {
    bool ok = true;
    const uint64_t hash = digestBelow(dir, "", 1469598103934665603ull, &ok);
    return ok ? hash : 0;
}

std::set<std::string> readDirtyFile(const std::string& path) {
    std::set<std::string> names;
    std::ifstream in(path);
    for (std::string line; std::getline(in, line);) names.insert(line);
    return names;
}

std::vector<std::string> entriesOf(const std::string& dir) {
    std::vector<std::string> names;
    DIR* d = opendir(dir.c_str());
    if (d == nullptr) return names;
    while (dirent* e = readdir(d)) {
        const std::string name = e->d_name;
        if (name != "." && name != "..") names.push_back(name);
    }
    closedir(d);
    return names;
}

bool exists(const std::string& path) {
    struct stat st;
    return lstat(path.c_str(), &st) == 0;
}

void removeTree(const std::string& path) {
    struct stat st;
    if (lstat(path.c_str(), &st) != 0) return;
    if (S_ISDIR(st.st_mode)) {
        for (const std::string& name : entriesOf(path)) removeTree(path + "/" + name);
        rmdir(path.c_str());
    } else {
        unlink(path.c_str());
    }
}

bool makeDirs(const std::string& path) {
    for (size_t slash = path.find('/', 1);; slash = path.find('/', slash + 1)) {
        const std::string prefix = path.substr(0, slash);
        if (mkdir(prefix.c_str(), 0755) != 0 && errno != EEXIST) return false;
        if (slash == std::string::npos) return true;
    }
}

void setAge(const std::string& path, long when) {
    struct utimbuf times;
    times.actime = when;
    times.modtime = when;
    utime(path.c_str(), &times);
}

std::string hexName(const std::string& name) {
    static const char digits[] = "0123456789abcdef";
    std::string hex = "n";
    for (unsigned char c : name) {
        hex += digits[c >> 4];
        hex += digits[c & 15];
    }
    return hex;
}

}  // namespace stress
