// The take-over of a resource found only in the legacy directory copies the entry (or the target
// of its legacy link) onto a mount and deletes it. Only what can be the resource's old
// directory is taken over; a link that leads anywhere else is refused with 8 and the place it
// leads to is left untouched.

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <memory>
#include <string>

#include "KSPathUtils.h"
#include "ResourceFiles.h"
#include "ScopedEnv.h"
#include "ScratchRepository.h"
#include "SyslogCapture.h"
#include "TempTree.h"
#include "TmpfsMount.h"
#include "repohandler.h"

namespace {

class LegacyTakeOver : public ::testing::Test {
  protected:
    void SetUp() override {
        const ScratchRepository::Keys roomy = {{"switchLimit", "100"},
                                               {"fullLimit", "100"},
                                               {"cleanLimit", "100"},
                                               {"moveLimit", "100"},
                                               {"hardFullLimit", "100"}};
        repo_.addMount("p1", roomy);
        repo_.addMount("p2", roomy);
        repo_.writeConfig(
            {{"isShared", "false"}, {"legacyDir", legacyDir_}, {"followLegacyLinks", "true"}});
    }
    // The legacy link of `resource`, pointing at `target`.
    void link(const std::string& resource, const std::string& target) {
        ASSERT_EQ(0, symlink(target.c_str(), (legacyDir_ + "/" + resource).c_str()));
    }
    // A directory `path` holding one file, so that a deletion would show.
    static void makeOldDirectory(const TempTree& tree, const std::string& relative) {
        tree.write(relative + "/image", "pixels");
    }
    // Looks `resource` up; the take-over happens here.
    int lookup(const std::string& resource, std::string* found = nullptr) {
        int status = -1;
        char* location = getLocation_(repo_.path().c_str(), resource.c_str(), &status, false, true,
                                      false, false, nullptr);
        if (found != nullptr) *found = location != nullptr ? location : "";
        release(location);
        return status;
    }
    // The lookup is refused with 8, one error line, and `kept` still holds its file.
    void expectRefused(const std::string& resource, const std::string& kept) {
        SyslogCapture log;
        std::string found;
        EXPECT_EQ(8, lookup(resource, &found)) << resource;
        EXPECT_EQ("", found);
        EXPECT_EQ(
            1, log.countContaining("which cannot be the old directory of the resource " + resource))
            << resource;
        EXPECT_EQ("pixels", readFile(kept + "/image")) << kept;
        EXPECT_TRUE(entryExists(legacyDir_ + "/" + resource)) << "the legacy link stays";
        for (size_t i = 0; i < 2; ++i)
            EXPECT_FALSE(entryExists(resourceLocation(repo_.mountPath(i), resource.c_str())));
    }

    TempTree locks_, legacy_, elsewhere_;
    ScopedEnv lockEnv_{"LOCK_VAR", locks_.root().c_str()};
    std::string legacyDir_ = legacy_.mkdir("legacy");
    ScratchRepository repo_;
};

}  // namespace

TEST_F(LegacyTakeOver, anOldDirectoryNamedAfterTheResourceIsMovedOntoAMount) {
    makeOldDirectory(elsewhere_, "old/study1");
    link("study1", elsewhere_.path("old/study1"));
    makeOldDirectory(legacy_, "legacy/study2");  // a real directory in the legacy directory

    std::string found;
    EXPECT_EQ(0, lookup("study1", &found));
    EXPECT_EQ(resourceLocation(repo_.mountPath(0), "study1"), found);
    EXPECT_EQ("pixels", readFile(found + "/image"));
    EXPECT_FALSE(entryExists(elsewhere_.path("old/study1")));
    EXPECT_FALSE(entryExists(legacyDir_ + "/study1")) << "the followed link is removed";

    EXPECT_EQ(0, lookup("study2", &found));
    EXPECT_EQ("pixels", readFile(found + "/image"));
    EXPECT_FALSE(entryExists(legacyDir_ + "/study2"));
}

TEST_F(LegacyTakeOver, aLinkToADirectoryOfAnotherNameIsRefused) {
    makeOldDirectory(elsewhere_, "home");
    link("study1", elsewhere_.path("home"));
    expectRefused("study1", elsewhere_.path("home"));
}

TEST_F(LegacyTakeOver, aLinkToAFileSystemsMountDirectoryIsRefused) {
    RH_REQUIRE_MOUNTS();
    elsewhere_.mkdir("disks");
    TmpfsMount disk(64 * 4096, 100, elsewhere_.path("disks/study1"));
    makeOldDirectory(elsewhere_, "disks/study1");
    link("study1", disk.path());
    expectRefused("study1", disk.path());
}

TEST_F(LegacyTakeOver, aLinkToTheRepositoryOrAMountOrAnythingAboveThemIsRefused) {
    const std::string repository = repo_.path();
    const std::string repositoryName = repository.substr(repository.rfind('/') + 1);
    repo_.writeFile("image", "pixels");
    link(repositoryName, repository);
    expectRefused(repositoryName, repository);

    repo_.writeFile("p2/image", "pixels");
    link("p2", repo_.mountPath(1));
    expectRefused("p2", repo_.mountPath(1));

    // A directory above the legacy directory.
    legacy_.write("image", "pixels");
    const std::string above = legacy_.root();
    const std::string aboveName = above.substr(above.rfind('/') + 1);
    link(aboveName, above);
    expectRefused(aboveName, above);
}

TEST_F(LegacyTakeOver, aLinkIntoAMountOtherThanTheResourcesOwnLocationIsRefused) {
    // On the mount, but not at its hashed place.
    ASSERT_EQ(0, mkdir((repo_.mountPath(0) + "/study1").c_str(), 0755));
    repo_.writeFile("p1/study1/image", "pixels");
    link("study1", repo_.mountPath(0) + "/study1");
    expectRefused("study1", repo_.mountPath(0) + "/study1");
}

TEST_F(LegacyTakeOver, aLinkToAFileOrAFileInTheLegacyDirectoryIsRefused) {
    elsewhere_.write("files/study1", "pixels");
    link("study1", elsewhere_.path("files/study1"));
    SyslogCapture log;
    EXPECT_EQ(8, lookup("study1"));
    EXPECT_EQ("pixels", readFile(elsewhere_.path("files/study1")));

    legacy_.write("legacy/study2", "pixels");
    EXPECT_EQ(8, lookup("study2"));
    EXPECT_EQ("pixels", readFile(legacyDir_ + "/study2"));
    EXPECT_EQ(2, log.countContaining("(it is not a directory); it is left untouched."));
}
