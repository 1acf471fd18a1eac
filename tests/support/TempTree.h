#pragma once

#include <ftw.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <string>

// A fresh directory under /tmp, removed with everything below it when the scope ends (links are
// removed, never followed), even when the test fails:
//   TempTree tree; tree.write("a/b/file", "text"); tree.path("a/b")
class TempTree {
  public:
    TempTree() {
        char pattern[] = "/tmp/rh_tree_XXXXXX";
        if (mkdtemp(pattern) == nullptr) throw std::runtime_error("mkdtemp failed");
        root_ = pattern;
    }
    ~TempTree() {
        nftw(
            root_.c_str(),
            [](const char* p, const struct stat*, int, struct FTW*) { return ::remove(p), 0; }, 32,
            FTW_DEPTH | FTW_PHYS);
    }
    TempTree(const TempTree&) = delete;
    TempTree& operator=(const TempTree&) = delete;

    const std::string& root() const { return root_; }
    // root + "/" + relative (root itself for an empty text).
    std::string path(const std::string& relative) const {
        return relative.empty() ? root_ : root_ + "/" + relative;
    }

    // Creates the directory and its missing parents.
    std::string mkdir(const std::string& relative) const {
        std::string built = root_;
        std::stringstream parts(relative);
        for (std::string part; std::getline(parts, part, '/');) {
            if (part.empty()) continue;
            built += "/" + part;
            ::mkdir(built.c_str(), 0755);
        }
        return built;
    }

    // Writes a file, creating its directory first.
    std::string write(const std::string& relative, const std::string& content) const {
        const size_t slash = relative.rfind('/');
        if (slash != std::string::npos) mkdir(relative.substr(0, slash));
        std::ofstream(path(relative), std::ios::binary) << content;
        return path(relative);
    }

    // The whole content of a file, or "<missing>".
    static std::string read(const std::string& file) {
        std::ifstream in(file, std::ios::binary);
        if (!in) return "<missing>";
        std::stringstream content;
        content << in.rdbuf();
        return content.str();
    }

  private:
    std::string root_;
};
