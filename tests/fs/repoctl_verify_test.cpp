// repoctl verify on real tmpfs mounts: each kind of damage a test inflicts is found, and only
// that; --repair settles what the library may and leaves the rest; hostile names run nothing
// and lose nothing; usage errors.

#include <errno.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <fstream>
#include <functional>
#include <memory>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "JsonValue.h"
#include "KSPartialCopy.h"
#include "KSPathUtils.h"
#include "RepoctlRun.h"
#include "ResourceFiles.h"
#include "ScopedEnv.h"
#include "ScratchRepository.h"
#include "TempTree.h"
#include "WorkingDirectory.h"
#include "repohandler.h"

namespace {

constexpr time_t kTwoDays = 2 * 86400;

// A healthy repository of two tmpfs mounts with everything verify must leave alone: resources
// on each mount, a dirty resource on one mount and one whose move stopped after an identical
// copy, a legacy link to a resource, a fresh lock of the repository, an old lock of another
// repository, and a level reserved by createLocation_ for a resource not yet created.
class Scene {
  public:
    Scene() : lockEnv_("LOCK_VAR", locks.root().c_str()) {
        repo.addTmpfsMount("p1", 256 * TmpfsMount::kBlockSize, 4096);
        repo.addTmpfsMount("p2", 256 * TmpfsMount::kBlockSize, 4096);
        writeConfig({});
        putResource(mount(0), "healthy1");
        putResource(mount(1), "healthy2");
        putResource(mount(1), "moving");
        putResource(mount(0), "copied", "f", "same");
        putResource(mount(1), "copied", "f", "same");
        dirty = {"copied", "moving"};
        writeDirty();
        EXPECT_EQ(symlink(resourceLocation(mount(0), "healthy1").c_str(),
                          legacy.path("healthy1").c_str()),
                  0);
        lockFile(ownLockId("healthy2"), 0);
        lockFile("KSRepositoryHandler-_elsewhere_repo-old", kTwoDays);
        int status = -1, existed = -1;
        char* reserved =
            createLocation_(repo.path().c_str(), "reserved", &status, &existed, false, nullptr);
        EXPECT_NE(reserved, nullptr);
        if (reserved != nullptr) reservedLocation = reserved;
        release(reserved);
    }

    std::string mount(size_t i) const { return repo.mountPath(i); }
    void writeConfig(ScratchRepository::Keys extra) {
        ScratchRepository::Keys keys{{"isShared", "false"}, {"legacyDir", legacy.root()}};
        keys.insert(keys.end(), extra.begin(), extra.end());
        repo.writeConfig(keys);
    }
    void writeDirty() const {
        std::string text;
        for (const std::string& name : dirty) text += name + "\n";
        repo.writeFile(".dirty", text);
    }
    std::string ownLockId(const std::string& name) const {
        std::unique_ptr<char[]> id(toResourceID(repo.path().c_str(), name.c_str()));
        return id.get();
    }
    std::string lockFile(const std::string& id, time_t age) const {
        const std::string path = locks.path("semaphore_" + id);
        std::ofstream(path).flush();
        setTimes(path, time(nullptr) - age);
        return path;
    }
    RepoctlRun verify(std::vector<std::string> options = {}) const {
        std::vector<std::string> arguments{"verify", repo.path()};
        arguments.insert(arguments.end(), options.begin(), options.end());
        return runRepoctl(arguments, {{"LOCK_VAR", locks.root()}});
    }

    TempTree legacy;
    TempTree locks;
    TempTree outside;
    ScratchRepository repo;
    std::set<std::string> dirty;
    std::string reservedLocation;  // handed out by createLocation_, not created yet

