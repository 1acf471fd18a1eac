#include "ReliabilityFigures.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <vector>

std::string recordReliabilityFigures(const std::map<std::string, std::string>& figures) {
    const std::string directory = std::string(RH_TEST_SOURCE_DIR) + "/build";
    mkdir(directory.c_str(), 0755);
    const std::string file = directory + "/reliability.txt";
    // Measurements running at the same time take turns, so that none loses another's lines.
    const int guard = open((file + ".lock").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
    if (guard < 0 || flock(guard, LOCK_EX) != 0) return "cannot lock " + file + ".lock";
    struct Closer {
        int fd;
        ~Closer() { close(fd); }
    } closer{guard};
    std::vector<std::string> kept;
    std::ifstream in(file);
    for (std::string line; std::getline(in, line);) {
        const std::string name = line.substr(0, line.find(':'));
        if (figures.count(name) == 0) kept.push_back(line);
    }
    const std::string beside = file + ".new." + std::to_string(getpid());
    {
        std::ofstream out(beside, std::ios::trunc);
        for (const std::string& line : kept) out << line << "\n";
        for (const auto& figure : figures) out << figure.first << ": " << figure.second << "\n";
        if (!out.flush()) return "cannot write " + beside;
    }
    if (rename(beside.c_str(), file.c_str()) != 0) return "cannot replace " + file;
    return std::string();
}
