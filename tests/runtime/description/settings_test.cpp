#include "description/settings.h"

#include "description/toml.h"
#include "support/support.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <stdexcept>
#include <string>
#include <variant>
#include <vector>

using Quorval::runtime::Assignment;
using Quorval::runtime::parse_toml;
using Quorval::runtime::Place;
using Quorval::runtime::Problems;
using Quorval::runtime::read_assignment;
using Quorval::runtime::read_setting_assignment;
using Quorval::runtime::read_settings;
using Quorval::runtime::read_value;
using Quorval::runtime::restore_signs;
using Quorval::runtime::Setting;
using Quorval::runtime::target_of;
using quorval_test::expect_throw;

namespace {

/// The signs of all NaNs in a text, by key.
std::string signs_in(const std::string& text)
{
    Problems problems;
    std::vector<Setting> settings = read_settings(*parse_toml(text, 0, problems), {0}, problems);
    restore_signs(settings, text);
    std::string signs;
    const auto add = [&signs](double value) {
        signs += std::isnan(value) ? (std::signbit(value) ? "-" : "+") : "";
    };
    for (const Setting& setting : settings) {
        if (const auto* number = std::get_if<double>(&setting.value)) {
            add(*number);
        } else if (const auto* list = std::get_if<std::vector<double>>(&setting.value)) {
            std::for_each(list->begin(), list->end(), add);
        }
    }
    EXPECT_TRUE(problems.sorted().empty());
    return signs;
}

}  // namespace

TEST(ReadAssignment, StandsInNoLineAndNoColumn)
{
    constexpr std::uint32_t kSource = 3;
    Problems problems;

    const std::vector<Assignment> assignments = read_assignment("a.k=1", kSource, problems);
    read_assignment("a.k=[]", kSource, problems);

    ASSERT_EQ(assignments.size(), 1U);
    EXPECT_EQ(assignments[0].setting.key_place, (Place{kSource, 0, 0}));
    EXPECT_EQ(assignments[0].setting.value_place, (Place{kSource, 0, 0}));
    ASSERT_EQ(problems.sorted().size(), 1U);
    EXPECT_EQ(problems.sorted()[0].text, "'k' is an empty list");
    EXPECT_EQ(problems.sorted()[0].place, (Place{kSource, 0, 0}));
}

TEST(ReadAssignment, IsRefusedWithoutTheForm)
{
    for (const std::string text : {"", "a", "a.b", "a=1", ".b=1", "a.=1", "a=b.c", "=a.b"}) {
        const std::string message = "'" + text + "' is not of the form PATH.KEY=VALUE";
        Problems problems;
        expect_throw<std::invalid_argument>([&] { read_assignment(text, 0, problems); }, message);
        expect_throw<std::invalid_argument>([&] { target_of(text); }, message);
    }
    EXPECT_EQ(target_of("a/b.c.d=e=f"), "a/b.c.d");
    EXPECT_EQ(target_of("a.b="), "a.b");
}

TEST(ReadSettingAssignment, IsRefusedWithoutTheForm)
{
    Problems problems;
    for (const std::string text : {"", "a", "=1"}) {
        expect_throw<std::invalid_argument>([&] { read_setting_assignment(text, problems); },
                                            "'" + text + "' is not of the form KEY=VALUE");
    }
    const std::vector<Setting> settings = read_setting_assignment("a.b=c=d", problems);
    ASSERT_EQ(settings.size(), 1U);
    EXPECT_EQ(settings[0].key, "a.b");
    EXPECT_EQ(std::get<std::string>(settings[0].value), "c=d");
}

