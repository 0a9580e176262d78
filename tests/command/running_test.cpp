#include "running.h"

#include "support/support.h"

#include <gtest/gtest.h>

#include <string>

namespace {

using quorval_test::expect_throw;

TEST(ReadThreads, TakesNumbersUpTo256)
{
    EXPECT_EQ(read_threads("1"), 1U);
    EXPECT_EQ(read_threads("256"), 256U);
    for (const std::string text : {"", "0", "257", "two", "2x", " 2", "99999999999"}) {
        expect_throw<UsageError>([&] { read_threads(text); },
                                 "--threads has to be a number from 1 to 256, not '" + text + "'");
    }
}

TEST(AddThreads, HasOneThreadWhereNoneAreNamed)
{
    CommandLine line({"", "", ""});
    std::string threads;
    add_threads(line, threads);

    line.read({});

    EXPECT_EQ(read_threads(threads), 1U);
}

TEST(ToLevel, FollowsTheOptions)
{
    EXPECT_EQ(to_level({}), LOGLEVEL_WARNING);
    EXPECT_EQ(to_level({false, 1}), LOGLEVEL_INFO);
    EXPECT_EQ(to_level({false, 2}), LOGLEVEL_DEBUG);
    EXPECT_EQ(to_level({false, 3}), LOGLEVEL_DEBUG);
    EXPECT_EQ(to_level({true, 2}), LOGLEVEL_ERROR);
}

}  // namespace
