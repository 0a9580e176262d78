// What read() and apply() make of a configuration.
#include <quorval/settings.h>
#include "support/support.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <limits>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

using Quorval::BlockConfiguration;
using Quorval::Settings;
using quorval_test::expect_throw;

struct All {
    int whole = 1;
    bool flag = true;
    double number = 2.5;
    float single = 0.1F;
    std::string text = "a";
    std::vector<int> wholes = {1, 2};
    std::vector<bool> flags = {true};
    std::vector<double> numbers = {0.5};
    std::vector<float> singles = {0.1F};
    std::vector<std::string> texts = {"a", "b"};
};

Settings<All> declare_all()
{
    return Settings<All>("Holds one of each.")
        .add("whole", &All::whole, "")
        .live()
        .add("flag", &All::flag, "")
        .live()
        .add("number", &All::number, "")
        .live()
        .add("single", &All::single, "")
        .live()
        .add("text", &All::text, "")
        .live()
        .add("wholes", &All::wholes, "")
        .live()
        .add("flags", &All::flags, "")
        .live()
        .add("numbers", &All::numbers, "")
        .live()
        .add("singles", &All::singles, "")
        .live()
        .add("texts", &All::texts, "")
        .live();
}

BlockConfiguration make_others()
{
    return {
        {"whole", -7},
        {"flag", false},
        {"number", -1e300},
        {"single", 0.25},
        {"text", ""},
        {"wholes", std::vector<int>{}},
        {"flags", {false, true}},
        {"numbers", {1, 2}},
        {"singles", {0.5, -0.5}},
        {"texts", std::vector<std::string>{}},
    };
}

void expect_others(const All& values)
{
    EXPECT_EQ(values.whole, -7);
    EXPECT_FALSE(values.flag);
    EXPECT_EQ(values.number, -1e300);
    EXPECT_EQ(values.single, 0.25F);
    EXPECT_EQ(values.text, "");
    EXPECT_EQ(values.wholes, std::vector<int>());
    EXPECT_EQ(values.flags, (std::vector<bool>{false, true}));
    EXPECT_EQ(values.numbers, (std::vector<double>{1, 2}));
    EXPECT_EQ(values.singles, (std::vector<float>{0.5F, -0.5F}));
    EXPECT_EQ(values.texts, std::vector<std::string>());
}

TEST(SettingsRead, TakesTheDefaultsFromTheStructure)
{
    const All values = declare_all().read({});

    EXPECT_EQ(values.whole, 1);
    EXPECT_TRUE(values.flag);
    EXPECT_EQ(values.number, 2.5);
    EXPECT_EQ(values.single, 0.1F);
    EXPECT_EQ(values.text, "a");
    EXPECT_EQ(values.wholes, (std::vector<int>{1, 2}));
    EXPECT_EQ(values.flags, std::vector<bool>{true});
    EXPECT_EQ(values.numbers, std::vector<double>{0.5});
    EXPECT_EQ(values.singles, std::vector<float>{0.1F});
    EXPECT_EQ(values.texts, (std::vector<std::string>{"a", "b"}));
}

TEST(SettingsRead, TakesEveryTypeAndReadsEveryKey)
{
    const BlockConfiguration config = make_others();

    expect_others(declare_all().read(config));

    EXPECT_TRUE(config.is_consumed());
}

TEST(SettingsRead, LeavesOtherKeysUnread)
{
    const BlockConfiguration config{{"whole", 1}, {"whole.below", 1}, {"whol", 1}, {"wholes1", 1}};

    declare_all().read(config);

    EXPECT_FALSE(config.is_consumed());
}

TEST(SettingsRead, TakesNoKeyForAnotherThatItBegins)
{
    EXPECT_EQ(declare_all().read({{"whole.x", 5}, {"whole-x", 5}}).whole, 1);
}

struct Wrong {
    BlockConfiguration::KeyValue value;
    std::string text;
};