  private:
    ScopedEnv lockEnv_;
};

JsonValue parsed(const RepoctlRun& run) {
    JsonValue document;
    std::string error;
    EXPECT_TRUE(JsonValue::parse(run.out, document, error)) << error << "\n" << run.out;
    return document;
}

// The findings of a document as "kind name" texts.
std::multiset<std::string> findingsOf(const JsonValue& document) {
    std::multiset<std::string> found;
    for (const JsonValue& finding : document["findings"].array())
        found.insert(finding["kind"].string() + " " + finding["name"].string());
    return found;
}

const JsonValue* findingNamed(const JsonValue& document, const std::string& kind,
                              const std::string& name) {
    for (const JsonValue& finding : document["findings"].array()) {
        if (finding["kind"].string() == kind && finding["name"].string() == name) return &finding;
    }
    return nullptr;
}

// "stray" hashes to another prefix than QQ/QQ/QQ.
std::string putMisplaced(const std::string& mount) {
    const std::string directory = mount + "/QQ/QQ/QQ/stray";
    mkdirs(directory.c_str(), 0755);
    std::ofstream(directory + "/f") << "data";
    return directory;
}

struct Damage {
    const char* what;
    std::string expected;  // "kind name"
    std::function<void(Scene&)> inflict;
};

std::vector<Damage> damages() {
    return {
        {"a resource on two mounts, not dirty", "duplicate twice",
         [](Scene& s) {
             putResource(s.mount(0), "twice");
             putResource(s.mount(1), "twice");
         }},
        {"a dirty name that exists nowhere", "staleDirty ghost",
         [](Scene& s) {
             s.dirty.insert("ghost");
             s.writeDirty();
         }},
        {"a resource under another name's prefix", "misplaced stray",
         [](Scene& s) { putMisplaced(s.mount(0)); }},
        {"a directory named unlike a hash level", "misplaced lower",
         [](Scene& s) { mkdirs((s.mount(1) + "/AB/lower/CD").c_str(), 0755); }},
        {"empty hash levels", "emptyHashLevel ",
         [](Scene& s) { mkdirs((s.mount(1) + "/AA/BB/CC").c_str(), 0755); }},
        {"a file where a hash level belongs", "notDirectory ",
         [](Scene& s) { std::ofstream(s.mount(0) + "/AB") << "x"; }},
        {"a file where a resource directory belongs", "notDirectory plain",
         [](Scene& s) {
             const std::string location = resourceLocation(s.mount(1), "plain");
             std::unique_ptr<char[]> levels(baseDir(location.c_str()));
             mkdirs(levels.get(), 0755);
             std::ofstream(location) << "x";
         }},
        {"a legacy link to nothing", "danglingLink gone",
         [](Scene& s) {
             ASSERT_EQ(symlink("/nonexistent/gone", s.legacy.path("gone").c_str()), 0);
         }},
        {"a legacy link out of the mounts", "foreignLink away",
         [](Scene& s) {
             s.outside.write("away/f", "kept");
             ASSERT_EQ(symlink(s.outside.path("away").c_str(), s.legacy.path("away").c_str()), 0);
         }},
        {"a legacy link to another resource", "foreignLink moving",
         [](Scene& s) {
             ASSERT_EQ(symlink(resourceLocation(s.mount(0), "healthy1").c_str(),
                               s.legacy.path("moving").c_str()),
                       0);
         }},
        {"an old lock file", "staleLockFile " + std::string(),
         [](Scene& s) { s.lockFile(s.ownLockId("held"), kTwoDays); }},
        {"an interrupted copy", "partialCopy halfway",
         [](Scene& s) {
             putResource(s.mount(0), "halfway", "f1", std::string(5000, 'a'));
             putResource(s.mount(0), "halfway", "f2", "second");
             putResource(s.mount(1), "halfway", "f1", std::string(1000, 'a'));
             s.dirty.insert("halfway");
             s.writeDirty();
         }},
        {"a copy staged by a killed move", "partialCopy staged1",
         [](Scene& s) {
             const std::string staged = partialCopyPath(resourceLocation(s.mount(1), "staged1"));
             mkdirs(staged.c_str(), 0755);
             std::ofstream(staged + "/f1") << "half";
         }},
        {"a move interrupted between two files", "partialCopy between",
         [](Scene& s) {
             putResource(s.mount(0), "between", "f1", "first");
             putResource(s.mount(0), "between", "f2", "second");
             putResource(s.mount(1), "between", "f1", "first");
             s.dirty.insert("between");
             s.writeDirty();
         }},
        {"a lock under another path naming a resource here", "lockScope " + std::string(),
         [](Scene& s) { s.lockFile("KSRepositoryHandler-_srv_elsewhere-healthy1", 0); }},
        {"a lock by path while the repository is locked by repositoryId", "lockScope ",
         [](Scene& s) {
             s.writeConfig({{"repositoryId", "archive-1"}});
         }},
    };
}

}  // namespace

