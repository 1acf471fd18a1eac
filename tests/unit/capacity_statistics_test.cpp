// Night statistics and the administrators' warnings of the maintenance.

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <utime.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "ClockControl.h"
#include "KSClock.h"
#include "KSProperties.h"
#include "KSRepositoryHandler.h"
#include "NightProperties.h"
#include "ScopedEnv.h"
#include "ScratchRepository.h"
#include "TempTree.h"

namespace {

constexpr time_t kDay = 86400;

std::string day(int daysAgo) {
    return NightProperties::dateText(KSClock::now() - daysAgo * kDay);
}

// Statistics with one value per day for the given ages in days.
KSProperties statistics(const std::vector<std::pair<int, std::string>>& days) {
    KSProperties p;
    for (const auto& [ago, value] : days) p.setProperty(day(ago).c_str(), value.c_str());
    return p;
}

double volume(KSProperties& p, const std::string& file) {
    return NightProperties::calcVolume(p, day(0).c_str(), day(8).c_str(), file.c_str());
}

TEST(NightStatistics, SevenDaysBeforeTodayGiveTheMeanOfTheFiveLargest) {
    TempTree dir;
    KSProperties p = statistics(
        {{7, "1"}, {6, "2"}, {5, "3"}, {4, "4"}, {3, "5"}, {2, "6"}, {1, "7"}, {0, "90"}});
    EXPECT_DOUBLE_EQ(volume(p, dir.path("s.cfg")), (3 + 4 + 5 + 6 + 7) / 5.0);
    // Nothing was old, so nothing is written.
    EXPECT_EQ(TempTree::read(dir.path("s.cfg")), "<missing>");
}

TEST(NightStatistics, SixDaysAreNotEnoughAndTodayIsNeitherCountedNorRemoved) {
    TempTree dir;
    KSProperties p =
        statistics({{6, "2"}, {5, "3"}, {4, "4"}, {3, "5"}, {2, "6"}, {1, "7"}, {0, "9"}});
    EXPECT_EQ(volume(p, dir.path("s.cfg")), -1.0);
    EXPECT_NE(p.getProperty(day(0).c_str()), nullptr);
    KSProperties none;
    EXPECT_EQ(volume(none, dir.path("s.cfg")), -1.0);
}

TEST(NightStatistics, EntriesEightDaysOldOrOlderAreRemovedFromTheFile) {
    TempTree dir;
    const std::string file = dir.path("s.cfg");
    KSProperties p = statistics({{9, "50"},
                                 {8, "40"},
                                 {7, "1"},
                                 {6, "1"},
                                 {5, "1"},
                                 {4, "1"},
                                 {3, "1"},
                                 {2, "1"},
                                 {1, "1"}});
    EXPECT_DOUBLE_EQ(volume(p, file), 1.0);
    KSProperties written;
    ASSERT_TRUE(written.load(file.c_str()));
    EXPECT_EQ(written.size(), 7u);
    EXPECT_EQ(written.getProperty(day(8).c_str()), nullptr);
    EXPECT_EQ(written.getProperty(day(9).c_str()), nullptr);
}

TEST(NightStatistics, FewerThanTwoValuesBelowAHundredSubtractAHundredInstead) {
    TempTree dir;
    KSProperties p = statistics(
        {{7, "200"}, {6, "200"}, {5, "200"}, {4, "200"}, {3, "200"}, {2, "200"}, {1, "50"}});
    EXPECT_DOUBLE_EQ(volume(p, dir.path("s.cfg")), (6 * 200 + 50 - 50 - 100) / 5.0);
}

// A repository (plain folders) and a KSADMIN_HOME whose sendmessage.sh records its arguments.
class MaintenanceWarnings : public ::testing::Test {
  protected:
    void SetUp() override {
        repo_.addMount("p1");
        repo_.writeConfig({{"isShared", "false"}, {"moveTime", "30"}});
        const std::string script = admin_.write("sendmessage.sh",
                                                "#!/bin/sh\nfor a in \"$@\"; do printf '%s|' "
                                                "\"$a\"; done >> \"$(dirname \"$0\")/sent\"\n"
                                                "echo >> \"$(dirname \"$0\")/sent\"\n");
        chmod(script.c_str(), 0755);
        handler_ = getRepository(nullptr, repo_.path().c_str(), true);
    }
    std::vector<std::string> sent() const {
        std::vector<std::string> lines;
        std::ifstream in(admin_.path("sent"));
        for (std::string line; std::getline(in, line);) lines.push_back(line);
        return lines;
    }
    // The only file in TMP: the marker.
    std::string marker() const {
        return tmp_.path("KSRepositoryHandler-" + underscored(repo_.path()) + "-LastWarnMessage");
    }
    static std::string underscored(std::string s) {
        for (char& c : s)
            if (c == '/') c = '_';
        return s;
    }

