#include "description/suggest.h"

#include <quorval/runtime/suggest.h>

#include <gtest/gtest.h>

using Quorval::find_near;
using Quorval::runtime::Suggester;
using Quorval::runtime::suggestion;

using Names = std::vector<std::string>;

TEST(FindNear, TakesTwoEditsAtMost)
{
    EXPECT_EQ(find_near("connection", {"connections"}), "connections");
    EXPECT_EQ(find_near("conections", {"connections"}), "connections");
    EXPECT_EQ(find_near("konnektions", {"connections"}), "connections");
    EXPECT_EQ(find_near("konnektionz", {"connections"}), "");
    EXPECT_EQ(find_near("connectionsss", {"connections"}), "connections");
    EXPECT_EQ(find_near("connectionssss", {"connections"}), "");
    EXPECT_EQ(find_near("ab-connections", {"connections"}), "");
}

TEST(FindNear, TakesFewerEditsThanHalfOfTheLettersThatWereGiven)
{
    EXPECT_EQ(find_near("ab", {"ac"}), "");
    EXPECT_EQ(find_near("abc", {"abd"}), "abd");
    EXPECT_EQ(find_near("abcd", {"abxy"}), "");
    EXPECT_EQ(find_near("abcde", {"abcxy"}), "abcxy");
    EXPECT_EQ(find_near("", {"a"}), "");
}

TEST(FindNear, CountsASwapAsTwoEdits)
{
    EXPECT_EQ(find_near("tpye", {"type"}), "");
    EXPECT_EQ(find_near("cofnig", {"config"}), "config");
}

TEST(FindNear, GivesTheNearestAndThenTheFirst)
{
    EXPECT_EQ(find_near("gains", {"gaits", "gainx", "gain"}), "gain");
    EXPECT_EQ(find_near("gainy", {"gain-", "gain", "gainx", "gainyyy"}), "gain");
    EXPECT_EQ(find_near("abcdef", {"abcdxx", "abcdeg", "abcdeh"}), "abcdeg");
}

TEST(FindNear, FindsNothingAmongNothing)
{
    EXPECT_EQ(find_near("abc", {}), "");
}

TEST(Suggestion, IsTheEndOfAMessage)
{
    EXPECT_EQ(suggestion("fomat", {"format"}), "; did you mean 'format'?");
    EXPECT_EQ(suggestion("x", {"format"}), "");
}

TEST(Suggester, StopsAfterMillionsOfComparisons)
{
    Names known(1'000'000);
    known.back() = "another-name";
    Suggester suggester;

    for (int i = 0; i < 5; ++i) {
        EXPECT_EQ(suggester.suggest("another-nam", known), "; did you mean 'another-name'?");
    }
    EXPECT_EQ(suggester.suggest("another-nam", known), "");
}
