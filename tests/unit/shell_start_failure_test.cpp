// A shell that cannot be started is an error, not an answer: a lookup whose information
// callback cannot run must not report "not present" (36) in authoritative mode, or the server
// would create a second copy of a resource that exists.

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cerrno>
#include <stdexcept>
#include <string>
#include <vector>

#include "ChildProcess.h"
#include "ScopedEnv.h"
#include "ScratchRepository.h"
#include "TaskdHome.h"
#include "TempTree.h"
#include "repohandler.h"

TEST(ShellStartFailure, aLookupOutOfFileDescriptorsThrowsInsteadOfAnsweringNotPresent) {
    TempTree locks;
    ScopedEnv lockEnv("LOCK_VAR", locks.root().c_str());
    TaskdHome taskd;  // answers nothing: the callback knows no such resource
    ScratchRepository repo;
    repo.addMount("p1");
    repo.writeConfig({{"isShared", "false"},
                      {"callback", "RepositoryStudyCallback"},
                      {"authoritativeMode", "true"}});
    const std::string path = repo.path();

    const int code = runInChild([&path] {
        int status = -1;
        char* found =
            getLocation_(path.c_str(), "study1", &status, false, false, true, false, nullptr);
        if (found != nullptr || status != 36) return 1;
        // Every descriptor below a low limit in use: popen() cannot make its pipe.
        struct rlimit limit;
        if (getrlimit(RLIMIT_NOFILE, &limit) != 0) return 2;
        limit.rlim_cur = 64;
        if (setrlimit(RLIMIT_NOFILE, &limit) != 0) return 2;
        std::vector<int> taken;
        for (int fd; (fd = dup(0)) >= 0;) taken.push_back(fd);
        if (errno != EMFILE) return 2;
        // The descriptors are given back before anything else is looked at: the sanitizers
        // need a pipe to inspect memory.
        auto giveBack = [&taken] {
            for (int fd : taken) close(fd);
        };
        try {
            status = -1;
            found =
                getLocation_(path.c_str(), "study1", &status, false, false, true, false, nullptr);
            giveBack();
            release(found);
            return status == 36 ? 3 : 4;
        } catch (const std::runtime_error& e) {
            giveBack();
            return std::string(e.what()) == "popen() failed!" ? 0 : 5;
        }
    });

    EXPECT_EQ(0, code) << "1: the first lookup did not ask the callback, 2: the descriptors "
                          "could not be used up, 3: answered not present, 4: answered another "
                          "status, 5: another error";
    EXPECT_EQ(1u, taskd.calls().size()) << "only the first lookup ran the callback";
}