TEST(RepoctlVerify, aHealthyRepositoryIsCleanAndItsResourcesKeepTheirAccessTimes) {
    RH_REQUIRE_MOUNTS();
    Scene scene;
    const std::string healthy = resourceLocation(scene.mount(0), "healthy1");
    std::unique_ptr<char[]> hashed(createHash("healthy1"));
    const std::string level = scene.mount(0) + "/" + std::string(hashed.get(), 8);
    setTimes(healthy, time(nullptr) - 10 * 86400);
    setTimes(level, time(nullptr) - 10 * 86400);
    struct stat before, levelBefore;
    ASSERT_EQ(stat(healthy.c_str(), &before), 0);
    ASSERT_EQ(stat(level.c_str(), &levelBefore), 0);

    const RepoctlRun text = scene.verify();
    EXPECT_EQ(text.code, 0) << text.out << text.err;
    EXPECT_NE(text.out.find("\nclean\n"), std::string::npos) << text.out;

    const RepoctlRun run = scene.verify({"--json"});
    EXPECT_EQ(run.code, 0) << run.out << run.err;
    EXPECT_EQ(run.err, "");
    const JsonValue document = parsed(run);
    EXPECT_TRUE(document["clean"].boolean());
    EXPECT_EQ(document["findings"].size(), 0u) << run.out;
    EXPECT_EQ(document["checked"]["mounts"].number(), 2);
    EXPECT_EQ(document["checked"]["resources"].number(), 5);
    EXPECT_EQ(document["checked"]["dirtyNames"].number(), 2);
    EXPECT_EQ(document["checked"]["lockFiles"].number(), 1) << "the other repository's is not";

    struct stat after, levelAfter;
    ASSERT_EQ(stat(healthy.c_str(), &after), 0);
    ASSERT_EQ(stat(level.c_str(), &levelAfter), 0);
    EXPECT_EQ(after.st_atime, before.st_atime) << "verify read the resource's directory";
    EXPECT_EQ(levelAfter.st_atime, levelBefore.st_atime) << "verify read the hash level";
}

TEST(RepoctlVerify, eachKindOfDamageIsFoundAndNothingElse) {
    RH_REQUIRE_MOUNTS();
    for (const Damage& damage : damages()) {
        SCOPED_TRACE(damage.what);
        Scene scene;
        damage.inflict(scene);
        const RepoctlRun run = scene.verify({"--json"});
        EXPECT_EQ(run.code, 1) << run.out << run.err;
        const JsonValue document = parsed(run);
        const std::multiset<std::string> found = findingsOf(document);
        ASSERT_EQ(found.size(), 1u) << run.out;
        const std::string kind = damage.expected.substr(0, damage.expected.find(' '));
        const std::string name = damage.expected.substr(kind.size() + 1);
        EXPECT_EQ(document["findings"][0]["kind"].string(), kind) << run.out;
        if (!name.empty()) {
            EXPECT_EQ(document["findings"][0]["name"].string(), name) << run.out;
        }
        EXPECT_EQ(document["found"]["total"].number(), 1);
        EXPECT_EQ(document["found"][kind].number(), 1);
        EXPECT_FALSE(document["clean"].boolean());
    }
}

TEST(RepoctlVerify, oldLocksAreStaleOnlyBeyondTheGivenAge) {
    RH_REQUIRE_MOUNTS();
    Scene scene;
    scene.lockFile(scene.ownLockId("hourOld"), 3600);
    EXPECT_EQ(scene.verify({"--json"}).code, 0) << "younger than the default day";
    const RepoctlRun run = scene.verify({"--older-than", "30m", "--json"});
    EXPECT_EQ(run.code, 1);
    const JsonValue document = parsed(run);
    ASSERT_EQ(document["findings"].size(), 1u) << run.out;
    EXPECT_EQ(document["findings"][0]["name"].string(), scene.ownLockId("hourOld"));
    EXPECT_GE(document["findings"][0]["ageSeconds"].number(), 3600);
    EXPECT_EQ(document["olderThanSeconds"].number(), 1800);
    EXPECT_EQ(scene.verify({"--older-than=2h"}).code, 0);
}

