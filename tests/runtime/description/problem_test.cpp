#include "description/problem.h"

#include <gtest/gtest.h>

using Quorval::runtime::Problem;
using Quorval::runtime::Problems;

namespace {

std::vector<std::string> texts(const Problems& problems)
{
    std::vector<std::string> texts;
    for (const Problem& problem : problems.sorted()) {
        texts.push_back(problem.text);
    }
    return texts;
}

}  // namespace

TEST(Problems, AreSortedBySourceThenLineThenColumn)
{
    Problems problems;
    problems.add_error({1, 1, 1}, "second source");
    problems.add_error({0, 2, 1}, "second line");
    problems.add_error({0, 1, 9}, "second column");
    problems.add_error({0, 1, 2}, "first");

    EXPECT_EQ(texts(problems),
              (std::vector<std::string>{"first", "second column", "second line", "second source"}));
}

TEST(Problems, KeepTheOrderInWhichTheyWereAddedAtOnePlace)
{
    Problems problems;
    problems.add_error({0, 1, 1}, "b");
    problems.add_error({0, 1, 1}, "a");

    EXPECT_EQ(texts(problems), (std::vector<std::string>{"b", "a"}));
}

TEST(Problems, NameWhatIsTheSameOnce)
{
    Problems problems;
    problems.add_error({0, 1, 1}, "a");
    problems.add_error({0, 1, 1}, "b");
    problems.add_error({0, 1, 1}, "a");

    EXPECT_EQ(texts(problems), (std::vector<std::string>{"a", "b"}));
}

TEST(Problems, CountWarningsAsNoErrors)
{
    Problems problems;

    problems.add_warning({0, 1, 1}, "a");
    EXPECT_FALSE(problems.has_errors());
    problems.add_error({0, 1, 1}, "a");
    EXPECT_TRUE(problems.has_errors());
}

TEST(Places, AreTheSameInAllTheirParts)
{
    using Quorval::runtime::Place;
    const Place place{1, 2, 3};

    EXPECT_TRUE(place == (Place{1, 2, 3}));
    EXPECT_FALSE(place == (Place{0, 2, 3}));
    EXPECT_FALSE(place == (Place{1, 0, 3}));
    EXPECT_FALSE(place == (Place{1, 2, 0}));
}
