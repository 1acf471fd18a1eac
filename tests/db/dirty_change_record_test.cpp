// The change record of a shared repository's dirty file: every writer records in the database,
// under the file's lock, what it writes; a writer whose storage serves other content reads
// again until it gets the recorded one, and never writes a stale copy back.

#include <gtest/gtest.h>

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <thread>

#include "DbTestEnv.h"
#include "KSDirtyFlagHandler.h"
#include "KSPathUtils.h"
#include "KSStateFile.h"
#include "ScopedEnv.h"
#include "SyslogCapture.h"
#include "TempTree.h"

namespace fs = std::filesystem;

namespace {

// The fingerprint of a content as the real sha256sum computes it.
std::string fingerprintOf(const std::string& content) {
    TempTree tree;
    tree.write("f", content);
    FILE* pipe = popen(("sha256sum " + tree.path("f")).c_str(), "r");
    char digest[65] = "";
    if (pipe == nullptr || fscanf(pipe, "%64s", digest) != 1) digest[0] = 0;
    if (pipe != nullptr) pclose(pipe);
    return std::to_string(content.size()) + ":" + digest;
}

class DirtyChangeRecord : public ::testing::Test {
  protected:
    void SetUp() override {
        RH_REQUIRE_DB();
        repository_ = tree_.root() + "/repo";
        fs::create_directory(repository_);
        scope_ = uniqueName("dirty-record");
        std::unique_ptr<char[]> id(toResourceID(scope_.c_str(), ""));
        lockId_ = id.get();
        admin_ = std::make_unique<DbAdmin>();
    }
    void TearDown() override {
        if (admin_) admin_->exec("DELETE FROM NVLOCKCHG WHERE CHGID='" + lockId_ + "'");
    }

    void bind(KSDirtyFlagHandler& handler, bool shared = true) {
        handler.setRepository(nullptr, repository_.c_str(), shared, scope_.c_str());
    }
    std::string file() const { return TempTree::read(repository_ + "/.dirty"); }
    void replaceFile(const std::string& content) const {
        ASSERT_EQ(KSStateFile::replace(repository_ + "/.dirty", content),
                  KSStateFile::Result::kReplaced);
    }
    // The record as another server's writer would have left it.
    void setRecord(long long counter, const std::string& content, const std::string& previous) {
        admin_->exec(
            "REPLACE INTO NVLOCKCHG (CHGID,CHGCOUNTER,CHGCONTENT,CHGPREVIOUS,CHGPATH,"
            "CHGHOST,CHGTIME) VALUES ('" +
            lockId_ + "'," + std::to_string(counter) + ",'" + content + "','" + previous +
            "','elsewhere','other-host',NOW())");
    }
    std::vector<std::string> record() {
        auto rows = admin_->rows(
            "SELECT CHGCOUNTER,CHGCONTENT,CHGPREVIOUS,CHGPATH FROM NVLOCKCHG WHERE CHGID='" +
            lockId_ + "'");
        return rows.empty() ? std::vector<std::string>() : rows[0];
    }

    TempTree tree_;
    std::string repository_, scope_, lockId_;
    std::unique_ptr<DbAdmin> admin_;
};

}  // namespace

TEST_F(DirtyChangeRecord, everyWriteOfASharedDirtySetRecordsWhatItWroteAndWhatItReplaced) {
    KSDirtyFlagHandler handler;
    bind(handler);
    EXPECT_TRUE(record().empty());
    handler.setDirty(nullptr, "a", true);
    handler.setDirty(nullptr, "b", true);
    handler.setDirty(nullptr, "b", true);  // no change, no write

    ASSERT_EQ(file(), "a\nb\n");
    const std::vector<std::string> row = record();
    ASSERT_EQ(row.size(), 4u);
    EXPECT_EQ(row[0], "2");
    EXPECT_EQ(row[1], fingerprintOf("a\nb\n"));
    EXPECT_EQ(row[2], fingerprintOf("a\n"));
    EXPECT_EQ(row[3], handler.filePath());
}

