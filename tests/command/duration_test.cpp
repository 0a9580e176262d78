#include "duration.h"

#include <gtest/gtest.h>

#include <chrono>
#include <optional>

namespace {

using namespace std::chrono_literals;

TEST(ParseDuration, ReadsANumberAndAUnit)
{
    EXPECT_EQ(parse_duration("500ms"), std::optional<std::chrono::nanoseconds>(500ms));
    EXPECT_EQ(parse_duration("10s"), std::optional<std::chrono::nanoseconds>(10s));
    EXPECT_EQ(parse_duration("5m"), std::optional<std::chrono::nanoseconds>(5min));
    EXPECT_EQ(parse_duration("1h"), std::optional<std::chrono::nanoseconds>(1h));
    EXPECT_EQ(parse_duration("0s"), std::optional<std::chrono::nanoseconds>(0s));
    EXPECT_EQ(parse_duration("876600h"), std::optional<std::chrono::nanoseconds>(876600h));
}

TEST(ParseDuration, RefusesEverythingElse)
{
    for (const char* text : {"", "s", "10", "10d", "10 s", " 10s", "10s ", "-1s", "+1s", "1.5s",
                             "1e3s", "0x10s", "876601h", "99999999999999999999s"}) {
        EXPECT_FALSE(parse_duration(text).has_value()) << text;
    }
}

}  // namespace
