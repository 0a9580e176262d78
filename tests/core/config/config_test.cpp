#include <quorval/config.h>
#include "core/config/contents.h"
#include "support/support.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <fstream>
#include <functional>
#include <limits>
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
using Type = BlockConfiguration::Type;

/// One element of each type, under the name of its type.
BlockConfiguration one_of_each_type()
{
    BlockConfiguration config;
    config.set("int", 3);
    config.set("bool", true);
    config.set("double", 0.5);
    config.set("string", std::string("text"));
    config.set("IntVector", std::vector<int>{1, 2});
    config.set("DoubleVector", std::vector<double>{0.25, 4.0});
    config.set("StringVector", std::vector<std::string>{"a", "b"});
    config.set("BoolVector", std::vector<bool>{true, false});
    return config;
}

/// Every getter with and without a default, by the name in its messages.
struct Getter {
    std::string name;
    std::vector<std::string> accepted;
    std::function<void(const BlockConfiguration&, const std::string&)> read;
    std::function<void(const BlockConfiguration&, const std::string&)> read_or_default;

    bool accepts(const std::string& type) const
    {
        for (const std::string& name_of_type : accepted) {
            if (name_of_type == type) {
                return true;
            }
        }
        return false;
    }

    std::string name_for_a_wrong_type() const
    {
        return name == "getFloatVector" ? "getDoubleVector" : name;
    }
};

#define GETTER(name, default_value, ...)                                        \
    {                                                                           \
#name, {__VA_ARGS__},                                                         \
            [](const BlockConfiguration& config, const std::string& key) {            \
                config.name(key);                                                     \
            },                                                                        \
            [](const BlockConfiguration& config, const std::string& key) {            \
                EXPECT_EQ(config.name(key, default_value), default_value) << key;     \
            } \
    }

const std::vector<Getter>& getters()
{
    static const std::vector<Getter> kGetters = {
        GETTER(getInt, 7, "int"),
        GETTER(getBool, true, "bool"),
        GETTER(getDouble, 7.5, "double", "int"),
        GETTER(getFloat, 7.5F, "double", "int"),
        GETTER(getString, std::string("seven"), "string"),
        GETTER(getIntVector, (std::vector<int>{7, 8}), "IntVector"),
        GETTER(getDoubleVector, (std::vector<double>{7.5, 8.5}), "DoubleVector", "IntVector"),
        GETTER(getFloatVector, (std::vector<float>{7.5F, 8.5F}), "DoubleVector", "IntVector"),
        GETTER(getStringVector, (std::vector<std::string>{"seven"}), "StringVector"),
        GETTER(getBoolVector, (std::vector<bool>{true, true}), "BoolVector")};
    return kGetters;
}

#undef GETTER

std::string refusal(const std::string& key)
{
    return "Parameter name '" + key + "' not valid (should be [a-z0-9_.-]).";
}

TEST(BlockConfigurationType, NumbersTheEightTypesInTheOrderOfTheInterface)
{
    EXPECT_EQ(static_cast<int>(Type::Int), 0);
    EXPECT_EQ(static_cast<int>(Type::Bool), 1);
    EXPECT_EQ(static_cast<int>(Type::Double), 2);
    EXPECT_EQ(static_cast<int>(Type::String), 3);
    EXPECT_EQ(static_cast<int>(Type::IntVector), 4);
    EXPECT_EQ(static_cast<int>(Type::DoubleVector), 5);
    EXPECT_EQ(static_cast<int>(Type::StringVector), 6);
    EXPECT_EQ(static_cast<int>(Type::BoolVector), 7);
    EXPECT_TRUE((std::is_same_v<std::underlying_type_t<Type>, int>));
}

TEST(BlockConfigurationType, HasANameForEachNumber)
{
    const std::vector<std::string> names = {"int",          "bool",      "double",
                                            "string",       "IntVector", "DoubleVector",
                                            "StringVector", "BoolVector"};

    for (std::size_t number = 0; number < names.size(); ++number) {
        EXPECT_EQ(to_string(static_cast<Type>(number)), names[number]) << number;
        EXPECT_EQ(to_string(static_cast<Type>(number)), names[number]) << number << ", again";
    }
}

TEST(BlockConfigurationType, CallsEveryOtherNumberQuestionMarks)
{
    for (const int number :
         {-1, 8, 9, 255, 256, std::numeric_limits<int>::min(), std::numeric_limits<int>::max()}) {
        EXPECT_EQ(to_string(static_cast<Type>(number)), "??") << number;
    }
}

TEST(BlockConfigurationEmpty, HoldsNothingAndIsConsumed)
{
    const BlockConfiguration config;

    EXPECT_EQ(contents(config), Lines{});
    EXPECT_TRUE(config.is_consumed());
}

