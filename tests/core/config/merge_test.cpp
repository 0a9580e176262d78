#include <quorval/config.h>
#include "core/config/contents.h"
#include "support/support.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <string>
#include <utility>
#include <vector>

namespace {

using Quorval::BlockConfiguration;
using quorval_test::contents;
using quorval_test::keys;
using quorval_test::Lines;
using quorval_test::unread_keys;

/// All forms of equality at once.
void expect_equal(const BlockConfiguration& a, const BlockConfiguration& b)
{
    EXPECT_TRUE(a == b);
    EXPECT_TRUE(b == a);
    EXPECT_FALSE(a != b);
    EXPECT_FALSE(b != a);
}

void expect_unequal(const BlockConfiguration& a, const BlockConfiguration& b)
{
    EXPECT_FALSE(a == b);
    EXPECT_FALSE(b == a);
    EXPECT_TRUE(a != b);
    EXPECT_TRUE(b != a);
}

TEST(ConfigEquality, HoldsForTheSameKeysTypesAndValues)
{
    const auto make = [] {
        return BlockConfiguration{{"i", 1},      {"b", true},          {"d", 0.5},
                                  {"s", "text"}, {"iv", {1, 2}},       {"dv", {0.5}},
                                  {"sv", {"a"}}, {"bv", {true, false}}};
    };

    expect_equal(make(), make());
    expect_equal(BlockConfiguration(), BlockConfiguration());
    const BlockConfiguration config = make();
    expect_equal(config, config);
}

TEST(ConfigEquality, FailsWhenOneElementDiffers)
{
    const std::vector<std::pair<BlockConfiguration, BlockConfiguration>> pairs = {
        {{{"x", 1}}, {{"x", 2}}},
        {{{"x", true}}, {{"x", false}}},
        {{{"x", 0.5}}, {{"x", 0.25}}},
        {{{"x", "a"}}, {{"x", "b"}}},
        {{{"x", "a"}}, {{"x", "ab"}}},
        {{{"x", ""}}, {{"x", std::string(1, '\0')}}},
        {{{"x", {1, 2}}}, {{"x", {1, 3}}}},
        {{{"x", {1, 2}}}, {{"x", {1}}}},
        {{{"x", {0.5}}}, {{"x", {1.5}}}},
        {{{"x", {0.5}}}, {{"x", {0.5, 0.5}}}},
        {{{"x", {"a", "b"}}}, {{"x", {"a", "c"}}}},
        {{{"x", {"a", "b"}}}, {{"x", {"ab"}}}},
        {{{"x", {true, false}}}, {{"x", {true, true}}}},
        {{{"x", {true}}}, {{"x", {true, false}}}},
        {{{"x", 1}}, {{"y", 1}}},
        {{{"x", 1}}, {{"x", 1}, {"y", 1}}},
        {{{"x", 1}}, {}},
    };

    for (const auto& [a, b] : pairs) {
        SCOPED_TRACE(testing::PrintToString(contents(a)) + " and " +
                     testing::PrintToString(contents(b)));
        expect_unequal(a, b);
    }
}

TEST(ConfigEquality, FailsForValuesOfOtherTypes)
{
    const std::vector<BlockConfiguration> values = {{{"x", 1}},
                                                    {{"x", true}},
                                                    {{"x", 1.0}},
                                                    {{"x", "1"}},
                                                    {{"x", {1}}},
                                                    {{"x", {1.0}}},
                                                    {{"x", {"1"}}},
                                                    {{"x", {true}}},
                                                    {{"x", std::vector<int>{}}},
                                                    {{"x", std::vector<double>{}}},
                                                    {{"x", std::vector<std::string>{}}},
                                                    {{"x", std::vector<bool>{}}}};

    for (const BlockConfiguration& a : values) {
        for (const BlockConfiguration& b : values) {
            if (&a != &b) {
                SCOPED_TRACE(contents(a)[0] + " and " + contents(b)[0]);
                expect_unequal(a, b);
            }
        }
    }
}

TEST(ConfigEquality, IgnoresTheMarks)
{
    const BlockConfiguration read = {{"x", 1}};
    const BlockConfiguration unread = {{"x", 1}};

    read.getInt("x");

    expect_equal(read, unread);
    EXPECT_EQ(unread_keys(read), Lines{});
    EXPECT_EQ(unread_keys(unread), Lines{"x"});
}

TEST(ConfigEquality, ComparesDoublesAsNumbers)
{
    const double nan = std::numeric_limits<double>::quiet_NaN();
    const BlockConfiguration scalar = {{"x", nan}};
    const BlockConfiguration vector = {{"x", std::vector<double>{1.0, nan}}};

    expect_unequal(scalar, BlockConfiguration(scalar));
    expect_unequal(vector, BlockConfiguration(vector));
    expect_unequal(scalar, scalar);
    expect_equal({{"x", 0.0}}, {{"x", -0.0}});
    expect_equal({{"x", {0.0, -0.0}}}, {{"x", {-0.0, 0.0}}});
}

TEST(ConfigMerge, OverwritesAddsAndKeeps)
{
    BlockConfiguration config = {{"a", 1}, {"b", 2}};

    BlockConfiguration& result = (config += {{"b", "text"}, {"c", 3}});

    EXPECT_EQ(&result, &config);
    EXPECT_EQ(contents(config), (Lines{"a (int) = 1", "b (string) = text", "c (int) = 3"}));
}

TEST(ConfigMerge, TakesTheRightSideWhateverTheTwoTypes)
{
    const std::vector<BlockConfiguration> values = {{{"x", 1}},      {{"x", true}},  {{"x", 0.5}},
                                                    {{"x", "text"}}, {{"x", {1}}},   {{"x", {0.5}}},
                                                    {{"x", {"a"}}},  {{"x", {true}}}};

    for (const BlockConfiguration& left : values) {
        for (const BlockConfiguration& right : values) {
            EXPECT_EQ(contents(left + right), contents(right)) << contents(left)[0];
        }
    }
}

TEST(ConfigMerge, MergesListsByIndexAndKeepsTheLongerTail)
{
    BlockConfiguration config = {{"l", {{{"x", 1}}, {{"x", 2}}, {{"x", 3}}}}};

    config += {{"l", {{{"x", 9}}}}};

    EXPECT_EQ(contents(config), (Lines{"l.0.x (int) = 9", "l.1.x (int) = 2", "l.2.x (int) = 3"}));
}

TEST(ConfigMerge, TakesTheMarksOfTheRightSide)
{
    BlockConfiguration config = {{"left", 1}, {"left-read", 1}, {"both", 1}, {"both-read", 1}};
    const BlockConfiguration other = {
        {"right", 2}, {"right-read", 2}, {"both", 2}, {"both-read", 2}};
    config.getInt("left-read");
    config.getInt("both");
    other.getInt("right-read");
    other.getInt("both-read");

    config += other;

    EXPECT_EQ(unread_keys(config), (Lines{"both", "left", "right"}));
    EXPECT_EQ(unread_keys(other), (Lines{"both", "right"}));
    EXPECT_EQ(contents(other), (Lines{"both (int) = 2", "both-read (int) = 2", "right (int) = 2",
                                      "right-read (int) = 2"}));
}

TEST(ConfigMerge, CopiesTheValues)
{
    BlockConfiguration config;
    BlockConfiguration other = {{"s", "text"}};

    config += other;
    other.set("s", "changed");
    other.getString("s");

    EXPECT_EQ(contents(config), Lines{"s (string) = text"});
    EXPECT_FALSE(config.is_consumed());
}

TEST(ConfigMerge, WithItselfChangesNothing)
{
    BlockConfiguration config = {{"a", 1}, {"b", "text"}};
    config.getInt("a");
    const BlockConfiguration& alias = config;

    config += alias;

    EXPECT_EQ(contents(config), (Lines{"a (int) = 1", "b (string) = text"}));
    EXPECT_EQ(unread_keys(config), Lines{"b"});
    EXPECT_EQ(contents(config + config), contents(config));
}

TEST(ConfigMerge, WithNothingChangesNothing)
{
    BlockConfiguration config = {{"a", 1}};
    BlockConfiguration empty;

    config += empty;
    empty += config;

    EXPECT_EQ(contents(config), Lines{"a (int) = 1"});
    EXPECT_EQ(contents(empty), Lines{"a (int) = 1"});
}

TEST(ConfigMerge, DoesNotCheckKeysAgain)
{
    BlockConfiguration odd = {{"x", 1}};
    odd.rebase("not valid");

    BlockConfiguration config = {{"a", 1}};
    config += odd;

    EXPECT_EQ(keys(config), (Lines{"a", "not valid.x"}));
}

TEST(ConfigMerge, InterleavesManyKeys)
{
    BlockConfiguration even;
    BlockConfiguration odd;
    BlockConfiguration expected;
    for (int number = 0; number < 200; ++number) {
        const std::string key = "k." + std::to_string(number);
        // Runs of equal sides, so that the next key is near or far.
        (number / 20 % 2 == 0 ? even : odd).set(key, number);
        expected.set(key, number);
    }

    EXPECT_EQ(even + odd, expected);
    EXPECT_EQ(odd + even, expected);
}

TEST(ConfigSum, LeavesBothSidesAlone)
{
    const BlockConfiguration a = {{"x", 1}, {"y", 1}};
    const BlockConfiguration b = {{"y", 2}, {"z", 2}};
    a.getInt("x");
    b.getInt("z");

    const BlockConfiguration sum = a + b;

    EXPECT_EQ(contents(sum), (Lines{"x (int) = 1", "y (int) = 2", "z (int) = 2"}));
    EXPECT_EQ(unread_keys(sum), Lines{"y"});
    EXPECT_EQ(contents(a), (Lines{"x (int) = 1", "y (int) = 1"}));
    EXPECT_EQ(contents(b), (Lines{"y (int) = 2", "z (int) = 2"}));
    EXPECT_EQ(unread_keys(a), Lines{"y"});
    EXPECT_EQ(unread_keys(b), Lines{"y"});
}

TEST(ConfigDiff, HoldsWhatIsNewOrChanged)
{
    const BlockConfiguration a = {{"a", 1}, {"b", 2}};

    EXPECT_EQ(contents(a.diff({{"b", 3}, {"c", 4}})), (Lines{"a (int) = 1", "b (int) = 2"}));
    EXPECT_EQ(contents(a.diff({{"b", 2}})), Lines{"a (int) = 1"});
    EXPECT_EQ(contents(a.diff({{"b", 2.0}})), (Lines{"a (int) = 1", "b (int) = 2"}));
    EXPECT_EQ(contents(a.diff({{"a", 1}, {"aa", 1}, {"b", 2}, {"z", 1}})), Lines{});
    EXPECT_EQ(contents(a.diff({})), (Lines{"a (int) = 1", "b (int) = 2"}));
    EXPECT_EQ(contents(BlockConfiguration().diff(a)), Lines{});
}

TEST(ConfigDiff, WithItselfIsEmptyUnlessItHoldsANan)
{
    const BlockConfiguration config = {{"a", 1}, {"v", {0.5, 1.5}}};
    const BlockConfiguration with_nan = {{"a", 1}, {"n", std::nan("")}};

    EXPECT_EQ(contents(config.diff(config)), Lines{});
    EXPECT_EQ(contents(with_nan.diff(with_nan)), Lines{"n (double) = nan"});
}

TEST(ConfigDiff, KeepsTheMarksAndSetsNone)
{
    const BlockConfiguration a = {{"read", 1}, {"unread", 1}, {"same", 1}};
    const BlockConfiguration b = {{"read", 2}, {"same", 1}};
    a.getInt("read");
    b.getInt("same");

    const BlockConfiguration difference = a.diff(b);

    EXPECT_EQ(contents(difference), (Lines{"read (int) = 1", "unread (int) = 1"}));
    EXPECT_EQ(unread_keys(difference), Lines{"unread"});
    EXPECT_EQ(unread_keys(a), (Lines{"same", "unread"}));
    EXPECT_EQ(unread_keys(b), Lines{"read"});
}

TEST(ConfigDiff, IgnoresTheMarks)
{
    const BlockConfiguration read = {{"x", 1}};
    read.getInt("x");

    EXPECT_EQ(contents(read.diff({{"x", 1}})), Lines{});
}

TEST(ConfigDiff, MergedBackGivesTheWhole)
{
    const BlockConfiguration a = {{"x", 1}, {"y", "new"}, {"z", {1, 2}}};
    const BlockConfiguration b = {{"x", 1}, {"y", "old"}};

    EXPECT_EQ(b + a.diff(b), a);
}

TEST(ConfigRebase, MovesEveryElementUnderThePrefix)
{
    struct Row {
        std::string prefix;
        Lines keys;
    };
    const std::vector<Row> rows = {
        {"p", {"p.l.0.y", "p.x"}},
        {"", {".l.0.y", ".x"}},
        {"p.q", {"p.q.l.0.y", "p.q.x"}},
        {"p.", {"p..l.0.y", "p..x"}},
        {".", {"..l.0.y", "..x"}},
        {"not valid/\xff", {"not valid/\xff.l.0.y", "not valid/\xff.x"}}};

    for (const Row& row : rows) {
        BlockConfiguration config = {{"x", 1}, {"l", {{{"y", "text"}}}}};

        config.rebase(row.prefix);

        EXPECT_EQ(keys(config), row.keys) << "prefix '" << row.prefix << "'";
        EXPECT_EQ(config.getInt(row.prefix + ".x"), 1);
        EXPECT_EQ(config.getString(row.prefix + ".l.0.y"), "text");
        EXPECT_EQ(config.getInt("x", -1), -1);
    }
}

TEST(ConfigRebase, KeepsValuesOfEveryTypeAndTheMarks)
{
    BlockConfiguration config = {{"b", true}, {"bv", {true, false}}, {"d", 0.5}, {"dv", {0.5}},
                                 {"i", 1},    {"iv", {1}},           {"s", "x"}, {"sv", {"x"}}};
    config.getInt("i");
    config.getStringVector("sv");

    config.rebase("p");

    EXPECT_EQ(contents(config),
              (Lines{"p.b (bool) = 1", "p.bv (BoolVector) = {1, 0}", "p.d (double) = 0.5",
                     "p.dv (DoubleVector) = {0.5}", "p.i (int) = 1", "p.iv (IntVector) = {1}",
                     "p.s (string) = x", "p.sv (StringVector) = {x}"}));
    EXPECT_EQ(unread_keys(config), (Lines{"p.b", "p.bv", "p.d", "p.dv", "p.iv", "p.s"}));
}

TEST(ConfigRebase, NeverMerges)
{
    BlockConfiguration config = {{"p.x", 1}, {"x", 2}, {"", 3}};

    config.rebase("p");

    EXPECT_EQ(contents(config), (Lines{"p. (int) = 3", "p.p.x (int) = 1", "p.x (int) = 2"}));
}

TEST(ConfigRebase, DoesNothingToAnEmptyConfiguration)
{
    BlockConfiguration config;

    config.rebase("p");

    EXPECT_EQ(config, BlockConfiguration());
}

TEST(ConfigRebase, TakesAPrefixThatTheConfigurationHolds)
{
    const std::string name = "a.key.that.is.long.enough.to.lie.on.the.heap";
    BlockConfiguration by_key = {{name, 1}};
    BlockConfiguration by_value = {{"x", name}};

    by_key.rebase(by_key.iterate("")->key());
    by_value.rebase(by_value.iterate("")->getString());

    EXPECT_EQ(keys(by_key), Lines{name + "." + name});
    EXPECT_EQ(contents(by_value), Lines{name + ".x (string) = " + name});
}

}  // namespace
