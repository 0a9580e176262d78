#include "schedule/pace.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstddef>
#include <vector>

using Quorval::runtime::Pace;
using std::chrono::nanoseconds;
using ::testing::ElementsAre;

namespace {

constexpr nanoseconds kWork(1000);

/// How many of so many waves were run side by side.
int count_side_by_side(Pace& pace, int waves, nanoseconds in_order, nanoseconds side_by_side)
{
    int count = 0;
    for (; waves > 0; --waves) {
        count += pace.is_side_by_side() ? 1 : 0;
        pace.ended(pace.is_side_by_side() ? side_by_side : in_order, kWork);
    }
    return count;
}

TEST(Pace, BeginsInOrder)
{
    EXPECT_FALSE(Pace().is_side_by_side());
}

TEST(Pace, ChoosesWhatIsFasterAndRarelyTriesTheOther)
{
    Pace side_by_side;
    EXPECT_GT(count_side_by_side(side_by_side, 10'000, nanoseconds(1000), nanoseconds(600)), 9'900);

    Pace in_order;
    EXPECT_LT(count_side_by_side(in_order, 10'000, nanoseconds(1000), nanoseconds(1100)), 100);
    EXPECT_GT(count_side_by_side(in_order, 10'000, nanoseconds(1000), nanoseconds(1100)), 0);
}

TEST(Pace, NoticesWhenTheOtherWayHasBecomeFaster)
{
    Pace pace;
    count_side_by_side(pace, 1000, nanoseconds(1000), nanoseconds(1100));

    count_side_by_side(pace, 3000, nanoseconds(1000), nanoseconds(600));
    EXPECT_GT(count_side_by_side(pace, 1000, nanoseconds(1000), nanoseconds(600)), 950);

    count_side_by_side(pace, 3000, nanoseconds(1000), nanoseconds(1100));
    EXPECT_LT(count_side_by_side(pace, 1000, nanoseconds(1000), nanoseconds(1100)), 50);
}

TEST(Pace, LeavesOutThatThreadsWakeUp)
{
    Pace pace;
    int waves = 0;
    for (; !pace.is_side_by_side(); ++waves) {
        pace.ended(nanoseconds(1000), kWork);
    }
    pace.ended(nanoseconds(1'000'000), kWork);

    EXPECT_EQ(waves, 4);
    EXPECT_EQ(count_side_by_side(pace, 7, nanoseconds(1000), nanoseconds(600)), 7);
}

TEST(Pace, LearnsNothingFromWavesWithoutWork)
{
    Pace pace;

    for (int wave = 0; wave < 100; ++wave) {
        pace.ended(nanoseconds(1000), nanoseconds(0));
        EXPECT_FALSE(pace.is_side_by_side());
    }
    for (int wave = 0; wave < 4; ++wave) {
        EXPECT_FALSE(pace.is_side_by_side());
        pace.ended(nanoseconds(1000), nanoseconds(1));
    }
    EXPECT_TRUE(pace.is_side_by_side());
}

/// How many waves go one way, and then the other.
std::vector<int> turns_of(Pace& pace, std::size_t count, nanoseconds in_order,
                          nanoseconds side_by_side)
{
    std::vector<int> turns;
    while (turns.size() < count) {
        const bool way = pace.is_side_by_side();
        for (turns.push_back(0); pace.is_side_by_side() == way; ++turns.back()) {
            pace.ended(way ? side_by_side : in_order, kWork);
        }
    }
    return turns;
}

TEST(Pace, TriesTheOtherWayEverMoreRarely)
{
    for (const nanoseconds side_by_side : {nanoseconds(1000), nanoseconds(1001)}) {
        Pace pace;
        EXPECT_THAT(turns_of(pace, 21, nanoseconds(1000), side_by_side),
                    ElementsAre(4, 4, 8, 4, 16, 4, 32, 4, 64, 4, 128, 4, 256, 4, 512, 4, 1024, 4,
                                1024, 4, 1024));
    }
}

TEST(Pace, TriesTheOtherWaySoonAfterAChange)
{
    Pace pace;
    turns_of(pace, 5, nanoseconds(1000), nanoseconds(1100));

    // The trial that finds it faster goes on as the way of the waves behind it.
    EXPECT_THAT(turns_of(pace, 4, nanoseconds(1000), nanoseconds(800)),
                ElementsAre(4 + 4, 4, 8, 4));
}

/// Whether waves go on side by side when those of the trial have taken so long.
bool is_chosen(Pace& pace, const std::vector<int>& trial)
{
    while (!pace.is_side_by_side()) {
        pace.ended(nanoseconds(1000), kWork);
    }
    for (const int elapsed : trial) {
        pace.ended(nanoseconds(elapsed), kWork);
    }
    return pace.is_side_by_side();
}

TEST(Pace, JudgesByTheMeanOfTheTrialBehindItsFirstWave)
{
    const auto is_chosen_first = [](const std::vector<int>& trial) {
        Pace pace;
        return is_chosen(pace, trial);
    };
    EXPECT_TRUE(is_chosen_first({100'000, 999, 999, 999}));
    EXPECT_FALSE(is_chosen_first({1, 1000, 1000, 1000}));
    EXPECT_FALSE(is_chosen_first({600, 3000, 600, 600}));
    EXPECT_TRUE(is_chosen_first({600, 600, 600, 1300}));
}

TEST(Pace, ForgetsTheTrialBefore)
{
    Pace pace;

    EXPECT_FALSE(is_chosen(pace, {10'000, 10'000, 10'000, 10'000}));
    EXPECT_TRUE(is_chosen(pace, {600, 600, 600, 600}));
}

}  // namespace
