#include "progress.h"

#include "command/terminal.h"

#include <gtest/gtest.h>

#include <unistd.h>

#include <cstdint>
#include <string>

namespace {

TEST(DescribeProgress, GivesTheShareInPercent)
{
    EXPECT_EQ(describe_progress("a/b", 0, 3), "a/b: 0 %");
    EXPECT_EQ(describe_progress("a/b", 1, 3), "a/b: 33 %");
    EXPECT_EQ(describe_progress("a/b", 3, 3), "a/b: 100 %");
    EXPECT_EQ(describe_progress("a/b", 1, 1), "a/b: 100 %");
    EXPECT_EQ(describe_progress("a/b", 4, 3), "a/b: 100 %");
    EXPECT_EQ(describe_progress("a", UINT64_MAX, UINT64_MAX), "a: 100 %");
}

TEST(DescribeProgress, GivesTheNumberWhereTheTotalIsUnknown)
{
    EXPECT_EQ(describe_progress("a", 17, 0), "a: 17");
}

/// What a terminal of so many columns gets.
std::string show(unsigned short columns, const std::string& path)
{
    quorval_test::TerminalStreams terminal({STDERR_FILENO}, columns);
    {
        ProgressLine line;
        line.show(path, 1, 2);
    }
    return terminal.end();
}

TEST(ProgressLine, FitsTheTerminalAndIsWipedAtTheEnd)
{
    const std::string wipe = "\r\033[K";
    const std::string path(100, 'a');

    EXPECT_EQ(show(20, "left/gain"), wipe + "left/gain: 50 %\r" + wipe);
    EXPECT_EQ(show(10, "left/gain"), wipe + "left/gain\r" + wipe);
    EXPECT_EQ(show(1, "left/gain"), wipe + "\r" + wipe);
    EXPECT_EQ(show(0, path), wipe + std::string(79, 'a') + "\r" + wipe);
}

TEST(ProgressLine, LeavesTheTerminalAloneUntilItIsShown)
{
    quorval_test::TerminalStreams terminal({STDERR_FILENO});
    {
        const ProgressLine line;
    }
    EXPECT_EQ(terminal.end(), "");
}

}  // namespace