TEST(RepoctlVerify, repairSettlesWhatTheLibraryMayAndLeavesTheRest) {
    RH_REQUIRE_MOUNTS();
    Scene scene;
    for (const Damage& damage : damages()) {
        if (damage.expected.rfind("lockScope", 0) != 0) damage.inflict(scene);
    }
    putResource(scene.mount(0), "twice", "g", "only on the first");
    ASSERT_EQ(symlink("/nonexistent/twice", scene.legacy.path("twice").c_str()), 0);

    const RepoctlRun run = scene.verify({"--repair", "--json"});
    EXPECT_EQ(run.code, 1) << "found, even when repaired";
    const JsonValue document = parsed(run);
    auto repaired = [&](const std::string& kind, const std::string& name) {
        const JsonValue* finding = findingNamed(document, kind, name);
        EXPECT_NE(finding, nullptr) << kind << " " << name << "\n" << run.out;
        return finding != nullptr && (*finding)["repair"]["done"].boolean();
    };
    EXPECT_TRUE(repaired("duplicate", "twice"));
    EXPECT_TRUE(repaired("staleDirty", "ghost"));
    EXPECT_TRUE(repaired("emptyHashLevel", ""));
    EXPECT_TRUE(repaired("foreignLink", "moving"));
    EXPECT_TRUE(repaired("danglingLink", "twice"));
    EXPECT_FALSE(repaired("danglingLink", "gone"));
    EXPECT_FALSE(repaired("foreignLink", "away"));
    EXPECT_TRUE(repaired("partialCopy", "between"));
    EXPECT_FALSE(repaired("partialCopy", "halfway"));
    EXPECT_EQ(document["repaired"].number(), 6) << run.out;

    // Merged onto the last mount, with every file of both copies.
    const std::string merged = resourceLocation(scene.mount(1), "twice");
    EXPECT_FALSE(entryExists(resourceLocation(scene.mount(0), "twice")));
    EXPECT_EQ(readFile(merged + "/g"), "only on the first");
    EXPECT_EQ(readFile(merged + "/f"), "data");
    const std::string between = resourceLocation(scene.mount(1), "between");
    EXPECT_EQ(readFile(between + "/f1") + readFile(between + "/f2"), "firstsecond");
    EXPECT_FALSE(entryExists(resourceLocation(scene.mount(0), "between")));
    EXPECT_EQ(readFile(scene.repo.path() + "/.dirty"), "copied\nhalfway\nmoving\n");
    char target[4096] = {};
    ASSERT_GT(readlink(scene.legacy.path("twice").c_str(), target, sizeof target - 1), 0);
    EXPECT_EQ(std::string(target), merged);
    EXPECT_FALSE(entryExists(scene.mount(1) + "/AA"));
    std::unique_ptr<char[]> reservedLevel(baseDir(scene.reservedLocation.c_str()));
    EXPECT_TRUE(entryExists(reservedLevel.get())) << "a reserved level was removed";

    // What is left is exactly what verify may not touch, and nothing of it is gone.
    EXPECT_EQ(readFile(scene.outside.path("away/f")), "kept");
    EXPECT_EQ(readFile(scene.mount(0) + "/QQ/QQ/QQ/stray/f"), "data");
    EXPECT_EQ(readFile(resourceLocation(scene.mount(0), "halfway") + "/f2"), "second");
    EXPECT_TRUE(entryExists(resourceLocation(scene.mount(1), "halfway") + "/f1"));
    const RepoctlRun after = scene.verify({"--json"});
    EXPECT_EQ(after.code, 1);
    EXPECT_EQ(
        findingsOf(parsed(after)),
        (std::multiset<std::string>{"misplaced stray", "misplaced lower", "notDirectory ",
                                    "notDirectory plain", "danglingLink gone", "foreignLink away",
                                    "staleLockFile " + scene.ownLockId("held"),
                                    "partialCopy halfway", "partialCopy staged1"}))
        << after.out;
}