TEST_F(DirtyChangeRecord, aWriterServedOlderContentReadsAgainUntilItGetsTheRecordedOne) {
    // The last writer on another server wrote "a\nb\n"; this server's client still serves "a\n"
    // and only later shows the rename, as a cache that expires.
    replaceFile("a\n");
    setRecord(7, fingerprintOf("a\nb\n"), fingerprintOf("a\n"));
    KSDirtyFlagHandler handler;
    bind(handler);
    handler.setStaleContentWait(std::chrono::seconds(20));
    std::thread cacheExpires([this] {
        std::this_thread::sleep_for(std::chrono::milliseconds(300));
        replaceFile("a\nb\n");
    });
    handler.setDirty(nullptr, "c", true);
    cacheExpires.join();

    EXPECT_EQ(file(), "a\nb\nc\n");
    const std::vector<std::string> row = record();
    ASSERT_EQ(row.size(), 4u);
    EXPECT_EQ(row[0], "8");
    EXPECT_EQ(row[1], fingerprintOf("a\nb\nc\n"));
}

TEST_F(DirtyChangeRecord, contentThatNeverBecomesTheRecordedOneIsNotWrittenOverButTakenNextTime) {
    replaceFile("a\n");
    setRecord(3, fingerprintOf("a\nb\n"), fingerprintOf("z\n"));
    SyslogCapture syslog;
    KSDirtyFlagHandler handler;
    bind(handler);
    handler.setStaleContentWait(std::chrono::milliseconds(200));

    handler.setDirty(nullptr, "c", true);
    EXPECT_EQ(file(), "a\n");
    EXPECT_TRUE(syslog.findContaining("does not hold what its last writer").has_value());
    EXPECT_TRUE(handler.isDirty(nullptr, "c", true));  // kept in memory for the next write

    // A file changed outside the lock is refused once, not for ever.
    handler.setDirty(nullptr, "d", true);
    EXPECT_EQ(file(), "a\nc\nd\n");
}

TEST_F(DirtyChangeRecord, aWriterThatStoppedBetweenItsRecordAndItsRenameCostsTheNextWriterOneWait) {
    replaceFile("a\n");
    setRecord(5, fingerprintOf("a\nnever-written\n"), fingerprintOf("a\n"));
    SyslogCapture syslog;
    KSDirtyFlagHandler handler;
    bind(handler);
    handler.setStaleContentWait(std::chrono::milliseconds(200));

    handler.setDirty(nullptr, "c", true);
    EXPECT_EQ(file(), "a\nc\n");
    EXPECT_EQ(syslog.countContaining("does not hold what its last writer"), 0);
    const std::vector<std::string> row = record();
    ASSERT_EQ(row.size(), 4u);
    EXPECT_EQ(row[1], fingerprintOf("a\nc\n"));
    EXPECT_EQ(row[2], fingerprintOf("a\n"));
}

TEST_F(DirtyChangeRecord, aRepositoryWithoutSharingKeepsNoRecord) {
    const ScopedEnv lockVar("LOCK_VAR", tree_.root().c_str());
    KSDirtyFlagHandler handler;
    bind(handler, false);
    handler.setDirty(nullptr, "a", true);
    EXPECT_EQ(file(), "a\n");
    EXPECT_TRUE(record().empty());
}

TEST_F(DirtyChangeRecord, aDatabaseWithoutTheChangeTableStillTakesTheLockAndWrites) {
    const std::string locks = uniqueName("NVLOCKNOCHG");
    admin_->exec("CREATE TABLE " + locks + " LIKE NVLOCK");
    ScopedTables drop({locks});
    const ScopedEnv lockTable("NVLOCKTBL", locks.c_str());
    SyslogCapture syslog;
    KSDirtyFlagHandler handler;
    bind(handler);
    handler.setDirty(nullptr, "a", true);
    handler.setDirty(nullptr, "b", true);

    EXPECT_EQ(file(), "a\nb\n");
    EXPECT_EQ(syslog.countContaining("The change table is missing"), 1);
}
