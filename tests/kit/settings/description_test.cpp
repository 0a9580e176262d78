// What tools learn about settings.
#include <quorval/settings.h>
#include "support/support.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <string>
#include <vector>

namespace {

using Quorval::BlockConfiguration;
using Quorval::Setting;
using Quorval::Settings;
using quorval_test::expect_throw;
using Type = BlockConfiguration::Type;

struct Values {
    int count = 5;
    float share = 0.1F;
    std::string mode = "linear";
    std::vector<float> taps = {0.1F, 2};
    std::string path;
};

Settings<Values> declare()
{
    return Settings<Values>("Does something.")
        .add("count", &Values::count, "how often")
        .range(0, 9)
        .live()
        .add("share", &Values::share, "of the whole")
        .range(0, 1)
        .add("mode", &Values::mode, "how")
        .choices({"linear", "dB"})
        .add("taps", &Values::taps, "of the filter")
        .length(1, 1024)
        .add("path", &Values::path, "of the file")
        .required();
}

BlockConfiguration describe()
{
    return {
        {"summary", "Does something."},
        {"settings",
         {{{"key", "count"},
           {"type", "int"},
           {"float", false},
           {"text", "how often"},
           {"required", false},
           {"live", true},
           {"default", 5},
           {"minimum", 0},
           {"maximum", 9}},
          {{"key", "share"},
           {"type", "double"},
           {"float", true},
           {"text", "of the whole"},
           {"required", false},
           {"live", false},
           {"default", 0.1},
           {"minimum", 0.0},
           {"maximum", 1.0}},
          {{"key", "mode"},
           {"type", "string"},
           {"float", false},
           {"text", "how"},
           {"required", false},
           {"live", false},
           {"default", "linear"},
           {"choices", {"linear", "dB"}}},
          {{"key", "taps"},
           {"type", "DoubleVector"},
           {"float", true},
           {"text", "of the filter"},
           {"required", false},
           {"live", false},
           {"default", {0.1, 2.0}},
           {"minimum_items", 1},
           {"maximum_items", 1024}},
          {{"key", "path"},
           {"type", "string"},
           {"float", false},
           {"text", "of the file"},
           {"required", true},
           {"live", false}}}},
    };
}

TEST(SettingsDescription, HoldsAllThatIsDeclared)
{
    EXPECT_EQ(declare().describe(), describe());
}

TEST(SettingsDescription, HasNoSettingsWhereThereAreNone)
{
    EXPECT_EQ(Settings<Values>("Idles.").describe(), (BlockConfiguration{{"summary", "Idles."}}));
}

TEST(SettingsDescription, ReadsBack)
{
    const std::vector<Setting> settings = Quorval::read_settings(describe());

    ASSERT_EQ(settings.size(), 5U);
    EXPECT_EQ(settings[0].key, "count");
    EXPECT_EQ(settings[0].text, "how often");
    EXPECT_EQ(settings[0].type, Type::Int);
    EXPECT_TRUE(settings[0].is_live);
    EXPECT_TRUE(settings[0].has_range);
    EXPECT_EQ(settings[0].minimum, 0);
    EXPECT_EQ(settings[0].maximum, 9);
    EXPECT_TRUE(settings[1].is_float);
    EXPECT_FALSE(settings[1].is_live);
    EXPECT_EQ(settings[2].choices, (std::vector<std::string>{"linear", "dB"}));
    EXPECT_FALSE(settings[2].has_range);
    EXPECT_EQ(settings[3].type, Type::DoubleVector);
    EXPECT_TRUE(settings[3].has_length);
    EXPECT_EQ(settings[3].minimum_items, 1);
    EXPECT_EQ(settings[3].maximum_items, 1024);
    EXPECT_TRUE(settings[4].is_required);
}

TEST(SettingsDescription, ReadsBackMoreThanTenInOrder)
{
    BlockConfiguration description{{"summary", ""}};
    for (int i = 0; i < 12; ++i) {
        const std::string path = "settings." + std::to_string(i) + ".";
        description.set(path + "key", "key" + std::to_string(i));
        description.set(path + "type", "bool");
    }

    const std::vector<Setting> settings = Quorval::read_settings(description);

    ASSERT_EQ(settings.size(), 12U);
    for (int i = 0; i < 12; ++i) {
        EXPECT_EQ(settings[static_cast<std::size_t>(i)].key, "key" + std::to_string(i));
    }
}

TEST(SettingsDescription, KnowsEveryTypeByItsName)
{
    const std::vector<std::string> names = {"int",          "bool",      "double",
                                            "string",       "IntVector", "DoubleVector",
                                            "StringVector", "BoolVector"};
    for (std::size_t i = 0; i < names.size(); ++i) {
        const BlockConfiguration description{{"settings", {{{"key", "a"}, {"type", names[i]}}}}};
        EXPECT_EQ(Quorval::read_settings(description).at(0).type, static_cast<Type>(i));
    }
}

TEST(SettingsDescription, RefusesWhatIsNone)
{
    EXPECT_TRUE(Quorval::read_settings({{"settings", 1}}).empty());
    expect_throw<std::invalid_argument>(
        [] {
            Quorval::read_settings({{"settings", {{{"key", "a"}, {"type", "colour"}}}}});
        },
        "there is no type of setting 'colour'");
    expect_throw<std::out_of_range>(
        [] {
            Quorval::read_settings({{"settings", {{{"key", "a"}}}}});
        },
        "BlockConfiguration::getString failed, the parameter 'settings.0.type' does not exist");
}

TEST(SettingsDescription, FindsTheSameProblemsAsTheBlock)
{
    const std::vector<Setting> settings = Quorval::read_settings(describe());
    const BlockConfiguration config{
        {"count", 10}, {"share", 1e300}, {"mode", "x"}, {"taps", {1.0, 1e39}}};

    EXPECT_EQ(Quorval::find_problem(config, settings[0]).text,
              "'count' has to be from 0 to 9, not 10");
    EXPECT_EQ(Quorval::find_problem(config, settings[0]).item, -1);
    EXPECT_EQ(Quorval::find_problem(config, settings[1]).text,
              "'share' has to be from 0 to 1, not 1e+300");
    EXPECT_EQ(Quorval::find_problem(config, settings[2]).text,
              "'mode' has to be one of linear, dB, not 'x'");
    EXPECT_EQ(Quorval::find_problem({{"taps", {1.0, 1e39}}}, settings[3]).text,
              "'taps' has to be a finite number, not 1e+39 (item 1)");
    EXPECT_EQ(Quorval::find_problem({{"taps", {1.0, 1e39}}}, settings[3]).item, 1);
    EXPECT_FALSE(Quorval::has_value(config, settings[4]));
    EXPECT_TRUE(Quorval::has_value(config, settings[0]));
    EXPECT_EQ(Quorval::find_problem({{"count", 9}}, settings[0]).text, "");
}

TEST(SettingsDescription, LeavesAKeyUnreadThatItLooksFor)
{
    const BlockConfiguration config{{"count", 1}};

    EXPECT_TRUE(Quorval::has_value(config, Quorval::read_settings(describe())[0]));

    EXPECT_FALSE(config.is_consumed());
}

}  // namespace