    ClockGuard clock_;
    TempTree admin_;
    TempTree tmp_;
    TempTree locks_;
    ScopedEnv adminEnv_{"KSADMIN_HOME", admin_.root().c_str()};
    ScopedEnv tmpEnv_{"TMP", tmp_.root().c_str()};
    ScopedEnv lockEnv_{"LOCK_VAR", locks_.root().c_str()};
    ScratchRepository repo_;
    std::shared_ptr<KSRepositoryHandler> handler_;
};

TEST_F(MaintenanceWarnings, RecentPurgesSendOneMessageADayDecidedByTheMarkersTime) {
    time_t t = KSClock::now();
    handler_->warnMoveTimeWarning("purged", &t);
    handler_->warnMoveTimeWarning("moved", &t);
    ASSERT_EQ(sent().size(), 1u);
    EXPECT_EQ(sent()[0], "-admins|-important|-message|Resources purged from " + repo_.path() +
                             " were more recent than the warnmoveTime threshold. The repository "
                             "size might be too small.|");

    struct stat st;
    ASSERT_EQ(stat(marker().c_str(), &st), 0) << marker();
    // A day and a bit later (by the marker's own time) the next warning goes out.
    struct utimbuf old {
        t - kDay - 60, t - kDay - 60
    };
    ASSERT_EQ(utime(marker().c_str(), &old), 0);
    handler_->warnMoveTimeWarning("moved", &t);
    ASSERT_EQ(sent().size(), 2u);
    EXPECT_NE(sent()[1].find("Resources moved from "), std::string::npos);
}

TEST_F(MaintenanceWarnings, MoveTimeWarningNamesTheConfiguredAndTheNewDaysOncePerMountADay) {
    KSMountPointHandler* mount = handler_->mounts()[0].get();
    handler_->moveTimeWarning(mount, 12);
    handler_->moveTimeWarning(mount, 11);
    ASSERT_EQ(sent().size(), 1u);
    EXPECT_EQ(sent()[0], "-admins|-important|-message|moveTime: 30 is not enough for mount " +
                             repo_.mountPath(0) + ", using 12 days instead.|");
    // Another day by the clock: the marker is a day old now.
    KSClock::advanceForTesting(kDay + 1);
    handler_->moveTimeWarning(mount, 11);
    EXPECT_EQ(sent().size(), 2u);
}

TEST_F(MaintenanceWarnings,
       ADaysFirstRecordIsWrittenEvenWhenNegativeAndLaterOnesOnlyAddFreedSpace) {
    TempTree var;
    ScopedEnv varEnv("VAR", var.root().c_str());
    KSMountPointHandler* mount = handler_->mounts()[0].get();
    const std::string file = NightProperties::statisticsFile(mount->path());
    auto recorded = [&] {
        KSProperties p;
        p.load(file.c_str());
        const char* value = p.getProperty(day(0).c_str());
        return value != nullptr ? strtod(value, nullptr) : -100.0;
    };
    const double used = mount->getUsedPercentage();

    ::testing::internal::CaptureStdout();
    handler_->writeCalcData(true, mount, used - 2.0);  // the mount grew
    EXPECT_NEAR(recorded(), -2.0, 0.5);
    handler_->writeCalcData(true, mount, used - 1.0);  // grew again: nothing recorded
    EXPECT_NEAR(recorded(), -2.0, 0.5);
    handler_->writeCalcData(true, mount, used + 3.0);  // 3 points freed
    EXPECT_NEAR(recorded(), 1.0, 0.5);
    EXPECT_EQ(::testing::internal::GetCapturedStdout(), "") << "logged, never printed";
}

// Other processes read the statistics while the maintenance writes them: the file is replaced
// by a complete new one, never rewritten in place, so a reader that opened the old version
// reads it whole and nothing but the file itself is left in VAR.
TEST_F(MaintenanceWarnings, StatisticsAreReplacedWholeWhileAReaderHoldsTheOldVersion) {
    TempTree var;
    ScopedEnv varEnv("VAR", var.root().c_str());
    KSMountPointHandler* mount = handler_->mounts()[0].get();
    const std::string file = NightProperties::statisticsFile(mount->path());
    const std::string old = day(3) + "=\"1.5\"\n";
    { std::ofstream(file) << old; }
    std::ifstream reader(file);

    ::testing::internal::CaptureStdout();
    handler_->writeCalcData(true, mount, mount->getUsedPercentage() + 3.0);
    ::testing::internal::GetCapturedStdout();
    std::stringstream held;
    held << reader.rdbuf();
    EXPECT_EQ(held.str(), old) << "the version the reader opened stays whole";
    KSProperties now;
    ASSERT_TRUE(now.load(file.c_str()));
    EXPECT_EQ(now.size(), 2u);
    EXPECT_NE(now.getProperty(day(0).c_str()), nullptr);
    int files = 0;
    for (auto it = std::filesystem::directory_iterator(var.root());
         it != std::filesystem::directory_iterator(); ++it)
        ++files;
    EXPECT_EQ(files, 1) << "no temporary file stays beside it";
}

}  // namespace