/// The wrong values of one declaration and what is said of them.
template <class T>
void expect_refused(const Settings<T>& settings, const std::vector<Wrong>& table)
{
    for (const Wrong& wrong : table) {
        SCOPED_TRACE(wrong.text);
        const BlockConfiguration config{wrong.value};
        expect_throw<std::invalid_argument>([&] { settings.read(config); }, wrong.text);
        expect_throw<std::invalid_argument>([&] { settings.apply(T(), config); }, wrong.text);
        EXPECT_TRUE(config.is_consumed());
    }
}

constexpr double kInfinity = std::numeric_limits<double>::infinity();
const double kNan = std::numeric_limits<double>::quiet_NaN();

Settings<All> declare_limits()
{
    return Settings<All>("Limits each.")
        .add("whole", &All::whole, "")
        .range(-1000000, 1000)
        .live()
        .add("number", &All::number, "")
        .range(-1000, 1000)
        .live()
        .add("single", &All::single, "")
        .range(0, 0.1)
        .live()
        .add("text", &All::text, "")
        .choices({"linear", "dB"})
        .live()
        .add("wholes", &All::wholes, "")
        .range(0, 9)
        .length(2, 3)
        .live()
        .add("flags", &All::flags, "")
        .length(1, 1)
        .live()
        .add("numbers", &All::numbers, "")
        .range(0, 1e-6)
        .live()
        .add("texts", &All::texts, "")
        .choices({"a", "b"})
        .length(0, 2)
        .live();
}

TEST(SettingsRead, RefusesWhatIsOutsideOfTheLimits)
{
    expect_refused(
        declare_limits(),
        {
            {{"whole", 1001}, "'whole' has to be from -1000000 to 1000, not 1001"},
            {{"whole", -2147483647}, "'whole' has to be from -1000000 to 1000, not -2147483647"},
            {{"number", 1000.5}, "'number' has to be from -1000 to 1000, not 1000.5"},
            {{"number", -1001}, "'number' has to be from -1000 to 1000, not -1001"},
            {{"number", 1e300}, "'number' has to be from -1000 to 1000, not 1e+300"},
            {{"number", kNan}, "'number' has to be from -1000 to 1000, not nan"},
            {{"number", -kNan}, "'number' has to be from -1000 to 1000, not nan"},
            {{"number", kInfinity}, "'number' has to be from -1000 to 1000, not inf"},
            {{"number", -kInfinity}, "'number' has to be from -1000 to 1000, not -inf"},
            {{"single", 0.11}, "'single' has to be from 0 to 0.1, not 0.11"},
            {{"single", -1e-300}, "'single' has to be from 0 to 0.1, not -1e-300"},
            {{"single", 1e300}, "'single' has to be from 0 to 0.1, not 1e+300"},
            {{"text", "cubic"}, "'text' has to be one of linear, dB, not 'cubic'"},
            {{"text", ""}, "'text' has to be one of linear, dB, not ''"},
            {{"text", "it's"}, "'text' has to be one of linear, dB, not 'it's'"},
            {{"wholes", {1}}, "'wholes' has to be of 2 to 3 items, not 1"},
            {{"wholes", {10, 10, 10, 10}}, "'wholes' has to be of 2 to 3 items, not 4"},
            {{"wholes", {0, 10}}, "'wholes' has to be from 0 to 9, not 10 (item 1)"},
            {{"wholes", {-1, 10}}, "'wholes' has to be from 0 to 9, not -1 (item 0)"},
            {{"flags", std::vector<bool>{}}, "'flags' has to be of 1 to 1 items, not 0"},
            {{"numbers", {1e-6, 1e-5}}, "'numbers' has to be from 0 to 1e-06, not 1e-05 (item 1)"},
            {{"numbers", {0, 1}}, "'numbers' has to be from 0 to 1e-06, not 1 (item 1)"},
            {{"numbers", {kNan}}, "'numbers' has to be from 0 to 1e-06, not nan (item 0)"},
            {{"texts", {"a", "c"}}, "'texts' has to be one of a, b, not 'c' (item 1)"},
            {{"texts", {"c", "c", "c"}}, "'texts' has to be of 0 to 2 items, not 3"},
        });
}