TEST(ReadValue, IsOfTomlWhereNothingButBlanksStandsBehindIt)
{
    const auto is_text = [](const std::string& text) {
        Problems problems;
        const std::vector<Setting> settings = read_value("k", text, problems);
        return settings.size() == 1 && std::holds_alternative<std::string>(settings[0].value) &&
               std::get<std::string>(settings[0].value) == text;
    };
    for (const std::string text :
         {"1 \t", "1\r\n", "1\n\n", "'\xC3\xA4' ", "['\xC3\xA4',\n'\xC3\xA4']", "['a',\n'b'\n]\n",
          "'''\na\n\n'''", "[1,\n\n2]\n ", "\"\xE2\x82\xAC\xE2\x82\xAC\"", "{ a = 1 }", "0.5",
          "nan"}) {
        EXPECT_FALSE(is_text(text)) << text;
    }
    for (const std::string text :
         {"1 #", "1\n#", "1\n\n#", "'\xC3\xA4'#", "['\xC3\xA4',\n'\xC3\xA4']#", "['a',\n'b'\n]\n#",
          "'''\na\n\n'''#", "[1,\n\n2]\n #", "\"\xE2\x82\xAC\xE2\x82\xAC\" #", "{ a = 1 }#",
          "1\n[x]", "1\nw = 2", "0.5#", "nan#", "1#\xC3\xA4"}) {
        EXPECT_TRUE(is_text(text)) << text;
    }
}

TEST(ReadValue, TellsTheSignOfANan)
{
    Problems problems;
    for (const bool is_negative : {false, true}) {
        const std::vector<Setting> settings =
            read_value("k", is_negative ? " -nan" : " nan", problems);
        ASSERT_EQ(settings.size(), 1U);
        EXPECT_EQ(std::signbit(std::get<double>(settings[0].value)), is_negative);
    }
}

TEST(ReadSettings, TellTheSignOfANan)
{
    EXPECT_EQ(signs_in("a = nan\nb = -nan\nc = +nan\nd = -1.0"), "+-+");
    EXPECT_EQ(signs_in("c = [-nan, nan, 1.0, -nan]\nb = -1.0\na = nan"), "+-+-");
    EXPECT_EQ(signs_in("a = { s = \"-\xC3\xA4-\xE2\x82\xAC-\", n = -nan, o = nan, p = -nan }"),
              "-+-");
    EXPECT_EQ(signs_in("# \xC3\xA4\n\na = [\n\n-nan,\n  nan,\n-nan]"), "-+-");
    EXPECT_EQ(signs_in("z = -nan\ny = nan\nx = -nan\n"), "-+-");
}

TEST(ReadSettings, HaveTheirPlaces)
{
    Problems problems;
    const std::vector<Setting> settings = read_settings(
        *parse_toml("a.b = [1,\n 2]\nc = 'x'\n[[d]]\ne = true", 0, problems), {0}, problems);

    ASSERT_EQ(settings.size(), 3U);
    EXPECT_EQ(settings[0].key_place, (Place{0, 1, 3}));
    EXPECT_EQ(settings[0].value_place, (Place{0, 1, 7}));
    EXPECT_EQ(settings[0].item_places, (std::vector<Place>{{0, 1, 8}, {0, 2, 2}}));
    EXPECT_EQ(settings[1].value_place, (Place{0, 3, 5}));
    EXPECT_TRUE(settings[1].item_places.empty());
    EXPECT_EQ(settings[2].key, "d.0.e");
    EXPECT_EQ(settings[2].key_place, (Place{0, 5, 1}));
    for (const Setting& setting : settings) {
        EXPECT_FALSE(setting.is_wrong) << setting.key;
        EXPECT_FALSE(setting.is_saved) << setting.key;
    }
}

TEST(ReadSettings, KeepWhatIsWrongWithoutAValue)
{
    Problems problems;
    const std::vector<Setting> settings = read_settings(
        *parse_toml("a = []\n\"b c\" = 1\nd = [1, 1979-05-27]\ne = [2147483648]\nf = [1, 2.5]", 0,
                    problems),
        {0}, problems);

    ASSERT_EQ(settings.size(), 5U);
    for (const Setting& setting : settings) {
        EXPECT_EQ(setting.is_wrong, setting.key != "f") << setting.key;
    }
    std::vector<std::string> texts;
    for (const auto& problem : problems.sorted()) {
        texts.push_back(problem.text);
    }
    EXPECT_EQ(texts,
              (std::vector<std::string>{
                  "'a' is an empty list", "Parameter name 'b c' not valid (should be [a-z0-9_.-]).",
                  "'d' is a list of mixed kinds", "'e' is out of the range of an int"}));
}
