#include "description/suggest.h"

#include <quorval/runtime/suggest.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <numeric>
#include <string>
#include <vector>

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

TEST(FindNear, CountsLettersAndNotBytes)
{
    EXPECT_EQ(find_near("f\u00f6rm\u00e4t", {"format"}), "format");
    EXPECT_EQ(find_near("format", {"f\u00f6rm\u00e4t"}), "f\u00f6rm\u00e4t");
    EXPECT_EQ(find_near("\u4e09\u56db", {"\u4e09\u4e8c"}), "");
    EXPECT_EQ(find_near("\u00f6\u00e4", {"\u00f6\u00e5"}), "");
    EXPECT_EQ(find_near("a\xff\xff\x80", {"a\xff\xff"}), "a\xff\xff");
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

namespace {

/// How many edits part two words, counted in full.
std::size_t count_edits(const std::string& a, const std::string& b)
{
    std::vector<std::size_t> row(b.size() + 1);
    std::iota(row.begin(), row.end(), std::size_t{0});
    for (std::size_t i = 1; i <= a.size(); ++i) {
        std::size_t before = row[0];
        row[0] = i;
        for (std::size_t j = 1; j <= b.size(); ++j) {
            const std::size_t replaced = before + (a[i - 1] == b[j - 1] ? 0 : 1);
            before = row[j];
            row[j] = std::min({replaced, row[j] + 1, row[j - 1] + 1});
        }
    }
    return row.back();
}

/// All words of up to so many of two letters.
Names make_words(std::size_t most)
{
    Names words = {""};
    for (std::size_t i = 0; words[i].size() < most; ++i) {
        words.push_back(words[i] + "a");
        words.push_back(words[i] + "b");
    }
    return words;
}

}  // namespace

TEST(FindNear, CountsEditsAsTheyAre)
{
    constexpr std::size_t kMostEdits = 2;
    constexpr std::size_t kLongest = 6;
    for (const std::string& name : make_words(kLongest)) {
        for (const std::string& known : make_words(kLongest)) {
            const std::size_t edits = count_edits(name, known);
            const bool is_near = edits <= kMostEdits && 2 * edits < name.size();

            EXPECT_EQ(find_near(name, {known}), is_near ? known : "") << name << " " << known;
        }
    }
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