TEST(BlockConfigurationSet, GivesEachValueTheTypeOfItsOverload)
{
    const BlockConfiguration config = one_of_each_type();

    EXPECT_EQ(contents(config),
              (Lines{"BoolVector (BoolVector) = {1, 0}", "DoubleVector (DoubleVector) = {0.25, 4}",
                     "IntVector (IntVector) = {1, 2}", "StringVector (StringVector) = {a, b}",
                     "bool (bool) = 1", "double (double) = 0.5", "int (int) = 3",
                     "string (string) = text"}));
    EXPECT_EQ(unread_keys(config), keys(config));
}

TEST(BlockConfigurationSet, StoresCharactersAsAStringAndNotAsABool)
{
    BlockConfiguration config;
    const char* const text = "characters";
    char buffer[] = "buffer";

    config.set("pointer", text);
    config.set("literal", "literal");
    config.set("empty", "");
    config.set("buffer", buffer);

    EXPECT_EQ(contents(config),
              (Lines{"buffer (string) = buffer", "empty (string) = ", "literal (string) = literal",
                     "pointer (string) = characters"}));
}

TEST(BlockConfigurationSet, StoresAFloatAsADouble)
{
    BlockConfiguration config;

    config.set("x", 0.1F);

    EXPECT_EQ(config.getType("x"), Type::Double);
    EXPECT_EQ(config.getDouble("x"), static_cast<double>(0.1F));
}

TEST(BlockConfigurationSet, StoresEmptyVectorsAsElementsOfTheirType)
{
    BlockConfiguration config;

    config.set("i", std::vector<int>{});
    config.set("d", std::vector<double>{});
    config.set("s", std::vector<std::string>{});
    config.set("b", std::vector<bool>{});

    EXPECT_EQ(contents(config), (Lines{"b (BoolVector) = {}", "d (DoubleVector) = {}",
                                       "i (IntVector) = {}", "s (StringVector) = {}"}));
}

TEST(BlockConfigurationSet, KeepsExtremeValuesExactly)
{
    constexpr int kLeast = std::numeric_limits<int>::min();
    constexpr double kTiny = std::numeric_limits<double>::denorm_min();
    const std::string with_null("a\0b\n", 4);
    const std::vector<bool> bits(131, true);
    BlockConfiguration config;

    config.set("int", kLeast);
    config.set("tiny", kTiny);
    config.set("minus", -0.0);
    config.set("nan", std::nan(""));
    config.set("string", with_null);
    config.set("bits", bits);

    EXPECT_EQ(config.getInt("int"), kLeast);
    EXPECT_EQ(config.getDouble("tiny"), kTiny);
    EXPECT_TRUE(std::signbit(config.getDouble("minus")));
    EXPECT_TRUE(std::isnan(config.getDouble("nan")));
    EXPECT_EQ(config.getString("string"), with_null);
    EXPECT_EQ(config.getBoolVector("bits"), bits);
}

TEST(BlockConfigurationSet, ReplacesAnElementWhateverItsType)
{
    const BlockConfiguration values = one_of_each_type();

    for (const std::string& before : keys(values)) {
        BlockConfiguration config;
        const auto set = [&config](const std::string& type) {
            if (type == "int")
                config.set("x", 9);
            if (type == "bool")
                config.set("x", false);
            if (type == "double")
                config.set("x", 9.5);
            if (type == "string")
                config.set("x", "nine");
            if (type == "IntVector")
                config.set("x", std::vector<int>{9});
            if (type == "DoubleVector")
                config.set("x", std::vector<double>{9.5});
            if (type == "StringVector")
                config.set("x", std::vector<std::string>{"nine"});
            if (type == "BoolVector")
                config.set("x", std::vector<bool>{false});
        };
        for (const std::string& after : keys(values)) {
            SCOPED_TRACE(before + " replaced by " + after);
            set(before);
            quorval_test::consume(*config.iterate("x"));
            ASSERT_TRUE(config.is_consumed());

            set(after);

            EXPECT_EQ(config.getTypeName("x"), after);
            EXPECT_EQ(contents(config).size(), 1U);
            EXPECT_FALSE(config.is_consumed());
        }
    }
}

TEST(BlockConfigurationSet, NeitherMergesNorAppends)
{
    BlockConfiguration config;
    config.set("v", std::vector<int>{1, 2, 3});
    config.set("s", "long text");

    config.set("v", std::vector<int>{4});
    config.set("s", "x");

    EXPECT_EQ(contents(config), (Lines{"s (string) = x", "v (IntVector) = {4}"}));
}

TEST(BlockConfigurationSet, MakesAReadElementUnreadAgain)
{
    BlockConfiguration config;
    config.set("x", 1);
    EXPECT_EQ(config.getInt("x"), 1);
    ASSERT_TRUE(config.is_consumed());

    config.set("x", 1);

    EXPECT_FALSE(config.is_consumed());
}

TEST(BlockConfigurationSet, LeavesTheMarksOfOtherElements)
{
    BlockConfiguration config;
    config.set("read", 1);
    config.set("unread", 1);
    EXPECT_EQ(config.getInt("read"), 1);

    config.set("third", 1);

    EXPECT_EQ(unread_keys(config), (Lines{"third", "unread"}));
}

