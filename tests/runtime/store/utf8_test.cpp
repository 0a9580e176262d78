#include "store/utf8.h"

#include <gtest/gtest.h>

#include <string>
#include <string_view>
#include <vector>

using Quorval::runtime::utf8_size;

TEST(Utf8Size, IsThatOfTheFirstCharacter)
{
    // The first and the last one of each kind of first byte.
    const std::vector<std::string_view> characters = {std::string_view("\0", 1),
                                                      "\x7F",
                                                      "\xC2\x80",
                                                      "\xDF\xBF",
                                                      "\xE0\xA0\x80",
                                                      "\xE0\xBF\xBF",
                                                      "\xE1\x80\x80",
                                                      "\xEC\xBF\xBF",
                                                      "\xED\x80\x80",
                                                      "\xED\x9F\xBF",
                                                      "\xEE\x80\x80",
                                                      "\xEF\xBF\xBF",
                                                      "\xF0\x90\x80\x80",
                                                      "\xF0\xBF\xBF\xBF",
                                                      "\xF1\x80\x80\x80",
                                                      "\xF3\xBF\xBF\xBF",
                                                      "\xF4\x80\x80\x80",
                                                      "\xF4\x8F\xBF\xBF"};
    for (const std::string_view character : characters) {
        const std::string text(character);

        EXPECT_EQ(utf8_size(text), text.size()) << testing::PrintToString(text);
        EXPECT_EQ(utf8_size(text + "\x80"), text.size()) << testing::PrintToString(text);
        EXPECT_EQ(utf8_size(text.substr(0, text.size() - 1)), 0U) << testing::PrintToString(text);
    }
}

TEST(Utf8Size, IsNothingForWhatIsNoCharacter)
{
    for (const std::string_view text :
         {"", "\x80", "\xBF", "\xC0\x80", "\xC1\xBF", "\xC2\x7F", "\xDF\xC0", "\xE0\x9F\xBF",
          "\xE1\x80\x7F", "\xEC\x80\xC0", "\xED\xA0\x80", "\xEE\x7F\x80", "\xF0\x8F\xBF\xBF",
          "\xF1\x80\x7F\x80", "\xF3\x80\x80\xC0", "\xF4\x90\x80\x80", "\xF5\x80\x80\x80",
          "\xFF\xBF\xBF\xBF"}) {
        EXPECT_EQ(utf8_size(text), 0U) << testing::PrintToString(std::string(text));
    }
}