TEST(SettingsRead, TakesTheLimitsThemselves)
{
    const BlockConfiguration config{
        {"whole", -1000000},      {"number", 1000},
        {"single", 0.1},          {"text", "dB"},
        {"wholes", {0, 9}},       {"flags", {false}},
        {"numbers", {0.0, 1e-6}}, {"texts", std::vector<std::string>{}},
    };

    const All values = declare_limits().read(config);

    EXPECT_EQ(values.whole, -1000000);
    EXPECT_EQ(values.number, 1000);
    EXPECT_EQ(values.single, 0.1F);
    EXPECT_EQ(values.text, "dB");
    EXPECT_EQ(values.wholes, (std::vector<int>{0, 9}));
    EXPECT_EQ(values.numbers, (std::vector<double>{0, 1e-6}));
    EXPECT_TRUE(values.texts.empty());
}

TEST(SettingsRead, RefusesWhatIsNotFiniteWithoutARange)
{
    expect_refused(
        declare_all(),
        {
            {{"number", kNan}, "'number' has to be a finite number, not nan"},
            {{"number", kInfinity}, "'number' has to be a finite number, not inf"},
            {{"single", -kInfinity}, "'single' has to be a finite number, not -inf"},
            {{"single", 1e39}, "'single' has to be a finite number, not 1e+39"},
            {{"single", -1e300}, "'single' has to be a finite number, not -1e+300"},
            {{"numbers", {0.0, kNan}}, "'numbers' has to be a finite number, not nan (item 1)"},
            {{"singles", {1.0, 2.0, 1e39}},
             "'singles' has to be a finite number, not 1e+39 (item 2)"},
        });
}

TEST(SettingsRead, RefusesAFloatThatDoesNotFitWithinTheRange)
{
    const auto settings = Settings<All>("Goes beyond a float.")
                              .add("single", &All::single, "")
                              .range(0, 1e300)
                              .live();

    expect_refused(settings, {{{"single", 1e39}, "'single' has to be a finite number, not 1e+39"}});
}

TEST(SettingsRead, TakesTheGreatestFloatAsItIsWritten)
{
    EXPECT_EQ(declare_all().read({{"single", 3.4028235e38}}).single,
              std::numeric_limits<float>::max());
}

TEST(SettingsRead, CountsInfinityAsOutsideOfARangeThatHasNoEnd)
{
    const auto settings =
        Settings<All>("Has no end.").add("number", &All::number, "").range(0, kInfinity).live();

    EXPECT_EQ(settings.read({{"number", 1e308}}).number, 1e308);
    expect_refused(settings,
                   {{{"number", kInfinity}, "'number' has to be from 0 to inf, not inf"}});
}

TEST(SettingsRead, KeepsTheTextOfTheGetterForAnotherType)
{
    const std::string getter = "BlockConfiguration::get";
    const std::vector<Wrong> table = {
        {{"whole", 1.0}, "Int failed, the parameter 'whole' is type: double"},
        {{"flag", 1}, "Bool failed, the parameter 'flag' is type: int"},
        {{"number", "1"}, "Double failed, the parameter 'number' is type: string"},
        {{"single", true}, "Float failed, the parameter 'single' is type: bool"},
        {{"text", 1}, "String failed, the parameter 'text' is type: int"},
        {{"wholes", {1.0}}, "IntVector failed, the parameter 'wholes' is type: DoubleVector"},
        {{"flags", true}, "BoolVector failed, the parameter 'flags' is type: bool"},
        {{"numbers", 1.0}, "DoubleVector failed, the parameter 'numbers' is type: double"},
        {{"singles", {"a"}}, "DoubleVector failed, the parameter 'singles' is type: StringVector"},
        {{"texts", "a"}, "StringVector failed, the parameter 'texts' is type: string"},
    };
    for (const Wrong& wrong : table) {
        SCOPED_TRACE(wrong.text);
        const BlockConfiguration config{wrong.value};
        expect_throw<std::invalid_argument>([&] { declare_all().read(config); },
                                            getter + wrong.text);
        expect_throw<std::invalid_argument>([&] { declare_all().apply({}, config); },
                                            getter + wrong.text);
    }
}