TEST(BlockConfigurationSet, KeepsTheKeysInTheOrderOfTheirBytes)
{
    BlockConfiguration config;
    const Lines shuffled = {"b", "a.x", "a-b.x", "10", "2", "", "a", "B", "_", ".a", "a.", "a.-"};

    for (const std::string& key : shuffled) {
        config.set(key, 1);
    }

    EXPECT_EQ(keys(config),
              (Lines{"", ".a", "10", "2", "B", "_", "a", "a-b.x", "a.", "a.-", "a.x", "b"}));
}

TEST(BlockConfigurationSet, AcceptsExactlyTheAllowedCharacters)
{
    const std::string allowed = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789_-.";
    ASSERT_EQ(allowed.size(), 65U);

    for (int byte = 0; byte < 256; ++byte) {
        const std::string character(1, static_cast<char>(byte));
        for (const std::string& key :
             {character, "a" + character, character + "z", "a" + character + "z"}) {
            SCOPED_TRACE(byte);
            BlockConfiguration config;
            if (allowed.find(character) != std::string::npos) {
                config.set(key, byte);
                EXPECT_EQ(keys(config), Lines{key});
            } else {
                expect_throw<std::runtime_error>([&] { config.set(key, byte); },
                                                 std::string(refusal(key).c_str()));
                EXPECT_EQ(keys(config), Lines{});
            }
        }
    }
}

TEST(BlockConfigurationSet, PutsTheWholeKeyIntoTheMessage)
{
    BlockConfiguration config;
    const std::string key("a\0b", 3);

    try {
        config.set(key, 1);
        ADD_FAILURE() << "threw nothing";
    } catch (const std::runtime_error& error) {
        // what() ends for a reader at the null byte, as for every exception.
        EXPECT_STREQ(error.what(), "Parameter name 'a");
    }
    EXPECT_EQ(keys(config), Lines{});
}

TEST(BlockConfigurationSet, AcceptsUpperCaseAlthoughTheMessageNamesLowerCaseOnly)
{
    BlockConfiguration config;

    config.set("Rate", 48000);

    EXPECT_EQ(contents(config), Lines{"Rate (int) = 48000"});
    expect_throw<std::runtime_error>([&] { config.set("RATE!", 1); },
                                     "Parameter name 'RATE!' not valid (should be [a-z0-9_.-]).");
}

TEST(BlockConfigurationSet, AcceptsTheEmptyKeyAndFullStopsAnywhere)
{
    for (const std::string key : {"", ".", "..", ".a", "a.", "a..b", "-", "_", "0", "a.0.b"}) {
        BlockConfiguration config;

        config.set(key, 1);

        EXPECT_EQ(keys(config), Lines{key});
        EXPECT_EQ(config.getInt(key), 1) << key;
    }
}

TEST(BlockConfigurationSet, AcceptsALongKey)
{
    BlockConfiguration config;
    const std::string key(100000, 'k');

    config.set(key, 1);

    EXPECT_EQ(config.getInt(key), 1);
    expect_throw<std::runtime_error>([&] { config.set(key + " ", 2); }, refusal(key + " "));
}

TEST(BlockConfigurationSet, RefusesAnInvalidKeyWithEveryTypeAndChangesNothing)
{
    BlockConfiguration config = one_of_each_type();
    const Lines before = contents(config);
    const std::string text = refusal("a b/c");

    expect_throw<std::runtime_error>([&] { config.set("a b/c", 1); }, text);
    expect_throw<std::runtime_error>([&] { config.set("a b/c", true); }, text);
    expect_throw<std::runtime_error>([&] { config.set("a b/c", 1.0); }, text);
    expect_throw<std::runtime_error>([&] { config.set("a b/c", "x"); }, text);
    expect_throw<std::runtime_error>([&] { config.set("a b/c", std::string("x")); }, text);
    expect_throw<std::runtime_error>([&] { config.set("a b/c", std::vector<int>{1}); }, text);
    expect_throw<std::runtime_error>([&] { config.set("a b/c", std::vector<double>{1}); }, text);
    expect_throw<std::runtime_error>([&] { config.set("a b/c", std::vector<bool>{true}); }, text);
    expect_throw<std::runtime_error>([&] { config.set("a b/c", std::vector<std::string>{"x"}); },
                                     text);

    EXPECT_EQ(contents(config), before);
}

TEST(BlockConfigurationSet, RefusesANullPointerBeforeItLooksAtTheKey)
{
    BlockConfiguration config;
    config.set("x", 1);
    const char* const null = nullptr;

    for (const std::string key : {"x", "y", "not valid"}) {
        expect_throw<std::logic_error>([&] { config.set(key, null); },
                                       "basic_string: construction from null is not valid");
    }

    EXPECT_EQ(contents(config), Lines{"x (int) = 1"});
}

