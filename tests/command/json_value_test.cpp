#include "json_value.h"

#include <gtest/gtest.h>

#include <limits>
#include <string>
#include <vector>

namespace {

using Quorval::BlockConfiguration;

/// The text of a value, as it is set and read back.
template <class T>
std::string text_of(const T& value)
{
    BlockConfiguration config;
    config.set("key", value);
    return to_json_value(config, "key").dump();
}

TEST(JsonValue, KnowsEachKind)
{
    EXPECT_EQ(text_of(-3), "-3");
    EXPECT_EQ(text_of(true), "true");
    EXPECT_EQ(text_of(2.0), "2.0");
    EXPECT_EQ(text_of(std::string("a\"b")), "\"a\\\"b\"");
    EXPECT_EQ(text_of(std::vector<int>{1, -2}), "[1,-2]");
    EXPECT_EQ(text_of(std::vector<double>{0.5, 1}), "[0.5,1.0]");
    EXPECT_EQ(text_of(std::vector<std::string>{"a", ""}), "[\"a\",\"\"]");
    EXPECT_EQ(text_of(std::vector<bool>{true, false}), "[true,false]");
    EXPECT_EQ(text_of(std::vector<double>{}), "[]");
}

TEST(JsonValue, HasNullForNumbersThatJsonDoesNotKnow)
{
    EXPECT_EQ(text_of(std::numeric_limits<double>::infinity()), "null");
    EXPECT_EQ(text_of(std::vector<double>{std::numeric_limits<double>::quiet_NaN()}), "[null]");
}

}  // namespace
