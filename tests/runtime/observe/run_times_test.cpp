#include "observe/run_times.h"

#include <gtest/gtest.h>

#include <cstdint>

using Quorval::runtime::RunTimes;

namespace {

// Times from here on are counted together: two minutes.
constexpr std::uint64_t kNoEnd = std::uint64_t{7} << 34;

TEST(RunTimes, BeginWithNothing)
{
    const RunTimes times(1);

    EXPECT_EQ(times.total(0), 0U);
    EXPECT_EQ(times.longest(0), 0U);
    EXPECT_EQ(times.percentile_99(0), 0U);
}

TEST(RunTimes, KeepSumAndLongestOfEachBlock)
{
    RunTimes times(2);
    times.add(0, 5);
    times.add(0, 7);
    times.add(0, 6);
    times.add(1, 1000);

    EXPECT_EQ(times.total(0), 18U);
    EXPECT_EQ(times.longest(0), 7U);
    EXPECT_EQ(times.total(1), 1000U);
    EXPECT_EQ(times.longest(1), 1000U);
}

TEST(RunTimes, ThePercentileLeavesOneOfAHundredOut)
{
    RunTimes times(1);
    for (int i = 0; i < 99; ++i) {
        times.add(0, 3);
    }
    times.add(0, 1000000);
    EXPECT_EQ(times.percentile_99(0), 3U);

    times.add(0, 1000000);
    EXPECT_EQ(times.percentile_99(0), 1000000U);
}

TEST(RunTimes, ThePercentileLooksAtRunsOfAllLengths)
{
    RunTimes times(1);
    for (int i = 0; i < 40; ++i) {
        times.add(0, 1);
        times.add(0, 2);
    }
    for (int i = 0; i < 20; ++i) {
        times.add(0, 3);
    }
    times.add(0, 1000);

    EXPECT_EQ(times.percentile_99(0), 3U);
}

TEST(RunTimes, ThePercentileIsAQuarterTooLongAtMost)
{
    for (std::uint64_t time = 0; time < kNoEnd; time += 1 + time / 7) {
        RunTimes times(1);
        for (int i = 0; i < 99; ++i) {
            times.add(0, time);
        }
        times.add(0, UINT64_MAX / 2);

        EXPECT_GE(times.percentile_99(0), time);
        EXPECT_LE(times.percentile_99(0), time + time / 4) << time;
    }
}

TEST(RunTimes, ThePercentileIsTheLongestWhereTimesAreCountedTogether)
{
    RunTimes times(1);
    for (int i = 0; i < 99; ++i) {
        times.add(0, kNoEnd);
    }
    times.add(0, 2 * kNoEnd);

    EXPECT_EQ(times.percentile_99(0), 2 * kNoEnd);
}

TEST(RunTimes, BearTimesThatAreLongerThanAnyCounter)
{
    RunTimes times(1);
    times.add(0, UINT64_MAX / 2);

    EXPECT_EQ(times.longest(0), UINT64_MAX / 2);
    EXPECT_EQ(times.percentile_99(0), UINT64_MAX / 2);
}

}  // namespace