TEST(BlockConfigurationGetters, ReturnWhatWasStoredAndConsumeIt)
{
    const BlockConfiguration config = one_of_each_type();

    EXPECT_EQ(config.getInt("int"), 3);
    EXPECT_EQ(config.getBool("bool"), true);
    EXPECT_EQ(config.getDouble("double"), 0.5);
    EXPECT_EQ(config.getString("string"), "text");
    EXPECT_EQ(config.getIntVector("IntVector"), (std::vector<int>{1, 2}));
    EXPECT_EQ(config.getDoubleVector("DoubleVector"), (std::vector<double>{0.25, 4.0}));
    EXPECT_EQ(config.getStringVector("StringVector"), (std::vector<std::string>{"a", "b"}));
    EXPECT_FALSE(config.is_consumed());
    EXPECT_EQ(config.getBoolVector("BoolVector"), (std::vector<bool>{true, false}));

    EXPECT_TRUE(config.is_consumed());
}

TEST(BlockConfigurationGetters, WithADefaultReturnWhatWasStoredAndConsumeIt)
{
    const BlockConfiguration config = one_of_each_type();

    EXPECT_EQ(config.getInt("int", 7), 3);
    EXPECT_EQ(config.getBool("bool", false), true);
    EXPECT_EQ(config.getDouble("double", 7.0), 0.5);
    EXPECT_EQ(config.getString("string", "seven"), "text");
    EXPECT_EQ(config.getIntVector("IntVector", {7}), (std::vector<int>{1, 2}));
    EXPECT_EQ(config.getDoubleVector("DoubleVector", {7.0}), (std::vector<double>{0.25, 4.0}));
    EXPECT_EQ(config.getStringVector("StringVector", std::vector<std::string>{"seven"}),
              (std::vector<std::string>{"a", "b"}));
    EXPECT_FALSE(config.is_consumed());
    EXPECT_EQ(config.getBoolVector("BoolVector", std::vector<bool>{}),
              (std::vector<bool>{true, false}));

    EXPECT_TRUE(config.is_consumed());
}

TEST(BlockConfigurationGetters, ReadTheSameElementTwice)
{
    const BlockConfiguration config = one_of_each_type();

    EXPECT_EQ(config.getString("string"), "text");
    EXPECT_EQ(config.getString("string"), "text");

    EXPECT_EQ(contents(config), contents(one_of_each_type()));
}

TEST(BlockConfigurationGetters, ConsumeAnElementOfEachTypeThatTheyAccept)
{
    for (const Getter& getter : getters()) {
        for (const std::string& type : getter.accepted) {
            SCOPED_TRACE(getter.name + " of " + type);
            BlockConfiguration config = one_of_each_type();

            getter.read(config, type);

            Lines others = keys(config);
            others.erase(std::find(others.begin(), others.end(), type));
            EXPECT_EQ(unread_keys(config), others);
        }
    }
}

TEST(BlockConfigurationGetters, RefuseEveryOtherTypeAndChangeNothing)
{
    const BlockConfiguration config = one_of_each_type();

    for (const Getter& getter : getters()) {
        for (const std::string& type : keys(config)) {
            if (getter.accepts(type)) {
                continue;
            }
            SCOPED_TRACE(getter.name + " of " + type);
            const std::string text = "BlockConfiguration::" + getter.name_for_a_wrong_type() +
                                     " failed, the parameter '" + type + "' is type: " + type;
            expect_throw<std::runtime_error>([&] { getter.read(config, type); }, text);
            expect_throw<std::runtime_error>([&] { getter.read_or_default(config, type); }, text);
        }
    }

    EXPECT_EQ(unread_keys(config), keys(config));
    EXPECT_EQ(contents(config), contents(one_of_each_type()));
}

TEST(BlockConfigurationGetters, ReportAMissingElementAndChangeNothing)
{
    const BlockConfiguration config = one_of_each_type();

    for (const Getter& getter : getters()) {
        for (const std::string key : {"", "absent", "int.x", "in", "not valid"}) {
            SCOPED_TRACE(getter.name + " of '" + key + "'");
            expect_throw<std::out_of_range>([&] { getter.read(config, key); },
                                            "BlockConfiguration::" + getter.name +
                                                " failed, the parameter '" + key +
                                                "' does not exist");
        }
    }

    EXPECT_EQ(unread_keys(config), keys(config));
    EXPECT_EQ(contents(config), contents(one_of_each_type()));
}

TEST(BlockConfigurationGetters, ReturnTheDefaultForAMissingElementAndStoreNothing)
{
    const BlockConfiguration config = one_of_each_type();

    for (const Getter& getter : getters()) {
        getter.read_or_default(config, "absent");
        getter.read_or_default(config, "not valid");
    }

    EXPECT_EQ(unread_keys(config), keys(config));
    EXPECT_EQ(contents(config), contents(one_of_each_type()));
}

TEST(BlockConfigurationGetters, FindTheElementOfTheEmptyKey)
{
    BlockConfiguration config;
    config.set("", 5);

    EXPECT_EQ(config.getInt(""), 5);
    EXPECT_TRUE(config.is_consumed());
}

