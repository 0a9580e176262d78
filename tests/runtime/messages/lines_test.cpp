#include "messages/lines.h"

#include <gtest/gtest.h>

using namespace Quorval::runtime;

namespace {

TEST(MessageLines, BeginWithLevelAndPath)
{
    EXPECT_EQ(to_lines(LOGLEVEL_FATAL, nullptr, "text"), "quorval: fatal: text\n");
    EXPECT_EQ(to_lines(LOGLEVEL_CRITICAL, nullptr, "text"), "quorval: critical: text\n");
    EXPECT_EQ(to_lines(LOGLEVEL_ERROR, "left/gain", "text"), "quorval: error: left/gain: text\n");
    EXPECT_EQ(to_lines(LOGLEVEL_WARNING, "gain", "text"), "quorval: warning: gain: text\n");
    EXPECT_EQ(to_lines(LOGLEVEL_INFO, "gain", "text"), "quorval: gain: text\n");
    EXPECT_EQ(to_lines(LOGLEVEL_INFO, nullptr, "text"), "quorval: text\n");
    EXPECT_EQ(to_lines(LOGLEVEL_DEBUG, nullptr, "text"), "quorval: debug: text\n");
}

TEST(MessageLines, AllHaveTheSameBeginning)
{
    EXPECT_EQ(to_lines(LOGLEVEL_WARNING, "a", "one\n\ntwo\n"),
              "quorval: warning: a: one\nquorval: warning: a: \nquorval: warning: a: two\n");
}

TEST(MessageLines, AreOneForAnEmptyMessage)
{
    EXPECT_EQ(to_lines(LOGLEVEL_INFO, nullptr, ""), "quorval: \n");
    EXPECT_EQ(to_lines(LOGLEVEL_INFO, nullptr, "\n"), "quorval: \n");
}

TEST(MessageLines, ShowControlCharactersAsNumbers)
{
    EXPECT_EQ(to_lines(LOGLEVEL_INFO, nullptr, "a\x1b[1mb\r\tc"),
              "quorval: a\\x1B[1mb\\x0D\\x09c\n");
}

TEST(MessageLines, ShowControlCharactersOfTwoBytesAsNumbersAndOtherLettersAsTheyAre)
{
    EXPECT_EQ(to_lines(LOGLEVEL_INFO, nullptr,
                       "a\xC2\x85"
                       "b\xC2\x80\xC2\x9F\x7F"),
              "quorval: a\\xC2\\x85b\\xC2\\x80\\xC2\\x9F\\x7F\n");
    EXPECT_EQ(to_lines(LOGLEVEL_INFO, nullptr, "\xC2\xB5m \xC3\x84 \xC2"),
              "quorval: \xC2\xB5m \xC3\x84 \xC2\n");
}

TEST(MessageEntry, HasThePathInFrontAndItsLinesAsTheyAre)
{
    EXPECT_EQ(to_entry("left/gain", "one\ntwo\n"), "left/gain: one\ntwo");
    EXPECT_EQ(to_entry(nullptr, "one\x07"), "one\\x07");
}

}  // namespace
