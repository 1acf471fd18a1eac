#include <gtest/gtest.h>
#include <sys/statvfs.h>
#include <syslog.h>

#include <string>

#include "KSAssertionException.h"
#include "KSMountPointHandler.h"
#include "KSProperties.h"
#include "SyslogCapture.h"

TEST(MountFunctionsTest, statvfsFailuresAreLoggedAndAnsweredWith8) {
    SyslogCapture capture;
    struct statvfs out;
    EXPECT_EQ(myStatVfs("/nonexistent/mount", &out), 8);
    auto line = capture.findEqual(
        "Error occured while statvfs call to \"/nonexistent/mount\". Error code is 2 - No such "
        "file or directory");
    ASSERT_TRUE(line.has_value());
    EXPECT_EQ(line->priority, LOG_ERR);
    EXPECT_EQ(myStatVfs("/", &out), 0);
}

TEST(MountFunctionsTest, nullArgumentsOfTheFreeFunctionsThrowNamingTheParameter) {
    struct statvfs out;
    try {
        myStatVfs(nullptr, &out);
        FAIL() << "no exception";
    } catch (const KSAssertionException& e) {
        EXPECT_EQ(e.getMessage(), "null mountPath parameter in myStatVfs");
    }
    try {
        myStatVfs("/", nullptr);
        FAIL() << "no exception";
    } catch (const KSAssertionException& e) {
        EXPECT_EQ(e.getMessage(), "null resStatVfs parameter in myStatVfs");
    }
    EXPECT_THROW(exec(nullptr), KSAssertionException);
    long count = 0;
    EXPECT_THROW(blocksToFree("/", 50, nullptr, nullptr), KSAssertionException);
    EXPECT_EQ(blocksToFree(nullptr, 50, &count, nullptr), 1);
}

TEST(MountFunctionsTest, execReturnsTheWholeOutputOfLongLines) {
    EXPECT_EQ(exec("printf 'a\\nb\\n'"), "a\nb\n");
    const std::string line(1000, 'z');
    EXPECT_EQ(exec(("printf '%s' " + line).c_str()), line);
    EXPECT_EQ(exec("true"), "");
    EXPECT_EQ(exec("printf 'a\\000b'"), std::string("a\0b", 3)) << "bytes after a NUL stay";
}

TEST(MountFunctionsTest, aMountClaimsEveryPathItsPathIsATextualPrefixOf) {
    KSMountPointHandler mount("/data/p1", nullptr);
    EXPECT_TRUE(mount.isOnThisMount("/data/p1/AB/CD/EF/study"));
    EXPECT_TRUE(mount.isOnThisMount("/data/p10/x")) << "no check of a following slash";
    EXPECT_FALSE(mount.isOnThisMount("/data/p2/x"));
    EXPECT_FALSE(mount.isOnThisMount("/data"));
    EXPECT_FALSE(mount.isOnThisMount(nullptr));
}

TEST(MountFunctionsTest, configValuesAreParsedWithStrtodAndMissingKeysLogged) {
    SyslogCapture capture;
    KSProperties properties;
    properties.setProperty("limit", "87.5%");
    properties.setProperty("word", "high");
    EXPECT_EQ(getConfigValue(&properties, "limit"), 87.5);
    EXPECT_EQ(getConfigValue(&properties, "word"), 0.0);
    EXPECT_EQ(capture.countContaining("should not happen"), 0);
    EXPECT_EQ(getConfigValue(&properties, "absent"), 0.0);
    EXPECT_TRUE(capture.findEqual("absent is not found in getConfigValue() - should not happen")
                    .has_value());
}