TEST(BlockConfigurationGetters, FindOneOfManyKeysWithTheSameBeginning)
{
    BlockConfiguration config;
    for (int index = 0; index < 300; ++index) {
        config.set("superblock.outputs." + std::to_string(index) + ".name", index);
    }

    for (int index = 0; index < 300; ++index) {
        const std::string path = "superblock.outputs." + std::to_string(index);
        EXPECT_EQ(config.getInt(path + ".name"), index);
        EXPECT_EQ(config.getInt(path + ".nam", -1), -1);
        EXPECT_EQ(config.getInt(path + ".name.", -1), -1);
        EXPECT_EQ(config.getInt(path + ".nbme", -1), -1);
    }
}

TEST(BlockConfigurationGetters, WidenAnInt)
{
    BlockConfiguration config;
    config.set("x", 3);
    config.set("great", 16777217);

    EXPECT_EQ(config.getDouble("x"), 3.0);
    EXPECT_EQ(config.getFloat("x"), 3.0F);
    EXPECT_EQ(config.getDouble("x", 7.0), 3.0);
    EXPECT_EQ(config.getFloat("x", 7.0F), 3.0F);
    EXPECT_EQ(config.getDouble("great"), 16777217.0);
    EXPECT_EQ(config.getFloat("great"), 16777216.0F);

    EXPECT_EQ(config.getType("x"), Type::Int);
}

TEST(BlockConfigurationGetters, NeverReadADoubleAsAnInt)
{
    BlockConfiguration config;
    config.set("gain", 3.0);

    expect_throw<std::runtime_error>(
        [&] { config.getInt("gain"); },
        "BlockConfiguration::getInt failed, the parameter 'gain' is type: double");
    expect_throw<std::runtime_error>(
        [&] { config.getInt("gain", 7); },
        "BlockConfiguration::getInt failed, the parameter 'gain' is type: double");

    EXPECT_FALSE(config.is_consumed());
}

TEST(BlockConfigurationGetters, NarrowADoubleToTheNearestFloat)
{
    BlockConfiguration config;
    config.set("x", 0.1);
    config.set("v", std::vector<double>{0.1, -0.0});

    EXPECT_EQ(config.getFloat("x"), 0.1F);
    EXPECT_EQ(config.getFloat("x", 7.0F), 0.1F);
    EXPECT_EQ(config.getFloatVector("v"), (std::vector<float>{0.1F, -0.0F}));
    EXPECT_TRUE(std::signbit(config.getFloatVector("v")[1]));
}

TEST(BlockConfigurationGetters, ConvertTheItemsOfAnIntVector)
{
    BlockConfiguration config;
    config.set("v", std::vector<int>{1, -2, 16777217});
    config.set("empty", std::vector<int>{});

    EXPECT_EQ(config.getDoubleVector("v"), (std::vector<double>{1.0, -2.0, 16777217.0}));
    EXPECT_EQ(config.getFloatVector("v"), (std::vector<float>{1.0F, -2.0F, 16777216.0F}));
    EXPECT_EQ(config.getDoubleVector("v", {7.0}), (std::vector<double>{1.0, -2.0, 16777217.0}));
    EXPECT_EQ(config.getFloatVector("v", {7.0F}), (std::vector<float>{1.0F, -2.0F, 16777216.0F}));
    EXPECT_FALSE(config.is_consumed());
    EXPECT_EQ(config.getFloatVector("empty"), std::vector<float>{});

    EXPECT_TRUE(config.is_consumed());
    EXPECT_EQ(config.getType("v"), Type::IntVector);
}

TEST(BlockConfigurationGetters, GetFloatVectorReportsAWrongTypeAsGetDoubleVector)
{
    BlockConfiguration config;
    config.set("x", "text");

    expect_throw<std::runtime_error>(
        [&] { config.getFloatVector("x"); },
        "BlockConfiguration::getDoubleVector failed, the parameter 'x' is type: string");
    expect_throw<std::runtime_error>(
        [&] { config.getFloatVector("x", {1.0F}); },
        "BlockConfiguration::getDoubleVector failed, the parameter 'x' is type: string");
    expect_throw<std::out_of_range>(
        [&] { config.getFloatVector("y"); },
        "BlockConfiguration::getFloatVector failed, the parameter 'y' does not exist");

    EXPECT_FALSE(config.is_consumed());
}

TEST(BlockConfigurationGetType, TellsTheTypeWithoutConsuming)
{
    const BlockConfiguration config = one_of_each_type();

    for (const std::string& type : keys(config)) {
        EXPECT_EQ(config.getTypeName(type), type);
        EXPECT_EQ(to_string(config.getType(type)), type);
    }

    EXPECT_EQ(config.getType("StringVector"), Type::StringVector);
    EXPECT_EQ(unread_keys(config), keys(config));
}

TEST(BlockConfigurationGetType, ReportsAMissingElement)
{
    const BlockConfiguration config = one_of_each_type();

    for (const std::string key : {"", "absent", "int.", "not valid"}) {
        expect_throw<std::invalid_argument>([&] { config.getType(key); },
                                            "No such parameter: " + key);
        expect_throw<std::invalid_argument>([&] { config.getTypeName(key); },
                                            "No such parameter: " + key);
    }

    EXPECT_EQ(contents(config), contents(one_of_each_type()));
}

