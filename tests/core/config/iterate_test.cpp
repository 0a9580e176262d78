#include <quorval/config.h>
#include "core/config/contents.h"
#include "support/support.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <iterator>
#include <memory>
#include <stdexcept>
#include <string>
#include <type_traits>
#include <utility>
#include <variant>
#include <vector>

namespace {

using Quorval::BlockConfiguration;
using quorval_test::contents;
using quorval_test::expect_throw;
using quorval_test::keys;
using quorval_test::Lines;
using quorval_test::unread_keys;
using Type = BlockConfiguration::Type;
using SubtreeIterator = BlockConfiguration::SubtreeIterator;
using Accessor = SubtreeIterator::Accessor;
using InternalIterator = SubtreeIterator::InternalIterator;

BlockConfiguration with_keys(const Lines& keys)
{
    BlockConfiguration config;
    for (const std::string& key : keys) {
        config.set(key, 1);
    }
    return config;
}

/// The children of a prefix, by their own names.
Lines children(const BlockConfiguration& config, const std::string& prefix)
{
    Lines names;
    for (const Accessor& child : config.iterate_subtree(prefix)) {
        names.push_back(child.key());
    }
    return names;
}

/// The keys that a walk over elements visits.
Lines visited(const BlockConfiguration& config, const std::string& prefix)
{
    Lines result;
    for (const auto cursor = config.iterate(prefix); !cursor->is_end(); cursor->advance()) {
        result.push_back(cursor->key());
    }
    return result;
}

TEST(ConfigSubtree, HoldsWhatLiesBelowThePrefix)
{
    const BlockConfiguration config = {
        {"p.a", 1}, {"p.b.c", "text"}, {"q", 2}, {"p", 3}, {"pq.a", 4}};

    EXPECT_EQ(contents(config.getSubtree("p")), (Lines{"a (int) = 1", "b.c (string) = text"}));
    EXPECT_EQ(contents(config.getSubtree("p.")), (Lines{"a (int) = 1", "b.c (string) = text"}));
    EXPECT_EQ(contents(config.getSubtree("p.b")), Lines{"c (string) = text"});
    EXPECT_EQ(contents(config.getSubtree("p.a")), Lines{});
    EXPECT_EQ(contents(config.getSubtree("absent")), Lines{});
    EXPECT_EQ(contents(config.getSubtree("not valid")), Lines{});
    EXPECT_EQ(contents(BlockConfiguration().getSubtree("p")), Lines{});
}

TEST(ConfigSubtree, KeepsValuesOfEveryType)
{
    const BlockConfiguration config = {{"p",
                                        {{"b", true},
                                         {"bv", {true, false}},
                                         {"d", 0.5},
                                         {"dv", {0.5}},
                                         {"i", 1},
                                         {"iv", {1}},
                                         {"s", "x"},
                                         {"sv", {"x"}}}}};

    EXPECT_EQ(contents(config.getSubtree("p")),
              (Lines{"b (bool) = 1", "bv (BoolVector) = {1, 0}", "d (double) = 0.5",
                     "dv (DoubleVector) = {0.5}", "i (int) = 1", "iv (IntVector) = {1}",
                     "s (string) = x", "sv (StringVector) = {x}"}));
}

TEST(ConfigSubtree, IsUnreadAndLeavesTheMarksOfTheSource)
{
    const BlockConfiguration config = {{"p", {{"read", 1}, {"unread", 2}}}};
    config.getInt("p.read");

    const BlockConfiguration subtree = config.getSubtree("p");

    EXPECT_EQ(unread_keys(subtree), (Lines{"read", "unread"}));
    EXPECT_EQ(unread_keys(config), Lines{"p.unread"});
}

TEST(ConfigSubtree, MatchesThePrefixAnywhereInTheKey)
{
    struct Row {
        Lines keys;
        std::string prefix;
        Lines subtree;
    };
    const std::vector<Row> rows = {
        {{"x.p.a"}, "p", {"p.a"}},
        {{"xyz.p.a"}, "p", {"z.p.a"}},
        {{"xp.a"}, "p", {".a"}},
        {{"abp."}, "p", {"p."}},
        {{"a.b", "a.c", "za.d"}, "a", {".d", "b", "c"}},
        {{"p."}, "p", {""}},
    };

    for (const Row& row : rows) {
        EXPECT_EQ(keys(with_keys(row.keys).getSubtree(row.prefix)), row.subtree)
            << testing::PrintToString(row.keys);
    }
}

TEST(ConfigSubtree, KeepsTheLaterOfTwoElementsThatGetTheSameKey)
{
    BlockConfiguration config;
    config.set("p.z", 1);
    config.set("xp.z", "other length");
    config.set("p.p.z", 2);
    config.set("q.p.z", "later");

    // `p.p.z` and `q.p.z` both lose two characters.
    EXPECT_EQ(contents(config.getSubtree("p")),
              (Lines{".z (string) = other length", "p.z (string) = later", "z (int) = 1"}));
}

TEST(ConfigSubtree, IsACopy)
{
    BlockConfiguration config = {{"p.s", "text"}};

    BlockConfiguration subtree = config.getSubtree("p");
    config.set("p.s", "changed");

    EXPECT_EQ(subtree.getString("s"), "text");
}

TEST(SubtreeWalk, YieldsEachChildOnceAndNoLeaf)
{
    const BlockConfiguration config = with_keys({"p.0.a", "p.0.b", "p.1.a", "p.x", "p", "q.2.a"});

    EXPECT_EQ(children(config, "p"), (Lines{"0", "1"}));
    EXPECT_EQ(children(config, "p."), (Lines{"0", "1"}));
}

TEST(SubtreeWalk, FindsTheChildrenOfEveryKindOfPrefix)
{
    struct Row {
        Lines keys;
        std::string prefix;
        Lines children;
    };
    const std::vector<Row> rows = {
        // Nothing there.
        {{}, "p", {}},
        {{"a.b.c", "z.b.c"}, "p", {}},
        {{"p"}, "p", {}},
        {{"p.x"}, "p", {}},
        {{"p.x", "p.y", "p.z"}, "p", {}},
        // The component has to be a whole one.
        {{"pq.a.b", "p-.a.b", "p.a.b"}, "p", {"a"}},
        {{"p.a.b"}, "p.a", {}},
        {{"p.a.b.c"}, "p.a", {"b"}},
        {{"p.a.b.c.d.e"}, "p", {"a"}},
        // A leaf beside children, before them, between them and behind them.
        {{"p.0", "p.1.a", "p.2", "p.3.a", "p.4"}, "p", {"1", "3"}},
        {{"p.a", "p.a.b"}, "p", {"a"}},
        {{"p.a."}, "p", {"a"}},
        // Empty components are skipped, whatever follows them.
        {{"p..x"}, "p", {}},
        {{"p..x.y"}, "p", {}},
        {{"p..x.y", "p..z", "p.a.b"}, "p", {"a"}},
        {{"p.-.x", "p..x", "p...", "p.0.a"}, "p", {"-", "0"}},
        {{"p.."}, "p", {}},
        {{"p..x.y"}, "p..", {"x"}},
        // The order of the bytes.
        {{"p.a.x", "p.a-b.x", "p.a", "p.ab.x", "p.A.x"}, "p", {"A", "a-b", "a", "ab"}},
        {{"p.a-.x", "p.a.x", "p.a-.y", "p.a.y"}, "p", {"a-", "a"}},
        // The empty prefix is the prefix ".".
        {{"a.b", "a.b.c"}, "", {}},
        {{".a.b", ".c.d", "a.b"}, "", {"a", "c"}},
        {{".a.b", ".c.d", "a.b"}, ".", {"a", "c"}},
        {{"not-there.b"}, "not valid", {}},
    };

    for (const Row& row : rows) {
        SCOPED_TRACE(testing::PrintToString(row.keys) + " below '" + row.prefix + "'");
        const BlockConfiguration config = with_keys(row.keys);

        EXPECT_EQ(children(config, row.prefix), row.children);
        EXPECT_EQ(
            config.iterate_subtree(row.prefix).begin() == config.iterate_subtree(row.prefix).end(),
            row.children.empty());
    }
}

TEST(SubtreeWalk, OrdersIndicesByTheirBytes)
{
    BlockConfiguration config;
    for (int index = 0; index <= 10; ++index) {
        config.set("p." + std::to_string(index) + ".x", index);
        config.set("p." + std::to_string(index) + ".y", index);
    }

    std::vector<int> indices;
    for (const Accessor& entry : config.iterate_subtree("p")) {
        EXPECT_EQ(entry.getInt("x"), entry.index());
        indices.push_back(entry.index());
    }

    EXPECT_EQ(indices, (std::vector<int>{0, 1, 10, 2, 3, 4, 5, 6, 7, 8, 9}));
}

TEST(SubtreeWalk, StepsOverChildrenWithManyElements)
{
    BlockConfiguration config;
    for (const std::string child : {"a", "b", "c"}) {
        for (int number = 0; number < 100; ++number) {
            config.set("p." + child + "." + std::to_string(number), number);
        }
    }

    EXPECT_EQ(children(config, "p"), (Lines{"a", "b", "c"}));
}

TEST(SubtreeWalk, WalksKeysMadeByRebase)
{
    for (const std::string prefix :
         {"", ".", "\xff", "a\xff", "\xff\xff", "a b", "a.\xff", "\xff.b"}) {
        SCOPED_TRACE(testing::PrintToString(prefix));
        BlockConfiguration config = {{"l", {{{"x", 1}}, {{"x", 2}}}}, {"leaf", 3}};
        config.rebase(prefix);

        EXPECT_EQ(children(config, prefix + ".l"), (Lines{"0", "1"}));
        EXPECT_EQ(children(config, prefix + "."), Lines{"l"});
        EXPECT_EQ(contents(config.getSubtree(prefix + ".l")),
                  (Lines{"0.x (int) = 1", "1.x (int) = 2"}));
    }
}

TEST(SubtreeWalk, WalksComponentsOfOddBytes)
{
    BlockConfiguration config = {{"x", 1}};
    config.rebase("p.\xff");
    BlockConfiguration other = {{"x", 1}};
    other.rebase("p.a b");
    config += other;

    EXPECT_EQ(children(config, "p"), (Lines{"a b", "\xff"}));
}

TEST(SubtreeWalk, ConsumesNothingByItself)
{
    const BlockConfiguration config = with_keys({"p.0.a", "p.0.b", "p.1.a", "p.x"});

    children(config, "p");

    EXPECT_EQ(unread_keys(config), keys(config));
}

TEST(SubtreeWalk, ConsumesWhatTheBodyReads)
{
    const BlockConfiguration config = with_keys({"p.0.a", "p.0.b", "p.1.a", "p.x"});

    for (const Accessor& child : config.iterate_subtree("p")) {
        EXPECT_EQ(child.getInt("a"), 1);
        EXPECT_EQ(child.getInt("c", 7), 7);
    }

    EXPECT_EQ(unread_keys(config), (Lines{"p.0.b", "p.x"}));
}

TEST(SubtreeWalk, CanBeNested)
{
    const BlockConfiguration config = {{"rows",
                                        {{{"cells", {{{"v", 1}}, {{"v", 2}}}}},
                                         {{"cells", {{{"v", 3}}}}},
                                         {{"name", "no cells"}}}}};

    Lines seen;
    for (const Accessor& row : config.iterate_subtree("rows")) {
        for (const Accessor& cell : row.iterate_subtree("cells")) {
            seen.push_back(cell.full_key() + "=" + std::to_string(cell.getInt("v")));
        }
    }

    EXPECT_EQ(seen, (Lines{"rows.0.cells.0=1", "rows.0.cells.1=2", "rows.1.cells.0=3"}));
    EXPECT_EQ(unread_keys(config), Lines{"rows.2.name"});
}

TEST(SubtreeWalk, OutlivesTheStringOfThePrefixAndTheRange)
{
    const BlockConfiguration config = with_keys(
        {"a.prefix.long.enough.for.the.heap.0.x", "a.prefix.long.enough.for.the.heap.1.x"});

    Lines seen;
    for (const Accessor& child :
         SubtreeIterator(config, std::string("a.prefix.long.enough") + ".for.the.heap")) {
        seen.push_back(child.key());
    }
    auto first = config.iterate_subtree(std::string("a.prefix.long.enough.for.the.heap")).begin();
    ++first;

    EXPECT_EQ(seen, (Lines{"0", "1"}));
    EXPECT_EQ((*first).full_key(), "a.prefix.long.enough.for.the.heap.1");
}

TEST(SubtreeWalk, CanBeRepeatedAndSeesChangesInBetween)
{
    BlockConfiguration config = with_keys({"p.0.x"});
    const SubtreeIterator range = config.iterate_subtree("p");
    const auto walk = [&range] {
        Lines names;
        for (const Accessor& child : range) {
            names.push_back(child.key());
        }
        return names;
    };

    EXPECT_EQ(walk(), Lines{"0"});
    EXPECT_EQ(walk(), Lines{"0"});
    config.set("p.1.x", 1);
    EXPECT_EQ(walk(), (Lines{"0", "1"}));
    config.delete_element("p");
    EXPECT_EQ(walk(), Lines{});
}

TEST(SubtreeWalk, CanBeCopiedAsARange)
{
    const BlockConfiguration config = with_keys({"p.0.x", "p.1.x"});
    const SubtreeIterator range = config.iterate_subtree("p");

    const SubtreeIterator copy = range;

    EXPECT_EQ((*copy.begin()).full_key(), "p.0");
    EXPECT_TRUE(copy.begin() == range.begin());
}

TEST(SubtreeWalk, MeetsElementsThatTheBodySetsAndAdds)
{
    BlockConfiguration config = with_keys({"p.1.x", "p.3.x", "q.0.x"});

    Lines seen;
    for (const Accessor& child : config.iterate_subtree("p")) {
        seen.push_back(child.key());
        config.set(child.path("x"), "set");
        config.set(child.path("w"), "before the place of the walk");
        config.set(child.path("y"), "behind it");
        config.set("p.0.x", "not visited any more");
        config.set("p.2.x", "visited");
        config.set("p.4.x", "visited at the end");
        config.set("p.", 1);
        config.set("p5.x.y", 1);
    }

    EXPECT_EQ(seen, (Lines{"1", "2", "3", "4"}));
    EXPECT_EQ(config.getString("p.3.x"), "set");
    EXPECT_EQ(config.getString("p.3.w"), "before the place of the walk");
}

TEST(SubtreeWalk, BearsTheRemovalOfOtherElements)
{
    BlockConfiguration config = with_keys({"p.0.x", "p.1.x", "p.1.y", "p.2.x", "p.3.x"});

    Lines seen;
    for (const Accessor& child : config.iterate_subtree("p")) {
        seen.push_back(child.key());
        if (child.key() == "1") {
            config.delete_element("p.0");
            config.delete_element("p.1.y");
            config.delete_element("p.2");
        }
    }

    EXPECT_EQ(seen, (Lines{"0", "1", "3"}));
}

TEST(SubtreeCursor, WithoutARecordIsAtTheEnd)
{
    InternalIterator cursor;

    EXPECT_TRUE(cursor.is_end());
    cursor.advance();
    cursor.advance();
    EXPECT_TRUE(cursor.is_end());
    expect_throw<std::runtime_error>([&] { cursor.current_path(); }, "Internal error");
    expect_throw<std::runtime_error>([&] { cursor.config(); }, "Internal error");
}

TEST(SubtreeCursor, StandsOnEachChildInTurn)
{
    const BlockConfiguration config = with_keys({"p.a.x", "p.b.x", "p.b.y"});
    InternalIterator cursor(config, "p");

    EXPECT_FALSE(cursor.is_end());
    EXPECT_EQ(cursor.current_path(), "p.a");
    EXPECT_EQ(&cursor.config(), &config);
    cursor.advance();
    EXPECT_FALSE(cursor.is_end());
    EXPECT_EQ(cursor.current_path(), "p.b");
    cursor.advance();

    EXPECT_TRUE(cursor.is_end());
}

TEST(SubtreeCursor, KeepsItsConfigurationAtTheEndOfAllElements)
{
    const BlockConfiguration config = with_keys({"p.a.x"});
    InternalIterator cursor(config, "p");
    InternalIterator empty(config, "q");

    cursor.advance();

    for (InternalIterator* ended : {&cursor, &empty}) {
        EXPECT_TRUE(ended->is_end());
        EXPECT_EQ(&ended->config(), &config);
        expect_throw<std::runtime_error>([&] { ended->current_path(); }, "Internal error");
        ended->advance();
        EXPECT_TRUE(ended->is_end());
    }
}

TEST(SubtreeCursor, LetsGoOfItsConfigurationBehindThePrefix)
{
    const BlockConfiguration config = with_keys({"p.a.x", "q"});
    InternalIterator cursor(config, "p");
    InternalIterator empty(config, "b");

    cursor.advance();

    for (InternalIterator* ended : {&cursor, &empty}) {
        EXPECT_TRUE(ended->is_end());
        expect_throw<std::runtime_error>([&] { ended->config(); }, "Internal error");
        expect_throw<std::runtime_error>([&] { ended->current_path(); }, "Internal error");
        ended->advance();
        EXPECT_TRUE(ended->is_end());
    }
}

TEST(SubtreeCursor, MovesAndLeavesAnEndBehind)
{
    const BlockConfiguration config = with_keys({"p.a.x", "p.b.x"});
    InternalIterator cursor(config, "p");

    InternalIterator moved(std::move(cursor));
    InternalIterator assigned;
    assigned = std::move(moved);

    EXPECT_EQ(assigned.current_path(), "p.a");
    for (InternalIterator* left : {&cursor, &moved}) {
        EXPECT_TRUE(left->is_end());
        left->advance();
        expect_throw<std::runtime_error>([&] { left->current_path(); }, "Internal error");
        expect_throw<std::runtime_error>([&] { left->config(); }, "Internal error");
    }
    EXPECT_FALSE(std::is_copy_constructible_v<InternalIterator>);
    EXPECT_FALSE(std::is_copy_assignable_v<InternalIterator>);
}

TEST(SubtreeIterators, CompareByTheElementOnWhichTheyStand)
{
    const BlockConfiguration config = with_keys({"p.a.x", "p.b.x", "q"});
    const SubtreeIterator range = config.iterate_subtree("p");
    auto one = range.begin();
    auto other = range.begin();

    EXPECT_TRUE(one == other);
    EXPECT_FALSE(one != other);
    ++one;
    EXPECT_TRUE(one != other);
    EXPECT_TRUE(one != range.end());
    EXPECT_TRUE(range.end() != one);
    ++other;
    EXPECT_TRUE(one == other);
    ++one;
    EXPECT_TRUE(one == range.end());
    EXPECT_TRUE(range.end() == one);
    EXPECT_FALSE(one == other);
    EXPECT_TRUE(range.end() == range.end());
}

TEST(SubtreeIterators, AreEqualAtTheEndWithAndWithoutARecord)
{
    const BlockConfiguration behind = with_keys({"p.a.x", "q"});
    const BlockConfiguration last = with_keys({"p.a.x"});

    auto without = behind.iterate_subtree("p").begin();
    auto with = last.iterate_subtree("p").begin();
    ++without;
    ++with;

    EXPECT_TRUE(without == with);
    EXPECT_TRUE(with == last.iterate_subtree("p").end());
    EXPECT_TRUE(without == behind.iterate_subtree("p").end());
}

TEST(SubtreeIterators, DifferBetweenConfigurations)
{
    const BlockConfiguration one = with_keys({"p.a.x"});
    const BlockConfiguration other = one;

    EXPECT_TRUE(one.iterate_subtree("p").begin() != other.iterate_subtree("p").begin());
}

TEST(SubtreeIterators, RefuseToBeReadAtTheEndAndStayThere)
{
    for (const Lines& keys : {Lines{"p.a.x"}, Lines{"p.a.x", "q"}}) {
        const BlockConfiguration config = with_keys(keys);
        auto at = config.iterate_subtree("p").begin();

        SubtreeIterator::Iterator& result = ++at;
        EXPECT_EQ(&result, &at);
        ++at;

        expect_throw<std::runtime_error>([&] { *at; }, "Internal error");
        EXPECT_TRUE(at == config.iterate_subtree("p").end());
    }
    const BlockConfiguration empty;
    expect_throw<std::runtime_error>([&] { *empty.iterate_subtree("p").end(); }, "Internal error");
}

TEST(SubtreeIterators, MoveAndWrapACursor)
{
    const BlockConfiguration config = with_keys({"p.a.x", "p.b.x"});

    SubtreeIterator::Iterator wrapped(InternalIterator(config, "p"));
    SubtreeIterator::Iterator moved(std::move(wrapped));
    SubtreeIterator::Iterator assigned = config.iterate_subtree("p").end();
    assigned = std::move(moved);

    EXPECT_EQ((*assigned).full_key(), "p.a");
    EXPECT_TRUE(wrapped == config.iterate_subtree("p").end());
    EXPECT_TRUE(moved == config.iterate_subtree("p").end());
    EXPECT_FALSE(std::is_copy_constructible_v<SubtreeIterator::Iterator>);
    EXPECT_TRUE((std::is_constructible_v<SubtreeIterator::Iterator, InternalIterator>));
    using Traits = std::iterator_traits<SubtreeIterator::Iterator>;
    EXPECT_TRUE((std::is_same_v<Traits::iterator_category, std::input_iterator_tag>));
    EXPECT_TRUE((std::is_same_v<Traits::value_type, Accessor>));
}

TEST(ConfigAccessor, NamesItsParts)
{
    const BlockConfiguration config = with_keys({"ports.1.name"});

    const Accessor child = *config.iterate_subtree("ports").begin();

    EXPECT_EQ(child.full_key(), "ports.1");
    EXPECT_EQ(child.prefix(), "ports.");
    EXPECT_EQ(child.key(), "1");
    EXPECT_EQ(child.index(), 1);
    EXPECT_EQ(child.path("name"), "ports.1.name");
    EXPECT_EQ(child.path(""), "ports.1.");
    EXPECT_EQ(child.path("a.b"), "ports.1.a.b");
}

TEST(ConfigAccessor, NamesTheWalkedPrefixAlsoWhenItEndsInAFullStopOrIsLonger)
{
    const BlockConfiguration config = with_keys({"a.b.c.x", ".d.x"});

    EXPECT_EQ((*config.iterate_subtree("a.b.").begin()).prefix(), "a.b.");
    EXPECT_EQ((*config.iterate_subtree("a.b.").begin()).key(), "c");
    EXPECT_EQ((*config.iterate_subtree("").begin()).prefix(), ".");
    EXPECT_EQ((*config.iterate_subtree("").begin()).full_key(), ".d");
}

TEST(ConfigAccessor, ReadsTheComponentAsAnIndex)
{
    struct Row {
        std::string component;
        int index;
    };
    const std::vector<Row> rows = {{"3", 3},
                                   {"0", 0},
                                   {"007", 7},
                                   {"-2", -2},
                                   {"-0", 0},
                                   {"12a", 12},
                                   {"12-3", 12},
                                   {"-5x", -5},
                                   {"1_000", 1},
                                   {"2147483647", 2147483647},
                                   {"-2147483648", -2147483647 - 1},
                                   {"0000000000000000000001", 1},
                                   {"2147483648", -1},
                                   {"-2147483649", -1},
                                   {"99999999999", -1},
                                   {"99999999999999999999999999x", -1},
                                   {"abc", -1},
                                   {"-", -1},
                                   {"--1", -1},
                                   {"-a", -1},
                                   {"_1", -1},
                                   {"a1", -1}};

    for (const Row& row : rows) {
        const BlockConfiguration config = with_keys({"p." + row.component + ".x"});

        EXPECT_EQ((*config.iterate_subtree("p").begin()).index(), row.index) << row.component;
    }
}

TEST(ConfigAccessor, ReadsAnIndexFromAnyPath)
{
    const BlockConfiguration config;

    EXPECT_EQ(Accessor(config, "p.", 2).index(), -1);
    EXPECT_EQ(Accessor(config, "", 0).index(), -1);
    EXPECT_EQ(Accessor(config, "p. 3", 2).index(), -1);
    EXPECT_EQ(Accessor(config, "p.+3", 2).index(), -1);
    EXPECT_EQ(Accessor(config, "p.3 4", 2).index(), 3);
    EXPECT_EQ(Accessor(config, "42", 0).index(), 42);
}

TEST(ConfigAccessor, CanBeMadeByHand)
{
    const BlockConfiguration config = {{"p.q.x", 5}};

    const Accessor child(config, "p.q", 2);

    EXPECT_EQ(child.full_key(), "p.q");
    EXPECT_EQ(child.prefix(), "p.");
    EXPECT_EQ(child.key(), "q");
    EXPECT_EQ(child.getInt("x"), 5);
}

TEST(ConfigAccessor, ReadsFieldsOfEveryType)
{
    const BlockConfiguration config = {{"p",
                                        {{"q",
                                          {{"b", true},
                                           {"bv", {true, false}},
                                           {"d", 0.1},
                                           {"dv", {0.1}},
                                           {"i", 1},
                                           {"iv", {1, 2}},
                                           {"s", "x"},
                                           {"sv", {"x", "y"}}}}}}};
    const Accessor child = *config.iterate_subtree("p").begin();

    EXPECT_EQ(child.getBool("b"), true);
    EXPECT_EQ(child.getBoolVector("bv"), (std::vector<bool>{true, false}));
    EXPECT_EQ(child.getDouble("d"), 0.1);
    EXPECT_EQ(child.getFloat("d"), 0.1F);
    EXPECT_EQ(child.getDoubleVector("dv"), std::vector<double>{0.1});
    EXPECT_EQ(child.getFloatVector("dv"), std::vector<float>{0.1F});
    EXPECT_EQ(child.getInt("i"), 1);
    EXPECT_EQ(child.getDouble("i"), 1.0);
    EXPECT_EQ(child.getFloat("i"), 1.0F);
    EXPECT_EQ(child.getIntVector("iv"), (std::vector<int>{1, 2}));
    EXPECT_EQ(child.getDoubleVector("iv"), (std::vector<double>{1.0, 2.0}));
    EXPECT_EQ(child.getFloatVector("iv"), (std::vector<float>{1.0F, 2.0F}));
    EXPECT_EQ(child.getString("s"), "x");
    EXPECT_FALSE(config.is_consumed());
    EXPECT_EQ(child.getStringVector("sv"), (std::vector<std::string>{"x", "y"}));

    EXPECT_TRUE(config.is_consumed());
}

TEST(ConfigAccessor, ReadsFieldsOrDefaults)
{
    const BlockConfiguration config = {{"p",
                                        {{"q",
                                          {{"b", true},
                                           {"bv", {true, false}},
                                           {"d", 0.1},
                                           {"dv", {0.1}},
                                           {"i", 1},
                                           {"iv", {1, 2}},
                                           {"s", "x"},
                                           {"sv", {"x", "y"}}}}}}};
    const Accessor child = *config.iterate_subtree("p").begin();

    EXPECT_EQ(child.getBool("absent", true), true);
    EXPECT_EQ(child.getBoolVector("absent", {true}), std::vector<bool>{true});
    EXPECT_EQ(child.getDouble("absent", 7.5), 7.5);
    EXPECT_EQ(child.getFloat("absent", 7.5F), 7.5F);
    EXPECT_EQ(child.getDoubleVector("absent", {7.5}), std::vector<double>{7.5});
    EXPECT_EQ(child.getFloatVector("absent", {7.5F}), std::vector<float>{7.5F});
    EXPECT_EQ(child.getInt("absent", 7), 7);
    EXPECT_EQ(child.getIntVector("absent", {7}), std::vector<int>{7});
    EXPECT_EQ(child.getString("absent", "seven"), "seven");
    EXPECT_EQ(child.getStringVector("absent", std::vector<std::string>{"seven"}),
              std::vector<std::string>{"seven"});
    EXPECT_EQ(unread_keys(config), keys(config));

    EXPECT_EQ(child.getBool("b", false), true);
    EXPECT_EQ(child.getBoolVector("bv", {}), (std::vector<bool>{true, false}));
    EXPECT_EQ(child.getDouble("d", 7.5), 0.1);
    EXPECT_EQ(child.getFloat("d", 7.5F), 0.1F);
    EXPECT_EQ(child.getDoubleVector("dv", {}), std::vector<double>{0.1});
    EXPECT_EQ(child.getFloatVector("dv", {}), std::vector<float>{0.1F});
    EXPECT_EQ(child.getInt("i", 7), 1);
    EXPECT_EQ(child.getIntVector("iv", {}), (std::vector<int>{1, 2}));
    EXPECT_EQ(child.getString("s", "seven"), "x");
    EXPECT_EQ(child.getStringVector("sv", {}), (std::vector<std::string>{"x", "y"}));
    EXPECT_TRUE(config.is_consumed());
}

TEST(ConfigAccessor, ThrowsWithTheFullKey)
{
    const BlockConfiguration config = {{"p.q.x", "text"}};
    const Accessor child = *config.iterate_subtree("p").begin();
    const std::string prefix = "BlockConfiguration::";

    const auto expect_both = [&](const std::string& getter, auto read) {
        expect_throw<std::out_of_range>(
            [&] { read("absent"); },
            prefix + getter + " failed, the parameter 'p.q.absent' does not exist");
        expect_throw<std::runtime_error>(
            [&] { read("x"); }, prefix + (getter == "getFloatVector" ? "getDoubleVector" : getter) +
                                    " failed, the parameter 'p.q.x' is type: string");
    };
    expect_both("getInt", [&](const char* key) { child.getInt(key); });
    expect_both("getBool", [&](const char* key) { child.getBool(key); });
    expect_both("getDouble", [&](const char* key) { child.getDouble(key); });
    expect_both("getFloat", [&](const char* key) { child.getFloat(key); });
    expect_both("getIntVector", [&](const char* key) { child.getIntVector(key); });
    expect_both("getDoubleVector", [&](const char* key) { child.getDoubleVector(key); });
    expect_both("getFloatVector", [&](const char* key) { child.getFloatVector(key); });
    expect_both("getStringVector", [&](const char* key) { child.getStringVector(key); });
    expect_both("getBoolVector", [&](const char* key) { child.getBoolVector(key); });
    expect_throw<std::out_of_range>(
        [&] { child.getString(""); },
        "BlockConfiguration::getString failed, the parameter 'p.q.' does not exist");
    expect_throw<std::runtime_error>(
        [&] { child.getInt("x", 7); },
        "BlockConfiguration::getInt failed, the parameter 'p.q.x' is type: string");
    expect_throw<std::invalid_argument>([&] { child.getType("absent"); },
                                        "No such parameter: p.q.absent");

    EXPECT_FALSE(config.is_consumed());
}

TEST(ConfigAccessor, TellsATypeWithoutConsuming)
{
    const BlockConfiguration config = {{"p.q.x", {"a"}}};

    EXPECT_EQ((*config.iterate_subtree("p").begin()).getType("x"), Type::StringVector);

    EXPECT_FALSE(config.is_consumed());
}

TEST(ConfigAccessor, TakesSubtreesOfItsFields)
{
    const BlockConfiguration config = {{"p", {{"q", {{"deep", {{"x", 1}, {"y.z", 2}}}}}}}};
    const Accessor child = *config.iterate_subtree("p").begin();

    EXPECT_EQ(contents(child.getSubtree("deep")), (Lines{"x (int) = 1", "y.z (int) = 2"}));
    EXPECT_EQ(contents(child.getSubtree("absent")), Lines{});
    // The path of the empty field ends with a full stop already.
    EXPECT_EQ(contents(child.getSubtree("")), (Lines{"deep.x (int) = 1", "deep.y.z (int) = 2"}));
    EXPECT_EQ((*child.iterate_subtree("deep").begin()).full_key(), "p.q.deep.y");
    EXPECT_EQ((*child.iterate_subtree("").begin()).full_key(), "p.q.deep");
    EXPECT_FALSE(config.is_consumed());
}

TEST(ConfigAccessor, OutlivesTheIterator)
{
    const BlockConfiguration config = with_keys({"p.a.x", "p.b.x"});

    std::vector<Accessor> all;
    for (const Accessor& child : config.iterate_subtree("p")) {
        all.push_back(child);
    }

    ASSERT_EQ(all.size(), 2U);
    EXPECT_EQ(all[0].getInt("x"), 1);
    EXPECT_EQ(all[1].full_key(), "p.b");
    EXPECT_EQ(unread_keys(config), Lines{"p.b.x"});
}

TEST(ConfigIterator, VisitsEveryElementWhoseKeyBeginsWithThePrefix)
{
    struct Row {
        Lines keys;
        std::string prefix;
        Lines visited;
    };
    const std::vector<Row> rows = {
        {{"p", "p.a", "pq", "q"}, "p", {"p", "p.a", "pq"}},
        {{"p", "p.a", "pq", "q"}, "p.", {"p.a"}},
        {{"p", "p.a", "pq", "q"}, "", {"p", "p.a", "pq", "q"}},
        {{"p", "p.a", "pq", "q"}, "q", {"q"}},
        {{"p", "p.a", "pq", "q"}, "pr", {}},
        {{"p", "p.a", "pq", "q"}, "a", {}},
        {{"p", "p.a", "pq", "q"}, "z", {}},
        {{"a-b.x", "a.x", "ab.x", "b"}, "a", {"a-b.x", "a.x", "ab.x"}},
        {{"", "a"}, "", {"", "a"}},
        {{"l.0.x", "l.1.x", "l.10.x", "l.2.x"}, "l.1", {"l.1.x", "l.10.x"}},
        {{"a"}, "a b", {}},
        {{}, "", {}},
        {{}, "p", {}},
    };

    for (const Row& row : rows) {
        EXPECT_EQ(visited(with_keys(row.keys), row.prefix), row.visited)
            << testing::PrintToString(row.keys) << " with '" << row.prefix << "'";
    }
}

TEST(ConfigIterator, FindsPrefixesThatEndInTheGreatestByte)
{
    BlockConfiguration config;
    for (const std::string prefix : {"", "a", "a\xff", "a\xff\xff",
                                     "a\xff"
                                     "b",
                                     "b", "\xff", "\xff\xff",
                                     "\xff"
                                     "a"}) {
        BlockConfiguration one = {{"x", 1}};
        one.rebase(prefix);
        config += one;
    }

    EXPECT_EQ(visited(config, "a\xff"), (Lines{"a\xff.x",
                                               "a\xff"
                                               "b.x",
                                               "a\xff\xff.x"}));
    EXPECT_EQ(visited(config, "a\xff\xff"), Lines{"a\xff\xff.x"});
    EXPECT_EQ(visited(config, "a\xff\xff\xff"), Lines{});
    EXPECT_EQ(visited(config, "\xff"), (Lines{"\xff.x",
                                              "\xff"
                                              "a.x",
                                              "\xff\xff.x"}));
    EXPECT_EQ(visited(config, "\xff\xff"), Lines{"\xff\xff.x"});
    EXPECT_EQ(visited(config, "."), Lines{".x"});
    EXPECT_EQ(visited(config, "\xfe"), Lines{});
    EXPECT_EQ(visited(config, "").size(), 9U);
}

TEST(ConfigIterator, RefusesEverythingAtTheEnd)
{
    const BlockConfiguration config = with_keys({"p", "q"});
    const auto cursor = config.iterate("p");
    const std::string text = "Iteration beyond end of the sequence";

    cursor->advance();

    EXPECT_TRUE(cursor->is_end());
    expect_throw<std::runtime_error>([&] { cursor->advance(); }, text);
    expect_throw<std::runtime_error>([&] { cursor->advance(); }, text);
    expect_throw<std::runtime_error>([&] { cursor->key(); }, text);
    expect_throw<std::runtime_error>([&] { cursor->getInt(); }, text);
    expect_throw<std::runtime_error>([&] { cursor->getBool(); }, text);
    expect_throw<std::runtime_error>([&] { cursor->getDouble(); }, text);
    expect_throw<std::runtime_error>([&] { cursor->getFloat(); }, text);
    expect_throw<std::runtime_error>([&] { cursor->getString(); }, text);
    expect_throw<std::runtime_error>([&] { cursor->getIntVector(); }, text);
    expect_throw<std::runtime_error>([&] { cursor->getDoubleVector(); }, text);
    expect_throw<std::runtime_error>([&] { cursor->getFloatVector(); }, text);
    expect_throw<std::runtime_error>([&] { cursor->getStringVector(); }, text);
    expect_throw<std::runtime_error>([&] { cursor->getBoolVector(); }, text);
    EXPECT_TRUE(cursor->is_end());
    EXPECT_EQ(unread_keys(config), (Lines{"p", "q"}));
}

TEST(ConfigIterator, ReadsEachTypeAndConsumesIt)
{
    const BlockConfiguration config = {
        {"b", true}, {"bv", {true, false}}, {"d", 0.1}, {"dv", {0.1}},
        {"i", 1},    {"iv", {1, 2}},        {"s", "x"}, {"sv", {"x"}}};

    EXPECT_EQ(config.iterate("b")->getBool(), true);
    EXPECT_EQ(config.iterate("bv")->getBoolVector(), (std::vector<bool>{true, false}));
    EXPECT_EQ(config.iterate("d")->getDouble(), 0.1);
    EXPECT_EQ(config.iterate("dv")->getDoubleVector(), std::vector<double>{0.1});
    EXPECT_EQ(config.iterate("i")->getInt(), 1);
    EXPECT_EQ(config.iterate("iv")->getIntVector(), (std::vector<int>{1, 2}));
    EXPECT_EQ(config.iterate("s")->getString(), "x");
    EXPECT_EQ(unread_keys(config), Lines{"sv"});
    EXPECT_EQ(config.iterate("sv")->getStringVector(), std::vector<std::string>{"x"});

    EXPECT_TRUE(config.is_consumed());
}

TEST(ConfigIterator, NarrowsDoublesToFloats)
{
    const BlockConfiguration config = {{"d", 0.1}, {"v", {0.1, -0.0}}};

    EXPECT_EQ(config.iterate("d")->getFloat(), 0.1F);
    EXPECT_EQ(config.iterate("v")->getFloatVector(), (std::vector<float>{0.1F, -0.0F}));

    EXPECT_TRUE(config.is_consumed());
}

TEST(ConfigIterator, ConsumesAnElementOfAnotherType)
{
    const BlockConfiguration values = {{"b", true}, {"bv", {true}}, {"d", 0.5}, {"dv", {0.5}},
                                       {"i", 1},    {"iv", {1}},    {"s", "x"}, {"sv", {"x"}}};
    using Cursor = BlockConfiguration::Iterator;
    struct Getter {
        std::string name;
        std::string accepted;
        void (*read)(Cursor&);
    };
    const std::vector<Getter> getters = {
        {"getInt", "i", [](Cursor& cursor) { cursor.getInt(); }},
        {"getBool", "b", [](Cursor& cursor) { cursor.getBool(); }},
        {"getDouble", "d", [](Cursor& cursor) { cursor.getDouble(); }},
        {"getFloat", "d", [](Cursor& cursor) { cursor.getFloat(); }},
        {"getString", "s", [](Cursor& cursor) { cursor.getString(); }},
        {"getIntVector", "iv", [](Cursor& cursor) { cursor.getIntVector(); }},
        {"getDoubleVector", "dv", [](Cursor& cursor) { cursor.getDoubleVector(); }},
        {"getFloatVector", "dv", [](Cursor& cursor) { cursor.getFloatVector(); }},
        {"getStringVector", "sv", [](Cursor& cursor) { cursor.getStringVector(); }},
        {"getBoolVector", "bv", [](Cursor& cursor) { cursor.getBoolVector(); }}};

    for (const Getter& getter : getters) {
        for (const std::string& key : keys(values)) {
            SCOPED_TRACE(getter.name + " of " + key);
            const BlockConfiguration config(values);
            const auto cursor = config.iterate(key);
            Lines others = keys(values);
            others.erase(std::find(others.begin(), others.end(), key));

            if (key == getter.accepted) {
                getter.read(*cursor);
            } else {
                expect_throw<std::bad_variant_access>([&] { getter.read(*cursor); },
                                                      "std::get: wrong index for variant");
            }

            EXPECT_EQ(unread_keys(config), others);
            EXPECT_EQ(cursor->key(), key);
            EXPECT_EQ(contents(config), contents(values));
        }
    }
}

TEST(ConfigIterator, ReturnsWhatTheConfigurationHolds)
{
    const BlockConfiguration config = {{"s", "text"}, {"v", {1, 2}}};
    const auto cursor = config.iterate("");

    EXPECT_EQ(&cursor->key(), &cursor->key());
    EXPECT_EQ(&cursor->getString(), &config.iterate("s")->getString());
    EXPECT_EQ(&config.iterate("v")->getIntVector(), &config.iterate("v")->getIntVector());
    const std::string& text = cursor->getString();
    cursor->advance();
    EXPECT_EQ(text, "text");
}

TEST(ConfigIterator, ConsumesNothingByWalking)
{
    const BlockConfiguration config = with_keys({"a", "b.c", "d"});

    visited(config, "");

    EXPECT_EQ(unread_keys(config), keys(config));
}

TEST(ConfigIterator, ReadsWhileTheConfigurationIsReadToo)
{
    const BlockConfiguration config = {{"a", 1}, {"b", 2}, {"c", 3}};

    int sum = 0;
    for (const auto cursor = config.iterate(""); !cursor->is_end(); cursor->advance()) {
        sum += cursor->getInt() + config.getInt(cursor->key());
    }

    EXPECT_EQ(sum, 12);
    EXPECT_TRUE(config.is_consumed());
}

TEST(ConfigIterator, BearsElementsThatAreSetAddedAndRemovedDuringTheWalk)
{
    BlockConfiguration config = {{"p.b", 1}, {"p.d", 2}, {"p.e", 3}, {"q", 4}};

    Lines seen;
    for (const auto cursor = config.iterate("p"); !cursor->is_end(); cursor->advance()) {
        seen.push_back(cursor->key());
        config.set(cursor->key(), "set");
        config.set("p.a", "not visited any more");
        config.set("p.c", "visited");
        config.delete_element("p.e");
        config.set("p.z", "visited at the end");
    }

    EXPECT_EQ(seen, (Lines{"p.b", "p.c", "p.d", "p.z"}));
    EXPECT_EQ(config.getString("p.d"), "set");
}

TEST(ConfigIterator, NeverLeavesThePrefixForAnElementThatIsAddedBehindIt)
{
    BlockConfiguration config = {{"p.a", 1}, {"r", 2}};

    Lines seen;
    for (const auto cursor = config.iterate("p"); !cursor->is_end(); cursor->advance()) {
        seen.push_back(cursor->key());
        config.set("q", 1);
    }
    const auto cursor = config.iterate("r");
    config.set("s", 1);
    cursor->advance();

    EXPECT_EQ(seen, Lines{"p.a"});
    EXPECT_TRUE(cursor->is_end());
    expect_throw<std::runtime_error>([&] { cursor->key(); },
                                     "Iteration beyond end of the sequence");
}

TEST(ConfigIterator, BearsTheRemovalOfTheElementBehindThePrefix)
{
    BlockConfiguration config = with_keys({"p.a", "p.b", "q"});
    BlockConfiguration other = with_keys({"p.a", "q", "r"});

    const auto cursor = config.iterate("p");
    config.delete_element("q");
    cursor->advance();
    EXPECT_EQ(cursor->key(), "p.b");
    cursor->advance();
    const auto stopped = other.iterate("p");
    other.delete_element("q");
    stopped->advance();

    EXPECT_TRUE(cursor->is_end());
    EXPECT_TRUE(stopped->is_end());
    expect_throw<std::runtime_error>([&] { stopped->key(); },
                                     "Iteration beyond end of the sequence");
}

TEST(ConfigIterator, WalksTwiceAtTheSameTime)
{
    const BlockConfiguration config = with_keys({"a", "b"});
    const auto one = config.iterate("");
    const auto other = config.iterate("");

    one->advance();

    EXPECT_EQ(one->key(), "b");
    EXPECT_EQ(other->key(), "a");
}

TEST(ConfigIterator, IsAnInterfaceThatOwnersDestroy)
{
    using Cursor = BlockConfiguration::Iterator;

    EXPECT_TRUE(std::is_abstract_v<Cursor>);
    EXPECT_TRUE(std::has_virtual_destructor_v<Cursor>);
    EXPECT_FALSE(std::is_copy_constructible_v<Cursor>);
    EXPECT_FALSE(std::is_copy_assignable_v<Cursor>);
    EXPECT_TRUE((std::is_same_v<decltype(std::declval<const BlockConfiguration&>().iterate("")),
                                std::unique_ptr<Cursor>>));
}

}  // namespace
