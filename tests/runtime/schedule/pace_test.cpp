#include "schedule/pace.h"

#include <gtest/gtest.h>

#include <functional>

using Quorval::runtime::Pace;
using std::chrono::nanoseconds;

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
    }

    EXPECT_FALSE(pace.is_side_by_side());
}

}  // namespace
