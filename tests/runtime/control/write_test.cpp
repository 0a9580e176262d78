#include "control/write.h"

#include <gtest/gtest.h>

#include <limits>
#include <string>
#include <utility>
#include <vector>

using Quorval::runtime::quote;
using Quorval::runtime::to_json;
using Quorval::runtime::to_utf8;
using Quorval::runtime::Value;

namespace {

TEST(Write, ReplacesBytesThatAreNoUtf8)
{
    const std::vector<std::pair<std::string, std::string>> cases = {
        {"", ""},
        {"plain", "plain"},
        {"\xC3\xA4\xE2\x82\xAC\xF0\x9F\x98\x80", "\xC3\xA4\xE2\x82\xAC\xF0\x9F\x98\x80"},
        {"a\xFF"
         "b",
         "a\xEF\xBF\xBD"
         "b"},
        {"cut \xE2\x82", "cut \xEF\xBF\xBD\xEF\xBF\xBD"},
    };
    for (const auto& [text, expected] : cases) {
        EXPECT_EQ(to_utf8(text), expected) << text;
    }
}

TEST(Write, QuotesTexts)
{
    EXPECT_EQ(quote("say \"\\\"\n"), R"("say \"\\\"\n")");
    EXPECT_EQ(quote("\xFF"), "\"\xEF\xBF\xBD\"");
}

TEST(Write, HasValuesAsJson)
{
    using Numbers = std::vector<double>;
    using Texts = std::vector<std::string>;
    constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();
    constexpr double kInfinity = std::numeric_limits<double>::infinity();
    const std::vector<std::pair<Value, std::string>> cases = {
        {true, "true"},
        {17, "17"},
        {0.5, "0.5"},
        {kNaN, "null"},
        {-kInfinity, "null"},
        {std::string("a\tb"), R"("a\tb")"},
        {std::vector<int>{1, 2}, "[1, 2]"},
        {Numbers{}, "[]"},
        {Numbers{1.5, kInfinity, -2.0}, "[1.5, null, -2.0]"},
        {Texts{}, "[]"},
        {Texts{"a", "\"b\""}, R"(["a", "\"b\""])"},
    };
    for (const auto& [value, expected] : cases) {
        EXPECT_EQ(to_json(value), expected);
    }
}

}  // namespace
