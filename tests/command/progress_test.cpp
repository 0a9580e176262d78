#include "progress.h"

#include <gtest/gtest.h>

#include <cstdint>

namespace {

TEST(DescribeProgress, GivesTheShareInPercent)
{
    EXPECT_EQ(describe_progress("a/b", 0, 3), "a/b: 0 %");
    EXPECT_EQ(describe_progress("a/b", 1, 3), "a/b: 33 %");
    EXPECT_EQ(describe_progress("a/b", 3, 3), "a/b: 100 %");
    EXPECT_EQ(describe_progress("a/b", 4, 3), "a/b: 100 %");
    EXPECT_EQ(describe_progress("a", UINT64_MAX, UINT64_MAX), "a: 100 %");
}

TEST(DescribeProgress, GivesTheNumberWhereTheTotalIsUnknown)
{
    EXPECT_EQ(describe_progress("a", 17, 0), "a: 17");
}

}  // namespace
