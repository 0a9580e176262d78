#include "graph/values.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

using Quorval::BlockConfiguration;
using Quorval::runtime::get_value;
using Quorval::runtime::keys_of;
using Quorval::runtime::unread;

BlockConfiguration one_of_each()
{
    return {{"a.b", 1},      {"a-b", true},  {"a", 0.5},         {"B", "text"},
            {"e", {1, 2}},   {"f", {0.25}},  {"g", {"x", ""}},   {"h", {true, false}},
            {"ab", "later"}, {"a.b.c", "d"}, {"a0", "character"}};
}

TEST(Values, AreNamedInTheOrderOfBytes)
{
    EXPECT_EQ(keys_of(one_of_each()), (std::vector<std::string>{"B", "a", "a-b", "a.b", "a.b.c",
                                                                "a0", "ab", "e", "f", "g", "h"}));
}

TEST(Values, AreCopiedAsIfNobodyHadReadThem)
{
    const BlockConfiguration config = one_of_each();
    for (const std::string& key : keys_of(config)) {
        get_value(config, key);
    }
    ASSERT_TRUE(config.is_consumed());

    const BlockConfiguration copy = unread(config);

    EXPECT_FALSE(copy.is_consumed());
    EXPECT_EQ(copy, config);
}

}  // namespace