TEST(BlockConfigurationConsumed, NeedsEveryElementToBeRead)
{
    BlockConfiguration config;
    config.set("a", 1);
    config.set("z.deep", "text");
    config.set("", true);

    EXPECT_FALSE(config.is_consumed());
    config.getInt("a");
    config.getString("z.deep");
    EXPECT_FALSE(config.is_consumed());
    config.getBool("");

    EXPECT_TRUE(config.is_consumed());
}

TEST(BlockConfigurationDelete, RemovesTheElementAndAllBelowIt)
{
    const BlockConfiguration all = {{"a", 1},  {"a.x", 1},  {"a.0.y", 1},
                                    {"ab", 1}, {"ab.x", 1}, {"b", 1}};
    struct Row {
        std::string prefix;
        Lines left;
    };
    const std::vector<Row> rows = {{"a", {"ab", "ab.x", "b"}},
                                   {"a.0", {"a", "a.x", "ab", "ab.x", "b"}},
                                   {"a.x", {"a", "a.0.y", "ab", "ab.x", "b"}},
                                   {"ab", {"a", "a.0.y", "a.x", "b"}},
                                   {"", {}},
                                   {"absent", keys(all)},
                                   {"a.", keys(all)},
                                   {"a b", keys(all)},
                                   {"a.0.y.z", keys(all)}};

    for (const Row& row : rows) {
        BlockConfiguration config = all;

        config.delete_element(row.prefix);

        EXPECT_EQ(keys(config), row.left) << "prefix '" << row.prefix << "'";
    }
}

TEST(BlockConfigurationDelete, MatchesThePrefixAnywhereInTheKey)
{
    struct Row {
        Lines before;
        std::string prefix;
        Lines left;
    };
    const std::vector<Row> rows = {
        {{"a", "a.b", "ab", "c.a"}, "a", {"ab"}},
        {{"x.b", "xb.c", "b", "xx.b"}, "b", {"xb.c", "xx.b"}},
        {{"x.yab", "xy.ab", "xyz.ab"}, "ab", {"x.yab", "xyz.ab"}},
        {{"a..b", "a.b", "ab.c"}, ".", {"ab.c"}},
        {{"..", ".", ".a"}, ".", {".a"}},
    };

    for (const Row& row : rows) {
        BlockConfiguration config;
        for (const std::string& key : row.before) {
            config.set(key, 1);
        }

        config.delete_element(row.prefix);

        EXPECT_EQ(keys(config), row.left) << "prefix '" << row.prefix << "'";
    }
}

// The sanitizers see whether a key is read behind its end, in the object of its string or
// elsewhere.
TEST(BlockConfigurationDelete, KeepsKeysThatAreShorterThanThePrefix)
{
    for (const std::size_t size : {1U, 15U, 16U, 40U, 200U}) {
        const BlockConfiguration all = {{std::string(size, 'a'), 1}};
        for (std::size_t more = 1; more < 100; ++more) {
            BlockConfiguration config = all;

            config.delete_element(std::string(size + more, 'a'));

            EXPECT_EQ(config, all) << size << " and " << more;
        }
    }
}

TEST(BlockConfigurationDelete, KeepsTheMarksOfWhatIsLeft)
{
    BlockConfiguration config = {{"a", 1}, {"b", 2}, {"c", 3}};
    config.getInt("b");

    config.delete_element("c");

    EXPECT_EQ(unread_keys(config), Lines{"a"});
}

TEST(BlockConfigurationDelete, CanMakeAConfigurationConsumed)
{
    BlockConfiguration config = {{"a", 1}, {"b", 2}};
    config.getInt("b");

    config.delete_element("a");

    EXPECT_TRUE(config.is_consumed());
}

TEST(BlockConfigurationDelete, DoesNothingOnAnEmptyConfigurationOrTwice)
{
    BlockConfiguration config;

    config.delete_element("");
    config.delete_element("a");
    config.set("a", 1);
    config.delete_element("a");
    config.delete_element("a");

    EXPECT_EQ(config, BlockConfiguration());
}

TEST(BlockConfigurationCopy, TakesValuesAndMarks)
{
    const BlockConfiguration config = one_of_each_type();
    config.getInt("int");
    config.getStringVector("StringVector");

    const BlockConfiguration copy(config);
    BlockConfiguration assigned = {{"old", 1}};
    BlockConfiguration& result = (assigned = config);

    EXPECT_EQ(&result, &assigned);
    for (const BlockConfiguration* other :
         {&copy, static_cast<const BlockConfiguration*>(&assigned)}) {
        EXPECT_EQ(*other, config);
        EXPECT_EQ(contents(*other), contents(config));
        EXPECT_EQ(unread_keys(*other), unread_keys(config));
    }
    EXPECT_EQ(unread_keys(config),
              (Lines{"BoolVector", "DoubleVector", "IntVector", "bool", "double", "string"}));
}

