#include "statistics.h"

#include <gtest/gtest.h>

#include <chrono>

using namespace std::chrono_literals;

namespace {

TEST(StatisticsTable, HasALineForEachBlock)
{
    EXPECT_EQ(to_table({{"count", 3, 0, 999ns, 500ns, 7ns},
                        {"left/gain", 1000000, 12, 61s, 1500us, 1234ns}}),
              "block         runs  failures    total      max     99 %\n"
              "count            3         0   999 ns   500 ns     7 ns\n"
              "left/gain  1000000        12  61.00 s  1.50 ms  1.23 us\n");
}

TEST(StatisticsTable, TakesTheLargestUnitOfATime)
{
    EXPECT_EQ(to_table({{"a", 1, 0, 2000s, 1000ns, 1000us}}),
              "block  runs  failures      total      max     99 %\n"
              "a         1         0  2000.00 s  1.00 us  1.00 ms\n");
}

TEST(StatisticsTable, OfNothingIsItsTitles)
{
    EXPECT_EQ(to_table({}), "block  runs  failures  total  max  99 %\n");
}

TEST(StatisticsTable, ShowsControlCharactersOfForeignPaths)
{
    EXPECT_EQ(to_table({{"a\033[2J", 3, 0, 9ns, 5ns, 7ns}}),
              "block     runs  failures  total   max  99 %\n"
              "a\\x1B[2J     3         0   9 ns  5 ns  7 ns\n");
    EXPECT_EQ(to_link_table({{"a\n.out", false, 20, 160, 3, 2, 1, 7}}),
              "link          values  bytes  lost  gaps  queue\n"
              "a\\x0A.out ->      20    160     3     2      7\n");
}

TEST(LinkTable, HasALineForEachOutput)
{
    EXPECT_EQ(to_link_table({{"a.out", true, 20, 160, 3, 2, 1, 7}}),
              "link      values  bytes  lost  gaps  queue\n"
              "-> a.out      20    160     3     2      7\n");
}

}  // namespace