TEST(SettingsRead, WritesNumbersInTheShortestFormThatReadsBack)
{
    const auto settings =
        Settings<All>("Takes nothing.").add("number", &All::number, "").range(2.5, 2.5).live();
    std::mt19937_64 random(1);  // NOLINT(cert-msc32-c,cert-msc51-cpp): the same each time
    std::uniform_real_distribution<double> mantissa(-1, 1);
    std::uniform_int_distribution<int> exponent(-1070, 1020);
    const std::string before = "'number' has to be from 2.5 to 2.5, not ";
    for (int i = 0; i < 1000; ++i) {
        const double number = std::ldexp(mantissa(random), exponent(random));
        try {
            settings.read({{"number", number}});
            ADD_FAILURE() << number;
        } catch (const std::invalid_argument& error) {
            const std::string text = error.what();
            ASSERT_EQ(text.substr(0, before.size()), before);
            EXPECT_EQ(std::strtod(text.c_str() + before.size(), nullptr), number);
            EXPECT_LE(text.size() - before.size(), 24U);
        }
    }
}

struct Required {
    std::string path;
    int count = 0;
};

Settings<Required> declare_required()
{
    return Settings<Required>("Needs a path.")
        .add("path", &Required::path, "")
        .choices({"a", "b"})
        .required()
        .add("count", &Required::count, "")
        .live();
}

TEST(SettingsRead, NamesAMissingKey)
{
    expect_throw<std::invalid_argument>(
        [] {
            declare_required().read({{"path.x", "a"}});
        },
        "'path' is missing");
    EXPECT_EQ(declare_required().read({{"path", "b"}}).path, "b");
}

TEST(SettingsApply, ChangesWhatTheOverrideHoldsAlone)
{
    const BlockConfiguration override = make_others();
    All current;
    current.number = 7;

    expect_others(declare_all().apply(current, override));

    EXPECT_TRUE(override.is_consumed());
    EXPECT_EQ(declare_all().apply(current, {{"whole", 3}}).number, 7);
    EXPECT_EQ(current.whole, 1);
}

TEST(SettingsApply, RefusesWhatIsNotLive)
{
    Required current{"a", 3};

    expect_throw<std::invalid_argument>(
        [&] {
            declare_required().apply(current, {{"count", 4}, {"path", "b"}});
        },
        "'path' cannot be changed while the graph runs");
    expect_throw<std::invalid_argument>(
        [&] {
            declare_required().apply(current, {{"path", 1}});
        },
        "'path' cannot be changed while the graph runs");

    EXPECT_EQ(current.count, 3);
    EXPECT_EQ(declare_required().apply(current, {{"count", 4}}).count, 4);
    EXPECT_EQ(declare_required().apply(current, {}).path, "a");
}

struct Common {
    int frames = 1;
};

struct Special : Common {
    int rate = 2;
};

TEST(SettingsRead, TakesMembersOfABase)
{
    const auto settings = Settings<Special>("Has a base.")
                              .add("rate", &Special::rate, "")
                              .add("frames", &Special::frames, "");

    const Special values = settings.read({{"frames", 3}, {"rate", 4}});

    EXPECT_EQ(values.frames, 3);
    EXPECT_EQ(values.rate, 4);
}

}  // namespace
