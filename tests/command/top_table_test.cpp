#include "top_table.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

using namespace std::chrono_literals;

namespace {

using Lines = std::vector<std::string>;

const std::vector<TopRow> kRows = {{{"left/filter", 2000, 0, 61s, 1500us, 1234ns}, 500ms},
                                   {{"right/filter", 1000, 12, 2s, 7us, 6us}, 125ms},
                                   {{"out", 1, 0, 5ns, 5ns, 5ns}, 0ns}};

std::vector<std::string> paths_of(const std::vector<TopRow>& rows)
{
    std::vector<std::string> paths;
    for (const TopRow& row : rows) {
        paths.push_back(row.block.path);
    }
    return paths;
}

TEST(TopRows, StandByTheTimeSinceTheLookBeforeThenByAllOfIt)
{
    const auto rows =
        to_rows({{"a", 1, 0, 5s, 0s, 0s}, {"b", 1, 0, 1s, 0s, 0s}}, {{"a", 1, 0, 5s, 0s, 0s},
                                                                     {"b", 2, 0, 2s, 0s, 0s},
                                                                     {"c", 0, 0, 0s, 0s, 0s},
                                                                     {"d", 0, 0, 0s, 0s, 0s},
                                                                     {"e", 0, 0, 6s, 0s, 0s}});

    EXPECT_EQ(paths_of(rows), (Lines{"b", "e", "a", "c", "d"}));
    EXPECT_EQ(rows.front().recent, 1s);
    EXPECT_EQ(rows[1].recent, 0s);
}

TEST(TopRows, CountNothingWhereTheGraphBeganAnew)
{
    EXPECT_EQ(to_rows({{"a", 9, 0, 5s, 0s, 0s}}, {{"a", 1, 0, 1s, 0s, 0s}}).front().recent, 0s);
}

TEST(TopTable, FillsTheWidthWithBars)
{
    EXPECT_EQ(draw_top("g: 3 blocks", kRows, {}, 1s, {80, 24, false, false}),
              (Lines{"g: 3 blocks",
                     "block           load                   runs  failures    total      max"
                     "     99 %",
                     "left/filter   50.0 %  ###############  2000         0  61.00 s  1.50 ms"
                     "  1.23 us",
                     "right/filter  12.5 %  ####             1000        12   2.00 s  7.00 us"
                     "  6.00 us",
                     "out            0.0 %                      1         0     5 ns     5 ns"
                     "     5 ns"}));
}

TEST(TopTable, DrawsEighthsOfColumnsWhereThereIsUnicode)
{
    EXPECT_EQ(draw_top("g", kRows, {}, 1s, {34, 4, false, true}),
              (Lines{"g", "block           load          runs",
                     "left/filter   50.0 %  ██████  2000", "right/filter  12.5 %  █▌      1000"}));
    EXPECT_EQ(draw_top("g", kRows, {}, 1s, {35, 4, false, true}).back(),
              "right/filter  12.5 %  █▊       1000");
}

TEST(TopTable, DrawsOneEighthOfAColumn)
{
    const TopRow second{kRows[1].block, 500ms / 48};

    EXPECT_EQ(draw_top("g", {kRows[0], second}, {}, 1s, {34, 4, false, true}).back(),
              "right/filter   1.0 %  ▏       1000");
}

TEST(TopTable, HasABarBehindTheOnlyNumberThatFits)
{
    EXPECT_EQ(
        draw_top("g", {{{"count", 1000000, 0, 1s, 1s, 1s}, 500ms}}, {}, 1s, {19, 24, false, false}),
        (Lines{"g", "block    load      ", "count  50.0 %  ####"}));
}

TEST(TopTable, KnowsTheLoadOfTheShortestInterval)
{
    EXPECT_EQ(
        draw_top("g", {{{"count", 1, 0, 1ns, 1ns, 1ns}, 1ns}}, {}, 1ns, {15, 24, false, false})
            .back(),
        "count  100.0 %");
}

TEST(TopTable, LeavesColumnsOutOnANarrowTerminal)
{
    EXPECT_EQ(draw_top("g", kRows, {}, 1s, {26, 24, false, false}),
              (Lines{"g", "block           load  runs", "left/filter   50.0 %  2000",
                     "right/filter  12.5 %  1000", "out            0.0 %     1"}));
    EXPECT_EQ(draw_top("long title", kRows, {}, 1s, {6, 24, false, false}),
              (Lines{"long t", "block ", "...ter", "...ter", "out   "}));
    EXPECT_EQ(draw_top("g", kRows, {}, 1s, {2, 24, false, false}),
              (Lines{"g", "ck", "er", "er", "ut"}));
    EXPECT_EQ(draw_top("g", kRows, {}, 1s, {3, 24, false, false}),
              (Lines{"g", "ock", "ter", "ter", "out"}));
    EXPECT_EQ(draw_top("g", kRows, {}, 1s, {0, 24, false, false}), Lines(5));
}

TEST(TopTable, ShowsTheEndsOfLongPaths)
{
    EXPECT_EQ(draw_top("g", {{{"a/very/long/path/of/a/block", 1, 0, 1s, 1s, 1s}, 0s}}, {}, 0s,
                       {26, 24, false, true}),
              (Lines{"g", "block                 load", "…ng/path/of/a/block  0.0 %"}));
}

TEST(TopTable, ShowsControlCharactersOfForeignPaths)
{
    EXPECT_EQ(
        draw_top("g", {{{"a\033[2J\n", 1, 0, 1s, 1s, 1s}, 0s}}, {}, 0s, {26, 24, false, false}),
        (Lines{"g", "block          load  runs", "a\\x1B[2J\\x0A  0.0 %     1"}));
}

TEST(TopTable, CutsNoCharacterOfAPathApart)
{
    EXPECT_EQ(draw_top("g", {{{"\u00e4\u00f6\u00fc", 1, 0, 1s, 1s, 1s}, 0s}}, {}, 0s,
                       {3, 3, false, true}),
              (Lines{"g", "…ck", "…\u00fc"}));
    EXPECT_EQ(
        draw_top("g", {{{"\u00e4\u00f6\u00fc", 1, 0, 1s, 1s, 1s}, 0s}}, {}, 0s, {4, 3, false, true})
            .back(),
        "…\u00fc ");
}

TEST(TopTable, HasAsManyBlocksAsThereIsRoomFor)
{
    EXPECT_EQ(draw_top("g", kRows, {}, 1s, {26, 3, false, false}).size(), 3U);
    EXPECT_EQ(draw_top("g", kRows, {}, 1s, {26, 1, false, false}), Lines{"g"});
    EXPECT_EQ(draw_top("g", {}, {}, 0s, {80, 24, false, false}).size(), 2U);
}

const std::vector<Quorval::LinkStatistics> kLinks = {
    {"left/filter.out", false, 20, 160, 3, 0, 0, 7}, {"clock.tick", true, 5, 40, 0, 0, 1, 1}};

TEST(TopTable, HasLinksBelowTheBlocks)
{
    EXPECT_EQ(draw_top("g", kRows, kLinks, 1s, {80, 8, false, false}),
              (Lines{"g",
                     "block           load                   runs  failures    total      max"
                     "     99 %",
                     "left/filter   50.0 %  ###############  2000         0  61.00 s  1.50 ms"
                     "  1.23 us",
                     "right/filter  12.5 %  ####             1000        12   2.00 s  7.00 us"
                     "  6.00 us",
                     "", "link                values  bytes  lost  gaps  queue",
                     "left/filter.out ->      20    160     3     0      7",
                     "-> clock.tick            5     40     0     0      1"}));
}

TEST(TopTable, LeavesLinksTheHalfOfItsLines)
{
    const auto heights = [](unsigned height) {
        const Lines lines = draw_top("g", kRows, kLinks, 1s, {26, height, false, false});
        const auto gap = std::find(lines.begin(), lines.end(), "");
        return std::pair(gap - lines.begin(), lines.end() - gap);
    };

    EXPECT_EQ(heights(0), std::pair(0L, 0L));
    EXPECT_EQ(heights(1), std::pair(1L, 0L));
    EXPECT_EQ(heights(5), std::pair(5L, 0L));
    EXPECT_EQ(heights(6), std::pair(3L, 3L));
    EXPECT_EQ(heights(7), std::pair(4L, 3L));
    EXPECT_EQ(heights(9), std::pair(5L, 4L));
    EXPECT_EQ(heights(90), std::pair(5L, 4L));
}

TEST(TopTable, LeavesLinksWhatFewBlocksDoNotNeed)
{
    const std::vector<Quorval::LinkStatistics> many(5, kLinks[0]);

    EXPECT_EQ(draw_top("g", {kRows[0]}, many, 1s, {26, 10, false, false}).size(), 10U);
}

TEST(TopTable, ShowsNothingInRedWhereNothingIsLost)
{
    for (const std::uint64_t count : {0, 1}) {
        const std::vector<TopRow> rows = {{{"a", 1, count, 1s, 1s, 1s}, 0s}};
        const Lines lines = draw_top("g", rows, {{"a.out", false, 1, 1, count, 0, 0, 1}}, 1s,
                                     {60, 24, true, false});
        for (const std::size_t at : {std::size_t{2}, lines.size() - 1}) {
            EXPECT_EQ(lines[at].find("\033[31m") != std::string::npos, count > 0) << lines[at];
        }
    }
}

TEST(TopTable, ShowsLossesInRed)
{
    EXPECT_EQ(draw_top("g", {}, {kLinks[0]}, 1s, {60, 24, true, false}).back(),
              "left/filter.out ->      20    160  \033[31m   3\033[0m     0      7");
}

TEST(TopTable, ShowsFailuresInRed)
{
    EXPECT_EQ(draw_top("g", {kRows[1]}, {}, 1s, {50, 24, true, false}),
              (Lines{"\033[1mg\033[0m",
                     "\033[7mblock           load        runs  failures   total\033[0m",
                     "right/filter  12.5 %  \033[32m####\033[0m  1000  \033[31m      12\033[0m"
                     "  2.00 s"}));
}

}  // namespace
