// Holder tokens of database locks and the keys under which lock ids are stored: no two holders
// share a token, a token tells a running holder from a gone one, and ids of any length get a
// key that fits the key column without two ids sharing one.

#include <gtest/gtest.h>
#include <unistd.h>

#include <fstream>
#include <set>
#include <string>

#include "ChildProcess.h"
#include "KSLockToken.h"
#include "LockDBSql.h"
#include "Sha256.h"

using kelp::db::LockDBSql;
using kelp::db::sha256Hex;

namespace {

std::string hostName() {
    char name[256] = {0};
    gethostname(name, sizeof name - 1);
    return name;
}

// token with field `index` (0-based, ':'-separated) replaced by value.
std::string withField(const std::string& token, size_t index, const std::string& value) {
    std::string out;
    size_t begin = 0;
    for (size_t field = 0;; ++field) {
        size_t end = token.find(':', begin);
        std::string part = token.substr(begin, end == std::string::npos ? end : end - begin);
        out += (field == 0 ? "" : ":") + (field == index ? value : part);
        if (end == std::string::npos) return out;
        begin = end + 1;
    }
}

}  // namespace

TEST(LockTokens, everyTakeGetsATokenOfItsOwnAlsoInAForkedChild) {
    std::set<std::string> seen;
    for (int i = 0; i < 1000; ++i) EXPECT_TRUE(seen.insert(KSLockToken::next()).second);

    int pipeFds[2];
    ASSERT_EQ(0, pipe(pipeFds));
    int code = runInChild([&] {
        const std::string token = KSLockToken::next();
        return write(pipeFds[1], token.data(), token.size()) == ssize_t(token.size()) ? 0 : 1;
    });
    close(pipeFds[1]);
    char buffer[512] = {0};
    ssize_t n = read(pipeFds[0], buffer, sizeof buffer - 1);
    close(pipeFds[0]);
    ASSERT_EQ(0, code);
    ASSERT_GT(n, 0);
    const std::string childToken(buffer, size_t(n));
    EXPECT_EQ(0u, seen.count(childToken)) << childToken;
    KSLockToken::Holder child;
    ASSERT_TRUE(KSLockToken::parse(childToken, child));
    EXPECT_NE(getpid(), child.pid);
}

TEST(LockTokens, tokenNamesThisHostAndProcessAndFitsTheActorColumn) {
    const std::string token = KSLockToken::next();
    EXPECT_LE(token.size(), 255u);
    KSLockToken::Holder holder;
    ASSERT_TRUE(KSLockToken::parse(token, holder)) << token;
    EXPECT_EQ(hostName(), holder.host);
    EXPECT_EQ(getpid(), holder.pid);
    EXPECT_GT(holder.startTicks, 0u);
    EXPECT_EQ(8u, holder.bootId.size());
    EXPECT_EQ(8u, holder.nonce.size());
    KSLockToken::Holder next;
    ASSERT_TRUE(KSLockToken::parse(KSLockToken::next(), next));
    EXPECT_EQ(holder.serial + 1, next.serial);
}