TEST(BlockConfigurationCopy, SharesNothingWithItsSource)
{
    BlockConfiguration config = one_of_each_type();
    BlockConfiguration copy(config);

    copy.set("string", "changed");
    copy.getInt("int");
    copy.delete_element("bool");
    config.set("extra", 1);

    EXPECT_EQ(config.getString("string"), "text");
    EXPECT_EQ(copy.getString("string"), "changed");
    EXPECT_EQ(config.getTypeName("bool"), "bool");
    EXPECT_EQ(unread_keys(config), (Lines{"BoolVector", "DoubleVector", "IntVector", "StringVector",
                                          "bool", "double", "extra", "int"}));
    EXPECT_EQ(copy.getInt("extra", -1), -1);
}

TEST(BlockConfigurationCopy, AssignedToItselfStaysWhatItIs)
{
    BlockConfiguration config = one_of_each_type();
    config.getInt("int");
    const BlockConfiguration& alias = config;

    config = alias;

    EXPECT_EQ(contents(config), contents(one_of_each_type()));
    EXPECT_EQ(unread_keys(config).size(), 7U);
}

TEST(BlockConfigurationMove, TakesValuesAndMarksAndLeavesTheSourceEmpty)
{
    BlockConfiguration config = one_of_each_type();
    config.getInt("int");
    const Lines unread = unread_keys(config);

    BlockConfiguration moved(std::move(config));
    EXPECT_EQ(keys(config), Lines{});
    BlockConfiguration assigned = {{"old", 1}};
    BlockConfiguration& result = (assigned = std::move(moved));

    EXPECT_EQ(&result, &assigned);
    EXPECT_EQ(keys(moved), Lines{});
    EXPECT_EQ(contents(assigned), contents(one_of_each_type()));
    EXPECT_EQ(unread_keys(assigned), unread);
    EXPECT_TRUE(std::is_nothrow_move_constructible_v<BlockConfiguration>);
    EXPECT_TRUE(std::is_nothrow_move_assignable_v<BlockConfiguration>);
}

TEST(BlockConfigurationMove, LeavesASourceOnWhichEveryOperationWorks)
{
    const auto moved_from = [] {
        BlockConfiguration config = {{"x", 1}};
        const BlockConfiguration taken(std::move(config));
        EXPECT_EQ(contents(taken), Lines{"x (int) = 1"});
        return config;
    };
    const BlockConfiguration other = {{"y", 2}};
    BlockConfiguration config = {{"x", 1}};
    BlockConfiguration taken = std::move(config);

    EXPECT_TRUE(config.is_consumed());
    EXPECT_TRUE(config == BlockConfiguration());
    EXPECT_TRUE(BlockConfiguration() == config);
    EXPECT_TRUE(config != other);
    EXPECT_EQ(config.getInt("x", 7), 7);
    expect_throw<std::out_of_range>([&] { config.getInt("x"); },
                                    "BlockConfiguration::getInt failed, the parameter 'x' does not "
                                    "exist");
    expect_throw<std::invalid_argument>([&] { config.getType("x"); }, "No such parameter: x");
    EXPECT_EQ(contents(config), Lines{});
    EXPECT_EQ(contents(config + other), Lines{"y (int) = 2"});
    EXPECT_EQ(contents(other + config), Lines{"y (int) = 2"});
    EXPECT_EQ(contents(config.diff(other)), Lines{});
    EXPECT_EQ(contents(other.diff(config)), Lines{"y (int) = 2"});
    EXPECT_EQ(contents(config.getSubtree("x")), Lines{});
    EXPECT_TRUE(config.iterate("")->is_end());
    EXPECT_TRUE(config.iterate_subtree("x").begin() == config.iterate_subtree("x").end());
    EXPECT_EQ(contents(BlockConfiguration(config)), Lines{});
    config.delete_element("x");
    config.rebase("p");
    EXPECT_EQ(contents(config), Lines{});
    config.set("z", 3);
    EXPECT_EQ(contents(config), Lines{"z (int) = 3"});
    EXPECT_EQ(contents(moved_from()), Lines{});
    expect_throw<std::runtime_error>([&] { moved_from().set("a b", 1); }, refusal("a b"));
    BlockConfiguration merged = {{"x", 1}};
    taken = std::move(merged);
    merged += other;
    EXPECT_EQ(contents(merged), Lines{"y (int) = 2"});
    taken = std::move(merged);
    merged = other;
    EXPECT_EQ(contents(merged), Lines{"y (int) = 2"});
    BlockConfiguration a;
    taken = std::move(a);
    taken = a;
    taken = std::move(a);
    EXPECT_EQ(contents(taken), Lines{});
}

TEST(BlockConfigurationMove, SwapsTwoConfigurations)
{
    BlockConfiguration a = {{"a", 1}};
    BlockConfiguration b = {{"b", 2}};

    std::swap(a, b);

    EXPECT_EQ(contents(a), Lines{"b (int) = 2"});
    EXPECT_EQ(contents(b), Lines{"a (int) = 1"});
}

