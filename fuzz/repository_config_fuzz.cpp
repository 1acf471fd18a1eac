// repository.cfg and its additional repository.NN.*.cfg files, read by a repository handler.
// The input is split at lines "%%" into the main file and up to three additional ones. The
// handler must load them without a crash or undefined behaviour, whatever they hold, and a
// handler that loaded the previous input and is set up again in place must end with exactly
// the settings and mounts of a handler made fresh (nothing of the earlier files may linger).

#include <sys/stat.h>
#include <unistd.h>

#include <cstdint>
#include <string>
#include <vector>

#include "FuzzScratch.h"
#include "KSMountPointHandler.h"
#include "KSRepositoryHandler.h"

namespace {

std::vector<std::string> splitFiles(const std::string& text) {
    std::vector<std::string> files;
    size_t start = 0;
    while (files.size() < 3) {
        const size_t mark = text.find("\n%%\n", start);
        if (mark == std::string::npos) break;
        files.push_back(text.substr(start, mark - start + 1));
        start = mark + 4;
    }
    files.push_back(text.substr(start));
    return files;
}

std::string extraFile(const std::string& dir, int i) {
    return dir + "/repository.1" + std::to_string(i) + ".extra.cfg";
}

std::string describe(const KSRepositoryHandler& handler) {
    const KSRepositoryHandler::Settings& s = handler.settings();
    std::string text = s.legacyDir + "|" + s.resolver + "|" + s.callback;
    for (double v : {s.remindLimit, s.warnLimit, s.warn2Limit, s.warn3Limit, s.switchLimit,
                     s.fullLimit, s.cleanLimit, s.moveLimit, s.hardFullLimit}) {
        text += "|" + std::to_string(v);
    }
    for (long long v :
         {static_cast<long long>(s.numThreads), static_cast<long long>(s.nomoveTime),
          static_cast<long long>(s.warnmoveTime), static_cast<long long>(s.moveTime)}) {
        text += "|" + std::to_string(v);
    }
    for (bool v : {s.maintainLegacyLinks, s.followLegacyLinks, s.isClearable, s.isClearableMove,
                   s.isShared, s.countSize, s.authoritativeMode, s.forceDedicated}) {
        text += v ? "|1" : "|0";
    }
    for (const auto& mount : handler.mounts()) text += "|mount " + mount->path();
    return text;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static FuzzScratch scratch;
    // The handler that is set up again in place for every input, still holding the last one.
    static KSRepositoryHandler* reused = nullptr;
    static const std::string dir = scratch.path("repo");
    static const bool made = mkdir(dir.c_str(), 0755) == 0;
    FUZZ_CHECK(made, "cannot make %s", dir.c_str());
    for (int i = 1; i <= 3; ++i) unlink(extraFile(dir, i).c_str());
    const std::vector<std::string> files =
        splitFiles(std::string(reinterpret_cast<const char*>(data), size));
    FuzzScratch::write(dir + "/repository.cfg", files[0].data(), files[0].size());
    for (size_t i = 1; i < files.size(); ++i) {
        FuzzScratch::write(extraFile(dir, static_cast<int>(i)), files[i].data(), files[i].size());
    }

    KSRepositoryHandler fresh(nullptr, dir.c_str());
    if (reused == nullptr) {
        reused = new KSRepositoryHandler(nullptr, dir.c_str());
    } else {
        reused->setup(nullptr, dir.c_str());
    }
    const std::string expected = describe(fresh), actual = describe(*reused);
    FUZZ_CHECK(expected == actual, "set up again: %s\nfresh: %s", actual.c_str(), expected.c_str());
    return 0;
}
