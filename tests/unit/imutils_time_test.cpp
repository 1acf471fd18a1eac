#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <ctime>
#include <string>

#include "ClockControl.h"
#include "FunctionMeasurer.h"
#include "KSClock.h"
#include "KSTime.h"

TEST(KSTimeTest, mymemcmpComparesOnlyEqualLengths) {
    EXPECT_EQ(mymemcmp("ab", 2, "abc", 3), -255);
    // Differing lengths must not read the buffers at all.
    EXPECT_EQ(mymemcmp(nullptr, 4, nullptr, 0), -255);
    EXPECT_EQ(mymemcmp("abc", 3, "abc", 3), 0);
    EXPECT_LT(mymemcmp("abc", 3, "abd", 3), 0);
    EXPECT_GT(mymemcmp("abd", 3, "abc", 3), 0);
}

TEST(KSTimeTest, roundUpToReachesTheNextMultipleAndAZeroStepKeepsTheValue) {
    EXPECT_EQ(roundUpTo(0, 4096), 0u);
    EXPECT_EQ(roundUpTo(1, 4096), 4096u);
    EXPECT_EQ(roundUpTo(4096, 4096), 4096u);
    EXPECT_EQ(roundUpTo(4097, 4096), 8192u);
    EXPECT_EQ(roundUpTo(7, 0), 7u);
}

TEST(KSTimeTest, sleepsLastAtLeastTheirDurationOnTheMonotonicClock) {
    int64_t start = nanoTime();
    mymilisleep(1020);
    int64_t afterMillis = nanoTime();
    mynanosleep(30000000LL);
    int64_t afterNanos = nanoTime();
    EXPECT_GE(afterMillis - start, 1020000000LL);
    EXPECT_GE(afterNanos - afterMillis, 30000000LL);
}

TEST(KSClockTest, advancingMovesNowAndResetRestoresRealTime) {
    ClockGuard guard;
    time_t before = time(nullptr);
    KSClock::advanceForTesting(300);
    time_t shifted = KSClock::now();
    EXPECT_GE(shifted, before + 300);
    EXPECT_LE(shifted, time(nullptr) + 300);
    KSClock::advanceForTesting(-600);
    EXPECT_LE(KSClock::now(), time(nullptr) - 300);
    KSClock::resetForTesting();
    EXPECT_GE(KSClock::now(), before);
    EXPECT_LE(KSClock::now(), time(nullptr));
}

TEST(KSClockTest, virtualSleepAdvancesTheOffsetInsteadOfSleeping) {
    ClockGuard guard;
    KSClock::setVirtualSleepForTesting(true);
    int64_t start = nanoTime();
    KSClock::sleepMillis(500);
    KSClock::sleepMillis(800);
    KSClock::sleepMillis(-5);
    EXPECT_EQ(KSClock::offsetMillisForTesting(), 1300);
    KSClock::sleepMillis(3600 * 1000L);
    EXPECT_GE(KSClock::now(), time(nullptr) + 3601);
    // An hour of virtual sleep cannot have been spent for real.
    EXPECT_LT(nanoTime() - start, 3600LL * 1000000000LL);

    KSClock::setVirtualSleepForTesting(false);
    KSClock::sleepMillis(20);
    EXPECT_EQ(KSClock::offsetMillisForTesting(), 1300 + 3600 * 1000L);
}

TEST(FunctionMeasurerTest, nestedMeasurersIndentTheirTrace) {
    testing::internal::CaptureStdout();
    {
        FunctionMeasurer outer("outer");
        EXPECT_EQ(FunctionMeasurer::indent(), "    ");
        {
            FunctionMeasurer inner("inner");
            EXPECT_EQ(FunctionMeasurer::indent(), "        ");
            double ms = inner.measure("step");
            EXPECT_GE(ms, 0.0);
        }
    }
    std::string out = testing::internal::GetCapturedStdout();
    EXPECT_EQ(FunctionMeasurer::s_Level, 0);
    EXPECT_THAT(out, testing::MatchesRegex("outer\\(\\)\n"
                                           "    inner\\(\\)\n"
                                           "        inner - step: [0-9.]+ms\n"
                                           "    inner: [0-9.]+ms\n"
                                           "outer: [0-9.]+ms\n"));
}