TEST(LockTokens, livenessTellsARunningHolderFromAGoneOne) {
    const std::string mine = KSLockToken::next();
    EXPECT_EQ(KSLockToken::Liveness::Running, KSLockToken::liveness(mine));

    // A process that has ended: its pid is free (or, later, another process's).
    int pipeFds[2];
    ASSERT_EQ(0, pipe(pipeFds));
    ASSERT_EQ(0, runInChild([&] {
                  const std::string token = KSLockToken::next();
                  return write(pipeFds[1], token.data(), token.size()) == ssize_t(token.size()) ? 0
                                                                                                : 1;
              }));
    close(pipeFds[1]);
    char buffer[512] = {0};
    ssize_t n = read(pipeFds[0], buffer, sizeof buffer - 1);
    close(pipeFds[0]);
    ASSERT_GT(n, 0);
    EXPECT_EQ(KSLockToken::Liveness::Gone, KSLockToken::liveness(std::string(buffer, size_t(n))));

    // Same pid, another start time: the pid was given to a new process.
    KSLockToken::Holder holder;
    ASSERT_TRUE(KSLockToken::parse(mine, holder));
    EXPECT_EQ(KSLockToken::Liveness::Gone,
              KSLockToken::liveness(withField(mine, 3, std::to_string(holder.startTicks + 1))));
    // Same process, another boot of this host.
    EXPECT_EQ(KSLockToken::Liveness::Gone, KSLockToken::liveness(withField(mine, 4, "00000000")));
    EXPECT_EQ(KSLockToken::Liveness::OtherHost,
              KSLockToken::liveness(withField(mine, 1, hostName() + "-elsewhere")));
    for (const char* foreign : {"SEM", "", "SEM:host:12:34:boot:nonce", "SEM:host:x:34:b:n:1",
                                "SEM:host:0:34:b:n:1", "LOCK:host:12:34:b:n:1"}) {
        EXPECT_EQ(KSLockToken::Liveness::Unknown, KSLockToken::liveness(foreign)) << foreign;
    }
    EXPECT_STREQ("running", KSLockToken::describe(KSLockToken::Liveness::Running));
    EXPECT_STREQ("gone", KSLockToken::describe(KSLockToken::Liveness::Gone));
    EXPECT_STREQ("other host", KSLockToken::describe(KSLockToken::Liveness::OtherHost));
    EXPECT_STREQ("unknown", KSLockToken::describe(KSLockToken::Liveness::Unknown));
}

TEST(LockKeys, sha256MatchesTheStandardsTestVectors) {
    EXPECT_EQ("e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855", sha256Hex(""));
    EXPECT_EQ("ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad", sha256Hex("abc"));
    EXPECT_EQ("248d6a61d20638b8e5c026930c3e6039a33ce45964ff2167f6ecedd419db06c1",
              sha256Hex("abcdbcdecdefdefgefghfghighijhijkijkljklmklmnlmnomnopnopq"));
    EXPECT_EQ("cdc76e5c9914fb9281a1c7e284d73e67f1809a48a497200e046d39ccc7112cd0",
              sha256Hex(std::string(1000000, 'a')));
}

TEST(LockKeys, shortIdsAreKeptAndLongOnesGetDistinctKeysThatFit) {
    const std::string atLimit(255, 'x');
    EXPECT_EQ(atLimit, LockDBSql::storageKey(atLimit));
    EXPECT_EQ("KSRepositoryHandler-_repo-name",
              LockDBSql::storageKey("KSRepositoryHandler-_repo-name"));

    const std::string longId = "KSRepositoryHandler-" + std::string(4096, 'p') + "-1.2.3";
    const std::string key = LockDBSql::storageKey(longId);
    EXPECT_LE(key.size(), 255u);
    EXPECT_EQ(longId.substr(0, 190) + "#" + sha256Hex(longId), key);
    EXPECT_EQ(key, LockDBSql::storageKey(longId)) << "the key is a function of the id";
    std::set<std::string> keys;
    for (size_t length = 256; length < 300; ++length) {
        for (char last : {'a', 'b'}) {
            std::string id(length - 1, 'x');
            id.push_back(last);
            EXPECT_TRUE(keys.insert(LockDBSql::storageKey(id)).second) << length << last;
        }
    }
}

TEST(LockKeys, longKeyNeverEndsItsPrefixInsideAMultiByteCharacter) {
    // 189 ASCII bytes, then two-byte characters: byte 190 is the second byte of one.
    std::string id(189, 'a');
    while (id.size() < 300) id += "\xc3\xa9";
    const std::string key = LockDBSql::storageKey(id);
    const size_t hash = key.find('#');
    ASSERT_NE(std::string::npos, hash);
    EXPECT_EQ(189u, hash);
    EXPECT_EQ(id.substr(0, 189), key.substr(0, hash));
}
