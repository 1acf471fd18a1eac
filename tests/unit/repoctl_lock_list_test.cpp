// Removing a stale lock file never removes a take of the lock that came after the listing: the
// holder released it and another process took it again, or it is gone already.

#include "RepoctlLockList.h"

#include <dirent.h>
#include <gtest/gtest.h>
#include <sys/time.h>
#include <unistd.h>

#include <fstream>
#include <memory>
#include <string>

#include "KSPathUtils.h"
#include "KSRepositoryHandler.h"
#include "ScopedEnv.h"
#include "TempTree.h"

namespace {

void makeFile(const std::string& path, long ageSeconds) {
    std::ofstream(path).close();
    const struct timeval t[2] = {{time(nullptr) - ageSeconds, 0}, {time(nullptr) - ageSeconds, 0}};
    ASSERT_EQ(utimes(path.c_str(), t), 0) << path;
}

int entries(const std::string& dir) {
    int count = 0;
    std::unique_ptr<DIR, int (*)(DIR*)> d(opendir(dir.c_str()), &closedir);
    while (dirent* e = readdir(d.get())) count += e->d_name[0] != '.';
    return count;
}

class RepoctlLockListRemoval : public ::testing::Test {
  protected:
    void SetUp() override {
        tree.mkdir("repo/p1");
        tree.write("repo/p1/repositorypart.cfg", "");
        tree.write("repo/repository.cfg", "isShared=false\nmountPoints=p1\n");
        std::unique_ptr<char[]> id(toResourceID(tree.path("repo").c_str(), "s1"));
        file = locks + "/semaphore_" + id.get();
        makeFile(file, 3600);
    }
    // The one lock of the repository as listed now.
    RepoctlLockList::Lock listed() {
        auto repo = getRepository(nullptr, tree.path("repo").c_str(), true);
        RepoctlLockList list(*repo);
        EXPECT_TRUE(list.load(nullptr)) << list.error();
        EXPECT_EQ(list.locks().size(), 1u);
        return list.locks().empty() ? RepoctlLockList::Lock() : list.locks()[0];
    }
    TempTree tree;
    std::string locks = tree.mkdir("locks");
    ScopedEnv lockVar{"LOCK_VAR", locks.c_str()};
    std::string file;
};

}  // namespace

TEST_F(RepoctlLockListRemoval, aLockTakenAgainAfterTheListingStays) {
    const RepoctlLockList::Lock lock = listed();
    ASSERT_EQ(unlink(file.c_str()), 0);  // released ...
    std::ofstream(file).close();         // ... and taken again, perhaps under the same inode
    std::string why;
    EXPECT_FALSE(RepoctlLockList::remove(lock, nullptr, why));
    EXPECT_EQ(why, "taken again meanwhile");
    EXPECT_EQ(access(file.c_str(), F_OK), 0);
    EXPECT_EQ(entries(locks), 1);  // nothing left aside
}

TEST_F(RepoctlLockListRemoval, aLockReleasedAfterTheListingIsReportedAndTheListedOneRemoved) {
    RepoctlLockList::Lock lock = listed();
    ASSERT_EQ(unlink(file.c_str()), 0);
    std::string why;
    EXPECT_FALSE(RepoctlLockList::remove(lock, nullptr, why));
    EXPECT_EQ(why, "released meanwhile");

    makeFile(file, 7200);
    lock = listed();
    EXPECT_TRUE(RepoctlLockList::remove(lock, nullptr, why)) << why;
    EXPECT_EQ(entries(locks), 0);
}
