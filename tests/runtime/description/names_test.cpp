#include "description/names.h"

#include <gtest/gtest.h>

#include <climits>
#include <string>

using Quorval::runtime::is_key;
using Quorval::runtime::is_name;
using Quorval::runtime::name_of_file;

namespace {

TEST(Names, AreMadeOfLettersDigitsAndTwoSigns)
{
    const std::string valid = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789_-";
    for (int code = CHAR_MIN; code <= CHAR_MAX; ++code) {
        const std::string one(1, static_cast<char>(code));
        const bool is_valid = valid.find(one) != std::string::npos;

        EXPECT_EQ(is_name(one), is_valid) << code;
        EXPECT_EQ(is_name("a" + one + "b"), is_valid) << code;
        EXPECT_EQ(is_key(one), is_valid || one == ".") << code;
    }
    EXPECT_FALSE(is_name(""));
    EXPECT_TRUE(is_key(""));
}

TEST(Names, AreMadeOfFiles)
{
    EXPECT_EQ(name_of_file("/a/b-1.toml"), "b-1");
    EXPECT_EQ(name_of_file("a.b.toml"), "a_b");
    EXPECT_EQ(name_of_file("\xE2\x82\xAC x.toml"), "__x");
    EXPECT_EQ(name_of_file("/"), "_");
    EXPECT_EQ(name_of_file("\x80.toml"), "_");
}

}  // namespace
