#include <quorval/config.h>
#include "core/config/contents.h"
#include "support/support.h"

#include <gtest/gtest.h>

#include <initializer_list>
#include <stdexcept>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

namespace {

using Quorval::BlockConfiguration;
using quorval_test::contents;
using quorval_test::expect_throw;
using quorval_test::keys;
using quorval_test::Lines;
using quorval_test::unread_keys;
using KeyValue = BlockConfiguration::KeyValue;
using StringWrapper = KeyValue::StringWrapper;
using Members = std::initializer_list<KeyValue>;
using Subtrees = std::initializer_list<std::initializer_list<KeyValue>>;

const std::string kNullText = "basic_string: construction from null is not valid";

std::string refusal(const std::string& key)
{
    return "Parameter name '" + key + "' not valid (should be [a-z0-9_.-]).";
}

/// What a literal becomes as the argument of a function.
Lines stored(const BlockConfiguration& config)
{
    return contents(config);
}

TEST(ConfigLiteral, TakesScalars)
{
    EXPECT_EQ(stored({{"x", 1}}), Lines{"x (int) = 1"});
    EXPECT_EQ(stored({{"x", 0}}), Lines{"x (int) = 0"});
    EXPECT_EQ(stored({{"x", -1}}), Lines{"x (int) = -1"});
    EXPECT_EQ(stored({{"x", 1.0}}), Lines{"x (double) = 1"});
    EXPECT_EQ(stored({{"x", 0.0}}), Lines{"x (double) = 0"});
    EXPECT_EQ(stored({{"x", 0.5F}}), Lines{"x (double) = 0.5"});
    EXPECT_EQ(stored({{"x", true}}), Lines{"x (bool) = 1"});
    EXPECT_EQ(stored({{"x", false}}), Lines{"x (bool) = 0"});
    EXPECT_EQ(stored({{"x", 'A'}}), Lines{"x (int) = 65"});
}

TEST(ConfigLiteral, TakesStrings)
{
    const std::string text = "text";
    std::string changeable = "text";
    const char* pointer = "text";
    char buffer[] = "text";
    char* changeable_pointer = buffer;
    const Lines expected = {"x (string) = text"};

    EXPECT_EQ(stored({{"x", "text"}}), expected);
    EXPECT_EQ(stored({{"x", std::string("text")}}), expected);
    EXPECT_EQ(stored({{"x", text}}), expected);
    EXPECT_EQ(stored({{"x", changeable}}), expected);
    EXPECT_EQ(stored({{"x", std::move(changeable)}}), expected);
    EXPECT_EQ(stored({{"x", text + ""}}), expected);
    EXPECT_EQ(stored({{"x", text.c_str()}}), expected);
    EXPECT_EQ(stored({{"x", pointer}}), expected);
    EXPECT_EQ(stored({{"x", buffer}}), expected);
    EXPECT_EQ(stored({{"x", changeable_pointer}}), expected);
    EXPECT_EQ(stored({{"x", ""}}), Lines{"x (string) = "});
    EXPECT_EQ(stored({{"x", true ? "text" : "other"}}), expected);
}

TEST(ConfigLiteral, KeepsNullBytesInStrings)
{
    const std::string text("a\0b", 3);

    const BlockConfiguration config = {{"x", text}, {"v", {text, "c"}}};

    EXPECT_EQ(config.getString("x"), text);
    EXPECT_EQ(config.getStringVector("v"), (std::vector<std::string>{text, "c"}));
}

TEST(ConfigLiteral, TakesKeysOfEveryKindOfString)
{
    const std::string key = "key";
    const char* pointer = "key";
    char buffer[] = "key";

    EXPECT_EQ(stored({{key, 1}}), Lines{"key (int) = 1"});
    EXPECT_EQ(stored({{std::string("key"), 1}}), Lines{"key (int) = 1"});
    EXPECT_EQ(stored({{pointer, 1}}), Lines{"key (int) = 1"});
    EXPECT_EQ(stored({{buffer, 1}}), Lines{"key (int) = 1"});
    EXPECT_EQ(stored({{key, key}}), Lines{"key (string) = key"});
    EXPECT_EQ(stored({{key, {key, key}}}), Lines{"key (StringVector) = {key, key}"});
    EXPECT_EQ(stored({{key + ".a", {{key, "x"}}}}), Lines{"key.a.key (string) = x"});
    EXPECT_EQ(stored({{"", 1}}), Lines{" (int) = 1"});
}

TEST(ConfigLiteral, TakesVectorsInBraces)
{
    const int number = 3;
    const double real = 2.5;

    EXPECT_EQ(stored({{"v", {1, 2}}}), Lines{"v (IntVector) = {1, 2}"});
    EXPECT_EQ(stored({{"v", {0, 1}}}), Lines{"v (IntVector) = {0, 1}"});
    EXPECT_EQ(stored({{"v", {0, 0}}}), Lines{"v (IntVector) = {0, 0}"});
    EXPECT_EQ(stored({{"v", {1, 1, 1}}}), Lines{"v (IntVector) = {1, 1, 1}"});
    EXPECT_EQ(stored({{"v", {number, number}}}), Lines{"v (IntVector) = {3, 3}"});
    EXPECT_EQ(stored({{"v", {0.5, 2.0}}}), Lines{"v (DoubleVector) = {0.5, 2}"});
    EXPECT_EQ(stored({{"v", {0.0, 0.0}}}), Lines{"v (DoubleVector) = {0, 0}"});
    EXPECT_EQ(stored({{"v", {real, 1.0, real}}}), Lines{"v (DoubleVector) = {2.5, 1, 2.5}"});
    EXPECT_EQ(stored({{"v", {true, false}}}), Lines{"v (BoolVector) = {1, 0}"});
    EXPECT_EQ(stored({{"v", {true, false, true}}}), Lines{"v (BoolVector) = {1, 0, 1}"});
}

TEST(ConfigLiteral, TakesABraceAroundOneElementAsAVector)
{
    const std::string text = "a";

    EXPECT_EQ(stored({{"v", {1}}}), Lines{"v (IntVector) = {1}"});
    EXPECT_EQ(stored({{"v", {0}}}), Lines{"v (IntVector) = {0}"});
    EXPECT_EQ(stored({{"v", {0.5}}}), Lines{"v (DoubleVector) = {0.5}"});
    EXPECT_EQ(stored({{"v", {true}}}), Lines{"v (BoolVector) = {1}"});
    EXPECT_EQ(stored({{"v", {false}}}), Lines{"v (BoolVector) = {0}"});
    EXPECT_EQ(stored({{"v", {"a"}}}), Lines{"v (StringVector) = {a}"});
    EXPECT_EQ(stored({{"v", {text}}}), Lines{"v (StringVector) = {a}"});
    EXPECT_EQ(stored({{"v", {std::string("a")}}}), Lines{"v (StringVector) = {a}"});
}

TEST(ConfigLiteral, TakesTwoStringsInBracesAsAVectorAndNeverAsARangeOfCharacters)
{
    const std::string text = "c";
    const char* pointer = "d";
    const char characters[] = "one text";

    EXPECT_EQ(stored({{"v", {"a", "b"}}}), Lines{"v (StringVector) = {a, b}"});
    EXPECT_EQ(stored({{"v", {"a", "longer"}}}), Lines{"v (StringVector) = {a, longer}"});
    EXPECT_EQ(stored({{"v", {characters, characters + 4}}}),
              Lines{"v (StringVector) = {one text, text}"});
    EXPECT_EQ(stored({{"v", {pointer, pointer}}}), Lines{"v (StringVector) = {d, d}"});
    EXPECT_EQ(stored({{"v", {text, "b"}}}), Lines{"v (StringVector) = {c, b}"});
    EXPECT_EQ(stored({{"v", {"a", text}}}), Lines{"v (StringVector) = {a, c}"});
    EXPECT_EQ(stored({{"v", {text, text}}}), Lines{"v (StringVector) = {c, c}"});
    EXPECT_EQ(stored({{"v", {"a", "b", "c"}}}), Lines{"v (StringVector) = {a, b, c}"});
    EXPECT_EQ(stored({{"v", {"a", pointer, text, std::string("e")}}}),
              Lines{"v (StringVector) = {a, d, c, e}"});
    EXPECT_EQ(stored({{"v", {"", ""}}}), Lines{"v (StringVector) = {, }"});
}

TEST(ConfigLiteral, TakesVectorsByValue)
{
    const std::vector<int> named = {1, 2};
    std::vector<std::string> moved = {"a", "b"};

    EXPECT_EQ(stored({{"v", named}}), Lines{"v (IntVector) = {1, 2}"});
    EXPECT_EQ(stored({{"v", std::vector<int>{1, 2}}}), Lines{"v (IntVector) = {1, 2}"});
    EXPECT_EQ(stored({{"v", std::vector<double>{0.5}}}), Lines{"v (DoubleVector) = {0.5}"});
    EXPECT_EQ(stored({{"v", std::vector<bool>{true, false}}}), Lines{"v (BoolVector) = {1, 0}"});
    EXPECT_EQ(stored({{"v", std::vector<std::string>{"a"}}}), Lines{"v (StringVector) = {a}"});
    EXPECT_EQ(stored({{"v", std::move(moved)}}), Lines{"v (StringVector) = {a, b}"});
    EXPECT_EQ(stored({{"v", std::vector<const char*>{"a", "b"}}}),
              Lines{"v (StringVector) = {a, b}"});
    EXPECT_EQ(named, (std::vector<int>{1, 2}));
}

TEST(ConfigLiteral, TakesInitializerListsByName)
{
    const std::initializer_list<int> ints = {1, 2};
    const std::initializer_list<double> doubles = {0.5};
    const std::initializer_list<bool> bools = {true};
    const std::initializer_list<const char*> texts = {"a", "b"};
    const std::initializer_list<StringWrapper> wrapped = {"a", std::string("b")};

    EXPECT_EQ(stored({{"v", ints}}), Lines{"v (IntVector) = {1, 2}"});
    EXPECT_EQ(stored({{"v", doubles}}), Lines{"v (DoubleVector) = {0.5}"});
    EXPECT_EQ(stored({{"v", bools}}), Lines{"v (BoolVector) = {1}"});
    EXPECT_EQ(stored({{"v", texts}}), Lines{"v (StringVector) = {a, b}"});
    EXPECT_EQ(stored({{"v", wrapped}}), Lines{"v (StringVector) = {a, b}"});
}

TEST(ConfigLiteral, StoresEmptyVectors)
{
    EXPECT_EQ(stored({{"v", std::vector<int>{}}}), Lines{"v (IntVector) = {}"});
    EXPECT_EQ(stored({{"v", std::vector<double>{}}}), Lines{"v (DoubleVector) = {}"});
    EXPECT_EQ(stored({{"v", std::vector<bool>{}}}), Lines{"v (BoolVector) = {}"});
    EXPECT_EQ(stored({{"v", std::vector<std::string>{}}}), Lines{"v (StringVector) = {}"});
    EXPECT_EQ(stored({{"v", std::vector<const char*>{}}}), Lines{"v (StringVector) = {}"});
    EXPECT_EQ(stored({{"v", std::initializer_list<int>{}}}), Lines{"v (IntVector) = {}"});
    EXPECT_EQ(stored({{"v", std::initializer_list<double>{}}}), Lines{"v (DoubleVector) = {}"});
    EXPECT_EQ(stored({{"v", std::initializer_list<bool>{}}}), Lines{"v (BoolVector) = {}"});
    EXPECT_EQ(stored({{"v", std::initializer_list<const char*>{}}}),
              Lines{"v (StringVector) = {}"});
    EXPECT_EQ(stored({{"v", std::initializer_list<StringWrapper>{}}}),
              Lines{"v (StringVector) = {}"});
}

TEST(ConfigLiteral, TakesSubtrees)
{
    EXPECT_EQ(stored({{"sub", {{"name", "a"}}}}), Lines{"sub.name (string) = a"});
    EXPECT_EQ(stored({{"sub", {{"name", "a"}, {"other", "b"}}}}),
              (Lines{"sub.name (string) = a", "sub.other (string) = b"}));
    EXPECT_EQ(stored({{"sub", {{"a", "1"}, {"b", "2"}, {"c", "3"}}}}),
              (Lines{"sub.a (string) = 1", "sub.b (string) = 2", "sub.c (string) = 3"}));
    EXPECT_EQ(stored({{"sub", {{"a", 1}}}}), Lines{"sub.a (int) = 1"});
    EXPECT_EQ(stored({{"sub", {{"a", 1}, {"b", true}, {"c", 0.5}}}}),
              (Lines{"sub.a (int) = 1", "sub.b (bool) = 1", "sub.c (double) = 0.5"}));
    EXPECT_EQ(stored({{"sub", {{"v", {1, 2}}}}}), Lines{"sub.v (IntVector) = {1, 2}"});
    EXPECT_EQ(stored({{"sub", {{"v", {"a", "b"}}}}}), Lines{"sub.v (StringVector) = {a, b}"});
    EXPECT_EQ(stored({{"sub", {{"v", {1}}, {"w", {"a"}}}}}),
              (Lines{"sub.v (IntVector) = {1}", "sub.w (StringVector) = {a}"}));
    EXPECT_EQ(stored({{"sub", {{std::string("name"), std::string("a")}}}}),
              Lines{"sub.name (string) = a"});
}

TEST(ConfigLiteral, TakesSubtreesInSubtrees)
{
    EXPECT_EQ(stored({{"a", {{"b", {{"c", 1}}}}}}), Lines{"a.b.c (int) = 1"});
    EXPECT_EQ(stored({{"a", {{"b", {{"c", "x"}}}}}}), Lines{"a.b.c (string) = x"});
    EXPECT_EQ(stored({{"a", {{"b", {{"c", {{"d", {{"e", "x"}, {"f", "y"}}}}}}}}}}),
              (Lines{"a.b.c.d.e (string) = x", "a.b.c.d.f (string) = y"}));
    EXPECT_EQ(stored({{"a", {{"x", 1}, {"b", {{"y", 2}}}, {"z", 3}}}}),
              (Lines{"a.b.y (int) = 2", "a.x (int) = 1", "a.z (int) = 3"}));
}

TEST(ConfigLiteral, TakesListsOfSubtrees)
{
    EXPECT_EQ(stored({{"in", {{{"name", "a"}}, {{"name", "b"}}}}}),
              (Lines{"in.0.name (string) = a", "in.1.name (string) = b"}));
    EXPECT_EQ(stored({{"in", {{{"name", "a"}}}}}), Lines{"in.0.name (string) = a"});
    EXPECT_EQ(stored({{"in", {{{"name", "a"}, {"type", "t"}}, {{"name", "b"}, {"type", "u"}}}}}),
              (Lines{"in.0.name (string) = a", "in.0.type (string) = t", "in.1.name (string) = b",
                     "in.1.type (string) = u"}));
    EXPECT_EQ(stored({{"in", {{{"x", 1}}, {{"x", 2}}, {{"x", 3}}}}}),
              (Lines{"in.0.x (int) = 1", "in.1.x (int) = 2", "in.2.x (int) = 3"}));
    EXPECT_EQ(stored({{"in", {{{"x", 1}, {"y", true}}}}}),
              (Lines{"in.0.x (int) = 1", "in.0.y (bool) = 1"}));
    EXPECT_EQ(stored({{"in", {{{"v", {1, 2}}}, {{"v", {"a", "b"}}}}}}),
              (Lines{"in.0.v (IntVector) = {1, 2}", "in.1.v (StringVector) = {a, b}"}));
}

TEST(ConfigLiteral, TakesListsInListsAndSubtrees)
{
    EXPECT_EQ(
        stored({{"rows", {{{"cells", {{{"v", 1}}, {{"v", 2}}}}}, {{"cells", {{{"v", 3}}}}}}}}),
        (Lines{"rows.0.cells.0.v (int) = 1", "rows.0.cells.1.v (int) = 2",
               "rows.1.cells.0.v (int) = 3"}));
    EXPECT_EQ(stored({{"a", {{"l", {{{"s", "x"}}, {{"s", "y"}}}}}}}),
              (Lines{"a.l.0.s (string) = x", "a.l.1.s (string) = y"}));
    EXPECT_EQ(stored({{"l", {{{"a", {{"b", "x"}}}}}}}), Lines{"l.0.a.b (string) = x"});
}

TEST(ConfigLiteral, CountsListEntriesInPlainDecimal)
{
    const BlockConfiguration config = {{"l",
                                        {{{"x", 0}},
                                         {{"x", 1}},
                                         {{"x", 2}},
                                         {{"x", 3}},
                                         {{"x", 4}},
                                         {{"x", 5}},
                                         {{"x", 6}},
                                         {{"x", 7}},
                                         {{"x", 8}},
                                         {{"x", 9}},
                                         {{"x", 10}},
                                         {{"x", 11}}}}};

    for (int index = 0; index < 12; ++index) {
        EXPECT_EQ(config.getInt("l." + std::to_string(index) + ".x"), index);
    }
    EXPECT_TRUE(config.is_consumed());
}

TEST(ConfigLiteral, LeavesAGapForAnEmptyListEntry)
{
    EXPECT_EQ(keys({{"l", {{{"x", 1}}, {}, {{"x", 2}}}}}), (Lines{"l.0.x", "l.2.x"}));
    EXPECT_EQ(keys({{"l", {{}, {{"x", "a"}}}}}), Lines{"l.1.x"});
    EXPECT_EQ(keys({{"l", {{}, {}, {{"x", 1}, {"y", 2}}, {}}}}), (Lines{"l.2.x", "l.2.y"}));
    EXPECT_EQ(keys({{"l", Subtrees{{}, Members{{"x", "a"}}, Members{}, Members{{"x", 1}}}}}),
              (Lines{"l.1.x", "l.3.x"}));
}

TEST(ConfigLiteral, LeavesNoTraceOfEmptySubtreesAndLists)
{
    EXPECT_EQ(keys({{"sub", Members{}}}), Lines{});
    EXPECT_EQ(keys({{"list", Subtrees{}}}), Lines{});
    EXPECT_EQ(keys({{"list", Subtrees{{}, {}}}}), Lines{});
    EXPECT_EQ(keys({{"a", {{"b", Members{}}}}}), Lines{});
    EXPECT_EQ(keys({{"a", {{"b", Members{}}, {"c", 1}}}}), Lines{"a.c"});
    EXPECT_TRUE((BlockConfiguration{{"sub", Members{}}}.is_consumed()));
}

TEST(ConfigLiteral, DoesNotEvenCheckTheKeyOfWhatIsEmpty)
{
    EXPECT_EQ(keys({{"not valid", Members{}}}), Lines{});
    EXPECT_EQ(keys({{"not valid", Subtrees{{}}}}), Lines{});
}

TEST(ConfigLiteral, LetsALaterMemberOverwriteAnEarlierOne)
{
    EXPECT_EQ(stored({{"x", 1}, {"x", "two"}}), Lines{"x (string) = two"});
    EXPECT_EQ(stored({{"a", {{"b", 1}}}, {"a.b", 2}}), Lines{"a.b (int) = 2"});
    EXPECT_EQ(stored({{"a.b", 2}, {"a", {{"b", 1}}}}), Lines{"a.b (int) = 1"});
    EXPECT_EQ(stored({{"l", {{{"x", 1}}, {{"x", 2}}}}, {"l.1.x", 3}}),
              (Lines{"l.0.x (int) = 1", "l.1.x (int) = 3"}));
    EXPECT_EQ(stored({{"l", {{{"x", 1}, {"y", 1}}}}, {"l", {{{"x", 2}}}}}),
              (Lines{"l.0.x (int) = 2", "l.0.y (int) = 1"}));
}

TEST(ConfigLiteral, TakesDottedKeys)
{
    EXPECT_EQ(stored({{"a.b", 1}}), Lines{"a.b (int) = 1"});
    EXPECT_EQ(stored({{"a.b", {{"c.d", 1}}}}), Lines{"a.b.c.d (int) = 1"});
    EXPECT_EQ(stored({{"a.b", {{{"c.d", 1}}}}}), Lines{"a.b.0.c.d (int) = 1"});
    EXPECT_EQ(stored({{"", {{"", 1}}}}), Lines{". (int) = 1"});
    EXPECT_EQ(stored({{"a.", {{".b", 1}}}}), Lines{"a...b (int) = 1"});
}

TEST(ConfigLiteral, MayBeEmptyOrHoldOneOrTwoStrings)
{
    const BlockConfiguration empty{};
    const BlockConfiguration also_empty = {};
    const BlockConfiguration one{{"x", "y"}};
    const BlockConfiguration in_parentheses({{"x", "y"}});
    const BlockConfiguration two = {{"a", "b"}, {"c", "d"}};
    const BlockConfiguration two_in_parentheses({{"a", "b"}, {"c", "d"}});
    const BlockConfiguration copied{one};

    EXPECT_EQ(contents(empty), Lines{});
    EXPECT_EQ(contents(also_empty), Lines{});
    EXPECT_EQ(stored({}), Lines{});
    EXPECT_EQ(contents(one), Lines{"x (string) = y"});
    EXPECT_EQ(contents(in_parentheses), Lines{"x (string) = y"});
    EXPECT_EQ(contents(two), (Lines{"a (string) = b", "c (string) = d"}));
    EXPECT_EQ(contents(two_in_parentheses), (Lines{"a (string) = b", "c (string) = d"}));
    EXPECT_EQ(contents(copied), Lines{"x (string) = y"});
}

TEST(ConfigLiteral, CanBeAssignedAndMerged)
{
    BlockConfiguration config;

    config = {{"a", 1}, {"b", {{"c", "x"}}}};
    config += {{"b", {{"c", "y"}}}};

    EXPECT_EQ(contents(config), (Lines{"a (int) = 1", "b.c (string) = y"}));
}

TEST(ConfigLiteral, StoresEverythingUnread)
{
    const BlockConfiguration config = {{"a", 1}, {"b", {{"c", "x"}}}, {"l", {{{"d", {1}}}}}};

    EXPECT_EQ(unread_keys(config), (Lines{"a", "b.c", "l.0.d"}));
}

TEST(ConfigLiteral, NamesTheFullKeyOfABadOne)
{
    const auto make = [](const BlockConfiguration& config) { return config; };

    expect_throw<std::runtime_error>([&] { make({{"a b", 1}}); }, refusal("a b"));
    expect_throw<std::runtime_error>(
        [&] {
            make({{"a", {{"b", {{"c d", 1}}}}}});
        },
        refusal("a.b.c d"));
    expect_throw<std::runtime_error>(
        [&] {
            make({{"a", {{"b/c", {{"d", 1}}}}}});
        },
        refusal("a.b/c.d"));
    expect_throw<std::runtime_error>(
        [&] {
            make({{"l", {{{"x", 1}}, {{"y", {{{"z!", "text"}}}}}}}});
        },
        refusal("l.1.y.0.z!"));
}

TEST(ConfigLiteral, RefusesNullPointersAsKeyValueAndItem)
{
    const char* const null = nullptr;

    expect_throw<std::logic_error>([&] { BlockConfiguration{{null, 1}}; }, kNullText);
    expect_throw<std::logic_error>([&] { BlockConfiguration{{null, {{"x", 1}}}}; }, kNullText);
    expect_throw<std::logic_error>([&] { BlockConfiguration{{"x", null}}; }, kNullText);
    expect_throw<std::logic_error>([&] { BlockConfiguration{{"x", {null}}}; }, kNullText);
    expect_throw<std::logic_error>([&] { BlockConfiguration{{"x", {"a", null}}}; }, kNullText);
    expect_throw<std::logic_error>([&] { BlockConfiguration{{"x", {null, null}}}; }, kNullText);
    expect_throw<std::logic_error>(
        [&] {
            BlockConfiguration{{"x", {std::string("a"), null}}};
        },
        kNullText);
    expect_throw<std::logic_error>(
        [&] {
            BlockConfiguration{{"x", std::vector<const char*>{"a", null}}};
        },
        kNullText);
    expect_throw<std::logic_error>(
        [&] {
            BlockConfiguration{{"x", {{"y", {{"z", null}}}}}};
        },
        kNullText);
    expect_throw<std::logic_error>(
        [&] {
            BlockConfiguration{{"x", StringWrapper(null)}};
        },
        kNullText);
}

TEST(ConfigLiteral, RefusesANullPointerBeforeItLooksAtTheKey)
{
    const char* const null = nullptr;

    expect_throw<std::logic_error>([&] { BlockConfiguration{{"not valid", null}}; }, kNullText);
    expect_throw<std::logic_error>(
        [&] {
            BlockConfiguration{{"not valid", 1}, {"x", null}};
        },
        kNullText);
}

TEST(ConfigKeyValue, StoresUnderAPrefix)
{
    BlockConfiguration config = {{"old", 1}, {"p.x", "replaced"}};

    KeyValue::set_recursively(config, "p.", KeyValue("x", 2));
    KeyValue::set_recursively(config, "", KeyValue("y", {{"z", 3}}));
    KeyValue::set_recursively(config, "p.", KeyValue("l", {{{"a", 1}}, {{"a", 2}}}));
    KeyValue::set_recursively(config, "without", KeyValue("stop", 4));

    EXPECT_EQ(contents(config), (Lines{"old (int) = 1", "p.l.0.a (int) = 1", "p.l.1.a (int) = 2",
                                       "p.x (int) = 2", "withoutstop (int) = 4", "y.z (int) = 3"}));
}

TEST(ConfigKeyValue, MakesAReadElementUnreadAgain)
{
    BlockConfiguration config = {{"x", 1}};
    config.getInt("x");

    KeyValue::set_recursively(config, "", KeyValue("x", 1));

    EXPECT_FALSE(config.is_consumed());
}

TEST(ConfigKeyValue, KeepsWhatWasStoredBeforeABadKey)
{
    BlockConfiguration config;
    const KeyValue value("p", {{"a", 1}, {"b c", 2}, {"d", 3}});

    expect_throw<std::runtime_error>([&] { KeyValue::set_recursively(config, "", value); },
                                     refusal("p.b c"));

    EXPECT_EQ(contents(config), Lines{"p.a (int) = 1"});
}

TEST(ConfigKeyValue, ChecksThePrefixWithTheKey)
{
    BlockConfiguration config;

    expect_throw<std::runtime_error>(
        [&] { KeyValue::set_recursively(config, "a b.", KeyValue("x", 1)); }, refusal("a b.x"));

    EXPECT_EQ(contents(config), Lines{});
}

TEST(ConfigKeyValue, CanBeStoredTwiceAndSharedByCopies)
{
    const KeyValue original("x", {"a", "b"});
    KeyValue copy(original);
    KeyValue assigned("other", 1);
    assigned = copy;
    KeyValue moved(std::move(copy));
    BlockConfiguration first;
    BlockConfiguration second;

    KeyValue::set_recursively(first, "", original);
    KeyValue::set_recursively(first, "p.", assigned);
    KeyValue::set_recursively(second, "", moved);
    KeyValue::set_recursively(second, "p.", copy);
    first.set("x", 1);

    EXPECT_EQ(contents(first), (Lines{"p.x (StringVector) = {a, b}", "x (int) = 1"}));
    EXPECT_EQ(contents(second),
              (Lines{"p.x (StringVector) = {a, b}", "x (StringVector) = {a, b}"}));
}

TEST(ConfigKeyValue, HoldsItsContentLongerThanTheListsItWasMadeOf)
{
    std::vector<KeyValue> members;
    for (const std::string name : {"a", "b"}) {
        members.emplace_back(name, Members{{"x", name}, {"l", {{{"y", name}}}}});
    }
    BlockConfiguration config;

    for (const KeyValue& member : members) {
        KeyValue::set_recursively(config, "", member);
    }

    EXPECT_EQ(contents(config), (Lines{"a.l.0.y (string) = a", "a.x (string) = a",
                                       "b.l.0.y (string) = b", "b.x (string) = b"}));
}

TEST(ConfigKeyValue, ConvertsCharactersAndStringsToTheWrapperAndNothingElse)
{
    EXPECT_TRUE((std::is_convertible_v<const char*, StringWrapper>));
    EXPECT_TRUE((std::is_convertible_v<std::string, StringWrapper>));
    EXPECT_TRUE((std::is_convertible_v<const std::string&, StringWrapper>));
    EXPECT_FALSE((std::is_convertible_v<int, StringWrapper>));
    EXPECT_FALSE((std::is_convertible_v<bool, StringWrapper>));
    EXPECT_FALSE((std::is_convertible_v<char, StringWrapper>));
    EXPECT_FALSE((std::is_convertible_v<void*, StringWrapper>));
    EXPECT_FALSE((std::is_convertible_v<const wchar_t*, StringWrapper>));
    EXPECT_FALSE((std::is_convertible_v<std::vector<std::string>, StringWrapper>));
}

TEST(ConfigKeyValue, StoresIntoAMovedFromConfiguration)
{
    BlockConfiguration config = {{"x", 1}};
    const BlockConfiguration taken = std::move(config);

    KeyValue::set_recursively(config, "", KeyValue("y", 2));

    EXPECT_EQ(contents(config), Lines{"y (int) = 2"});
    EXPECT_EQ(contents(taken), Lines{"x (int) = 1"});
}

}  // namespace