TEST(RepoctlVerify, aDeadMountIsNotWalkedAndNoDirtyNameIsCalledStaleWhileItIsDead) {
    RH_REQUIRE_MOUNTS();
    Scene scene;
    putResource(scene.mount(1), "onDead");
    scene.dirty.insert("onDead");
    scene.writeDirty();
    ASSERT_EQ(rename((scene.mount(1) + "/repositorypart.cfg").c_str(),
                     (scene.mount(1) + "/repositorypart.no").c_str()),
              0);
    const RepoctlRun run = scene.verify({"--json", "--repair"});
    EXPECT_EQ(run.code, 0) << run.out;
    const JsonValue document = parsed(run);
    EXPECT_EQ(document["findings"].size(), 0u) << run.out;
    ASSERT_EQ(document["deadMounts"].size(), 1u);
    EXPECT_EQ(document["deadMounts"][0].string(), scene.mount(1));
    EXPECT_EQ(document["checked"]["mounts"].number(), 1);
    EXPECT_EQ(document["notes"].size(), 1u) << run.out;
    EXPECT_EQ(readFile(scene.repo.path() + "/.dirty"), "copied\nmoving\nonDead\n");
}

TEST(RepoctlVerify, hostileNamesRunNothingAndLoseNothing) {
    RH_REQUIRE_MOUNTS();
    Scene scene;
    TempTree cwd;
    WorkingDirectory inside(cwd.root());
    const std::vector<std::string> names{"$(touch pwned)", "a'b",    "`touch pwned`", "x;rm -rf ..",
                                         "new\nline",      "sp ace", "\"q\""};
    for (const std::string& name : names) {
        putResource(scene.mount(0), name, "f", "one");
        putResource(scene.mount(1), name, "f", "one");
        putResource(scene.mount(1), name, "g", "two");
        ASSERT_EQ(symlink(("/nonexistent/" + name).c_str(), scene.legacy.path(name).c_str()), 0);
        const std::string stray = scene.mount(0) + "/QQ/QQ/QQ/" + name + "-stray";
        mkdirs(stray.c_str(), 0755);
        std::ofstream(stray + "/f") << "stray";
        // The one-name-a-line dirty file cannot hold a line feed.
        if (name.find('\n') == std::string::npos) scene.dirty.insert(name + "-gone");
    }
    scene.writeDirty();
    scene.outside.write("keep/f", "kept");
    ASSERT_EQ(symlink(scene.outside.path("keep").c_str(), scene.legacy.path("keep").c_str()), 0);

    const RepoctlRun run = scene.verify({"--repair", "--json"});
    EXPECT_EQ(run.code, 1) << run.err;
    const JsonValue document = parsed(run);
    for (const std::string& name : names) {
        SCOPED_TRACE(name);
        EXPECT_NE(findingNamed(document, "duplicate", name), nullptr) << run.out;
        if (name.find('\n') == std::string::npos) {
            EXPECT_NE(findingNamed(document, "staleDirty", name + "-gone"), nullptr);
        }
        // Merged, or (where a name cannot reach the compare command) both copies kept.
        EXPECT_NE(findingNamed(document, "misplaced", name + "-stray"), nullptr);
        EXPECT_EQ(readFile(scene.mount(0) + "/QQ/QQ/QQ/" + name + "-stray/f"), "stray");
        const std::string last = resourceLocation(scene.mount(1), name.c_str());
        EXPECT_EQ(readFile(last + "/f"), "one");
        EXPECT_EQ(readFile(last + "/g"), "two");
    }
    EXPECT_FALSE(entryExists(cwd.path("pwned")));
    EXPECT_EQ(readFile(scene.outside.path("keep/f")), "kept");

    const RepoctlRun text = scene.verify();
    EXPECT_EQ(text.out.find("new\nline"), std::string::npos) << "a name broke a line";
    EXPECT_NE(text.out.find("new\\x0aline"), std::string::npos) << text.out;
}

