// The hash, the hashed form of names and paths, and the string helpers of the layout.

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "KSPathUtils.h"
#include "WorkingDirectory.h"
#include "repohandler.h"

namespace {

struct ArrayDeleter {
    void operator()(char* p) const { delete[] p; }
};
using Text = std::unique_ptr<char[], ArrayDeleter>;

// The text of a new[] result, or "<null>".
std::string take(char* result) {
    Text owned(result);
    return owned ? std::string(owned.get()) : std::string("<null>");
}

std::string normalized(const char* path) {
    std::unique_ptr<char, decltype(&free)> owned(normalize_file_name(path), &free);
    return owned ? std::string(owned.get()) : std::string("<null>");
}

std::string cwd() {
    char buffer[4096];
    return getcwd(buffer, sizeof(buffer)) ? buffer : "";
}

struct HashCase {
    const char* name;
    const char* expected;
};

TEST(LayoutHash, createHashPlacesTheNameBehindItsThreeLevelPrefix) {
    const HashCase cases[] = {
        {"a", "BC/6J/AJ/a"},   {"study1", "SH/D_/Z4/study1"},
        {"AB", "_D/6Z/FF/AB"}, {"1.2.3.4.5", "LB/28/WO/1.2.3.4.5"},
        {"", "QQ/QQ/QQ/"},
    };
    for (const HashCase& c : cases) {
        EXPECT_EQ(take(createHash(c.name)), c.expected) << "name '" << c.name << "'";
    }
}

// The hash as described, one running sum per level, for names the worked examples miss.
std::string referencePrefix(const std::string& name) {
    static const char table[] = "QWERTYUIOPASDFGHJKLZXCVBNM1234567890_";
    uint32_t sums[6] = {};
    for (size_t i = 1; i <= name.size(); ++i) {
        for (uint32_t k = 0; k < 6; ++k) {
            sums[k] += (static_cast<uint32_t>(i) + k) * (static_cast<uint32_t>(i) + k) *
                       static_cast<unsigned char>(name[i - 1]);
        }
    }
    std::string prefix;
    for (int k = 0; k < 6; ++k) {
        prefix += table[(sums[k] & 0xFF) % 37];
        if (k % 2 == 1) prefix += '/';
    }
    return prefix;
}

TEST(LayoutHash, createHashMatchesTheSixSumsForHighBytesAndLongNames) {
    std::vector<std::string> names = {"\xc3\xa9t\xc3\xa9", std::string(100000, '\xff'),
                                      std::string(70000, 'z') + "tail"};
    uint32_t seed = 12345;
    for (int n = 0; n < 300; ++n) {
        std::string name;
        for (int i = 0; i < n; ++i) {
            seed = seed * 1103515245u + 12345u;
            name += static_cast<char>((seed >> 16) % 255 + 1);
        }
        names.push_back(name);
    }
    for (const std::string& name : names) {
        ASSERT_EQ(take(createHash(name.c_str())), referencePrefix(name) + name)
            << "name of " << name.size() << " bytes";
    }
}

struct ConvertCase {
    const char* path;
    bool hashLast;
    const char* expected;
};

TEST(LayoutHash, convertToHashedHashesEveryDirectoryComponent) {
    const ConvertCase cases[] = {
        {"study1/", false, "SH/D_/Z4/study1/"},
        {"/study1//", false, "SH/D_/Z4/study1/"},
        {"study1", false, "study1"},
        {"study1", true, "SH/D_/Z4/study1"},
        {"a/study1/", false, "BC/6J/AJ/a/SH/D_/Z4/study1/"},
        {"study1/a", true, "SH/D_/Z4/study1/BC/6J/AJ/a"},
        {"study1/a", false, "SH/D_/Z4/study1/a"},
        {"", true, ""},
        {"///", false, ""},
    };
    for (const ConvertCase& c : cases) {
        EXPECT_EQ(take(convertToHashed_(c.path, c.hashLast)), c.expected)
            << "path '" << c.path << "' hashLast " << c.hashLast;
        EXPECT_EQ(take(convertToHashed(c.path, c.hashLast)), c.expected) << "exported name";
    }
}

TEST(LayoutHash, resourceLocationJoinsMountAndHashedDirectoryWithoutTrailingSlash) {
    EXPECT_EQ(resourceLocation("/m/p1", "study1"), "/m/p1/SH/D_/Z4/study1");
    EXPECT_EQ(resourceLocation("/m/p1", "study1/"), "/m/p1/SH/D_/Z4/study1");
}

TEST(LayoutHash, onlySinglePlainComponentsAreSafeResourceNames) {
    EXPECT_TRUE(isSafeResourceName("1.2.840.113619"));
    EXPECT_TRUE(isSafeResourceName("..."));
    EXPECT_TRUE(isSafeResourceName(".hidden"));
    EXPECT_TRUE(isSafeResourceName(".rh-partial"));
    for (const char* bad : {"", ".", "..", "a/b", "/a", "a/", "../etc", ".rh-partial.study1"}) {
        EXPECT_FALSE(isSafeResourceName(bad)) << bad;
    }
    EXPECT_FALSE(isSafeResourceName(nullptr));
}

struct DirCase {
    const char* path;
    const char* base;
    const char* parent;
};

TEST(LayoutHash, baseDirAndParentDirCutAtSlashes) {
    const DirCase cases[] = {
        {"a/b/c", "a/b/", "a/"},
        {"a/b/", "a/b/", "a/"},
        {"a/", "a/", "<null>"},
        {"/x", "/", "<null>"},
        {"/", "/", "<null>"},
        {"study1", "<null>", "<null>"},
        {"/m/AB/CD/", "/m/AB/CD/", "/m/AB/"},
    };
    for (const DirCase& c : cases) {
        EXPECT_EQ(take(baseDir(c.path)), c.base) << c.path;
        EXPECT_EQ(take(parentDir(c.path)), c.parent) << c.path;
    }
    EXPECT_EQ(take(baseDir(nullptr)), "<null>");
    EXPECT_EQ(take(parentDir(nullptr)), "<null>");
}

TEST(LayoutHash, normalizeFileNameResolvesDotsLexically) {
    EXPECT_EQ(normalized("/a/./b/../../.."), "/");
    EXPECT_EQ(normalized("/a//b/"), "/a/b");
    EXPECT_EQ(normalized("/a/b/../c"), "/a/c");
    EXPECT_EQ(normalized("/"), "/");
    EXPECT_EQ(normalized("rel/x"), cwd() + "/rel/x");
    EXPECT_EQ(normalized(""), cwd());
    EXPECT_EQ(normalized(nullptr), "<null>");

    WorkingDirectory root("/");
    EXPECT_EQ(normalized("rel/x"), "/rel/x") << "no doubled slash below the root";
    EXPECT_EQ(normalized(""), "/");
}

TEST(LayoutHash, toResourceIdReplacesSlashesInBothParts) {
    EXPECT_EQ(take(toResourceID("main", "1.2.3/4")), "KSRepositoryHandler-main-1.2.3_4");
    EXPECT_EQ(take(toResourceID("/data/repo", "s")), "KSRepositoryHandler-_data_repo-s");
}

}  // namespace