TEST(BlockConfigurationAliases, StoresAStringThatTheConfigurationHolds)
{
    BlockConfiguration config = {{"a", "a text that is long enough to lie on the heap"},
                                 {"b", "other"}};
    const auto cursor = config.iterate("a");

    config.set("b", cursor->getString());
    config.set("c", cursor->getString());
    config.set("a", cursor->getString());

    for (const std::string key : {"a", "b", "c"}) {
        EXPECT_EQ(config.getString(key), "a text that is long enough to lie on the heap") << key;
    }
}

TEST(BlockConfigurationAliases, StoresVectorsThatTheConfigurationHolds)
{
    BlockConfiguration config = {{"b", std::vector<bool>(100, true)},
                                 {"d", {0.5, 1.5}},
                                 {"i", {1, 2, 3}},
                                 {"s", {"first", "second"}}};

    const auto cursor = config.iterate("");
    config.set("b", cursor->getBoolVector());
    cursor->advance();
    config.set("d", cursor->getDoubleVector());
    cursor->advance();
    config.set("i", cursor->getIntVector());
    cursor->advance();
    config.set("s", cursor->getStringVector());

    EXPECT_EQ(config.getBoolVector("b"), std::vector<bool>(100, true));
    EXPECT_EQ(config.getDoubleVector("d"), (std::vector<double>{0.5, 1.5}));
    EXPECT_EQ(config.getIntVector("i"), (std::vector<int>{1, 2, 3}));
    EXPECT_EQ(config.getStringVector("s"), (std::vector<std::string>{"first", "second"}));
}

TEST(BlockConfigurationAliases, StoresAnItemAndTheCharactersOfAStringOverTheirElement)
{
    BlockConfiguration config = {{"s", {"first item, long enough for the heap", "second"}},
                                 {"t", "characters, long enough for the heap"}};

    config.set("s", config.iterate("s")->getStringVector().front());
    config.set("t", config.iterate("t")->getString().c_str() + 12);

    EXPECT_EQ(contents(config), (Lines{"s (string) = first item, long enough for the heap",
                                       "t (string) = long enough for the heap"}));
}

TEST(BlockConfigurationAliases, SetsUnderAKeyThatTheConfigurationHolds)
{
    const std::string name = "a.key.that.is.long.enough.to.lie.on.the.heap";
    BlockConfiguration config = {{name, 1}};
    const auto cursor = config.iterate("");

    config.set(cursor->key(), cursor->key());

    EXPECT_EQ(config.getString(name), name);
    EXPECT_EQ(cursor->key(), name);
}

TEST(BlockConfigurationAliases, SetsUnderAStringThatTheSettingReplaces)
{
    BlockConfiguration config = {{"the.key.of.this.element.and.its.text", 0}};
    config.set("the.key.of.this.element.and.its.text", "the.key.of.this.element.and.its.text");
    const auto cursor = config.iterate("");
    const std::string& key = cursor->getString();

    config.set(key, 1);

    EXPECT_EQ(contents(config), Lines{"the.key.of.this.element.and.its.text (int) = 1"});
}

TEST(BlockConfigurationAliases, ReadsWithADefaultThatTheConfigurationHolds)
{
    const BlockConfiguration config = {{"a", "text"}, {"v", {1, 2}}};

    EXPECT_EQ(config.getString("absent", config.iterate("a")->getString()), "text");
    EXPECT_EQ(config.getIntVector("absent", config.iterate("v")->getIntVector()),
              (std::vector<int>{1, 2}));
}

TEST(BlockConfigurationAliases, DeletesByAKeyThatItRemoves)
{
    const std::string name = "a.key.that.is.long.enough.to.lie.on.the.heap";
    BlockConfiguration config = {{name, 1}, {name + ".below", 2}, {"other", 3}};

    config.delete_element(config.iterate(name)->key());

    EXPECT_EQ(keys(config), Lines{"other"});
}

TEST(BlockConfigurationAliases, DeletesByAStringThatItRemoves)
{
    BlockConfiguration config = {{"a.longer.name.than.a.small.string", 1},
                                 {"a.longer.name.than.a.small.string.x", 2}};
    config.set("a.longer.name.than.a.small.string", "a.longer.name.than.a.small.string");

    config.delete_element(config.iterate("")->getString());

    EXPECT_EQ(keys(config), Lines{});
}

TEST(BlockConfigurationFiles, LoadAndSaveDoNothing)
{
    const quorval_test::TemporaryDirectory directory;
    const std::string file = directory.path() / "file";
    quorval_test::write_file(file, "content");
    BlockConfiguration config = one_of_each_type();
    std::ifstream in(file);
    std::ofstream out(file, std::ios::app);
    std::ifstream closed_in;
    std::ofstream closed_out;

    config.load(in);
    config.save(out);
    config.load(closed_in);
    config.save(closed_out);
    out.flush();

    EXPECT_EQ(in.tellg(), std::streampos(0));
    EXPECT_TRUE(in.good() && out.good() && closed_in.good() && closed_out.good());
    EXPECT_EQ(quorval_test::read_file(file), "content");
    EXPECT_EQ(contents(config), contents(one_of_each_type()));
    EXPECT_EQ(unread_keys(config), keys(config));
}

}  // namespace