TEST(RepoctlVerify, usageErrorsExitTwoAfterOneLine) {
    TempTree tree;
    const std::vector<std::vector<std::string>> wrong{
        {"verify"},
        {"verify", tree.root(), "--fix"},
        {"verify", tree.root(), "--older-than"},
        {"verify", tree.root(), "--older-than", "3w"},
        {"verify", tree.root(), "--older-than", "-5"},
        {"verify", tree.root(), tree.root()},
    };
    for (const auto& arguments : wrong) {
        const RepoctlRun run = runRepoctl(arguments);
        EXPECT_EQ(run.code, 2) << run.err;
        EXPECT_EQ(run.out, "");
        EXPECT_EQ(run.err.rfind("repoctl verify: ", 0), 0u) << run.err;
        EXPECT_NE(run.err.find("\nusage: repoctl verify REPO"), std::string::npos) << run.err;
    }
    const RepoctlRun missing = runRepoctl({"verify", tree.path("none")});
    EXPECT_EQ(missing.code, 1);
    EXPECT_NE(missing.err.find("no repository directory"), std::string::npos);
}

// Creators hand out locations (createLocation_, the caller makes the directory afterwards) and
// make directories under the same top hash level whose empty levels verify --repair removes at
// the same time: no location loses its parent before its caller creates it.
TEST(RepoctlVerifyConcurrency, repairRemovesNoHashLevelACreatorIsUsing) {
    TempTree locks;
    ScopedEnv lockVar("LOCK_VAR", locks.root().c_str());
    ScratchRepository repo;
    repo.addMount("p1");
    repo.writeConfig({{"isShared", "false"}});
    std::unique_ptr<char[]> seed(createHash("seed"));
    const std::string top = std::string(seed.get(), 2);
    std::vector<std::string> names;
    for (int i = 0; names.size() < 24; ++i) {
        const std::string name = "c" + std::to_string(i);
        std::unique_ptr<char[]> hashed(createHash(name.c_str()));
        if (std::string(hashed.get(), 2) == top) names.push_back(name);
    }

    std::atomic<bool> stop{false};
    std::atomic<int> failures{0};
    std::atomic<long> created{0};
    auto creator = [&](size_t first) {
        for (size_t i = first; !stop; i = (i + 2) % names.size()) {
            int status = -1, existed = -1;
            char* location = createLocation_(repo.path().c_str(), names[i].c_str(), &status,
                                             &existed, true, nullptr);
            if (location == nullptr || ::mkdir(location, 0755) != 0) {
                ++failures;
            } else {
                ++created;
            }
            release(location);
            if (removeResource_(repo.path().c_str(), names[i].c_str(), true, false, nullptr) != 0)
                ++failures;
        }
    };
    // Empty levels beside the creators' for verify to find and remove.
    auto leftovers = [&] {
        const char letters[] = "QWERTYUIOP";
        for (int i = 0; !stop; ++i) {
            const std::string levels = repo.mountPath(0) + "/" + top + "/" + letters[i % 10] +
                                       "Z/" + letters[(i / 10) % 10] + "Z";
            mkdirs(levels.c_str(), 0755);
            std::this_thread::sleep_for(std::chrono::milliseconds(2));
        }
    };
    std::thread one(creator, 0), two(creator, 1), three(leftovers);
    int runs = 0, repairedLevels = 0;
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(3);
    while (std::chrono::steady_clock::now() < end || runs < 3) {
        const RepoctlRun run =
            runRepoctl({"verify", repo.path(), "--repair", "--json"}, {{"LOCK_VAR", locks.root()}});
        ++runs;
        EXPECT_TRUE(run.code == 0 || run.code == 1) << run.code << " " << run.err;
        JsonValue document;
        std::string error;
        ASSERT_TRUE(JsonValue::parse(run.out, document, error)) << error << run.out << run.err;
        for (const JsonValue& finding : document["findings"].array()) {
            EXPECT_EQ(finding["kind"].string(), "emptyHashLevel") << run.out;
            if (finding["repair"]["done"].boolean()) ++repairedLevels;
        }
    }
    stop = true;
    one.join();
    two.join();
    three.join();
    EXPECT_EQ(failures.load(), 0) << created.load() << " locations created";
    EXPECT_GT(created.load(), 0);
    EXPECT_GT(repairedLevels, 0) << "verify found no empty level to remove in " << runs << " runs";
}
