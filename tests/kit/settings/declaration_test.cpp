// Mistakes in a declaration are found when the block type is registered.
#include <quorval/settings.h>
#include "support/support.h"

#include <gtest/gtest.h>

#include <functional>
#include <limits>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

using Quorval::Block;
using Quorval::BlockConfiguration;
using Quorval::Settings;
using quorval_test::expect_throw;

struct Values {
    int count = 5;
    bool flag = false;
    double factor = 1;
    float share = 0.1F;
    std::string mode = "linear";
    std::vector<double> taps;
    std::vector<std::string> names = {"a", "b"};
};

class Nothing : public Block {
public:
    Nothing(std::string name, const BlockConfiguration& config) : Block(std::move(name), config) {}
};

/// A registry of an application that knows no descriptions.
class PlainRegistry : public Quorval::IRegistry {
public:
    void register_block_create_fn(
        const std::string& type,
        std::function<std::unique_ptr<Quorval::Container>(
            std::string, const BlockConfiguration&, const Quorval::InitTools&)> /*fn*/) override
    {
        types.push_back(type);
    }
    void register_type(const std::string& /*name*/) override {}

    std::vector<std::string> types;
};

void expect_mistake(const Settings<Values>& settings, const std::string& text)
{
    PlainRegistry registry;
    expect_throw<std::logic_error>(
        [&] { Quorval::register_block<Nothing>(registry, "Gain", settings); },
        "block type 'Gain': " + text);
    EXPECT_TRUE(registry.types.empty());
}

Settings<Values> empty()
{
    return Settings<Values>("Does nothing.");
}

TEST(SettingsDeclaration, RegistersWithAnyRegistry)
{
    PlainRegistry registry;

    Quorval::register_block<Nothing>(registry, "Gain",
                                     empty().add("share", &Values::share, "").range(0, 0.1));

    EXPECT_EQ(registry.types, std::vector<std::string>{"Gain"});
}

TEST(SettingsDeclaration, RefusesADefaultThatIsNotAllowed)
{
    expect_mistake(empty().add("count", &Values::count, "").range(0, 4),
                   "setting 'count' (int): its default is wrong: 'count' has to be from 0 to 4, "
                   "not 5");
    expect_mistake(empty().add("mode", &Values::mode, "").choices({"dB"}),
                   "setting 'mode' (string): its default is wrong: 'mode' has to be one of dB, "
                   "not 'linear'");
    expect_mistake(empty().add("taps", &Values::taps, "").length(1, 2),
                   "setting 'taps' (DoubleVector): its default is wrong: 'taps' has to be of 1 to "
                   "2 items, not 0");
    expect_mistake(empty().add("names", &Values::names, "").choices({"a"}),
                   "setting 'names' (StringVector): its default is wrong: 'names' has to be one of "
                   "a, not 'b' (item 1)");
}

TEST(SettingsDeclaration, LooksAtNoDefaultOfARequiredSetting)
{
    PlainRegistry registry;

    Quorval::register_block<Nothing>(
        registry, "Gain", empty().add("count", &Values::count, "").range(0, 4).required());

    EXPECT_EQ(registry.types, std::vector<std::string>{"Gain"});
}

TEST(SettingsDeclaration, RefusesLimitsThatDoNotFitTheType)
{
    expect_mistake(empty().add("mode", &Values::mode, "").range(0, 4),
                   "setting 'mode' (string): range() is for numbers");
    expect_mistake(empty().add("flag", &Values::flag, "").range(0, 1),
                   "setting 'flag' (bool): range() is for numbers");
    expect_mistake(empty().add("count", &Values::count, "").choices({"1", "2"}),
                   "setting 'count' (int): choices() is for strings");
    expect_mistake(empty().add("mode", &Values::mode, "").length(0, 4),
                   "setting 'mode' (string): length() is for lists");
    expect_mistake(empty().add("count", &Values::count, "").range(0, 9.5),
                   "setting 'count' (int): the ends of its range have to be ints");
    expect_mistake(empty().add("count", &Values::count, "").range(0, 1e10),
                   "setting 'count' (int): the ends of its range have to be ints");
}

TEST(SettingsDeclaration, RefusesLimitsThatNothingMeets)
{
    constexpr double kNan = std::numeric_limits<double>::quiet_NaN();

    expect_mistake(empty().add("factor", &Values::factor, "").range(2, 0.5),
                   "setting 'factor' (double): nothing is from 2 to 0.5");
    expect_mistake(empty().add("factor", &Values::factor, "").range(0, kNan),
                   "setting 'factor' (double): nothing is from 0 to nan");
    expect_mistake(empty().add("taps", &Values::taps, "").length(2, 1),
                   "setting 'taps' (DoubleVector): no list has 2 to 1 items");
    expect_mistake(empty().add("taps", &Values::taps, "").length(-1, 1),
                   "setting 'taps' (DoubleVector): no list has -1 to 1 items");
    expect_mistake(empty().add("mode", &Values::mode, "").choices({}),
                   "setting 'mode' (string): there is nothing to choose from");
}

TEST(SettingsDeclaration, RefusesKeysThatCannotBe)
{
    expect_mistake(empty().add("count", &Values::count, "").add("count", &Values::flag, ""),
                   "setting 'count' (bool): it is declared twice");
    expect_mistake(empty().add("", &Values::count, ""), "setting '' (int): it has no key");
    expect_mistake(empty().add("a b", &Values::count, ""),
                   "setting 'a b' (int): Parameter name 'a b' not valid (should be [a-z0-9_.-]).");
}

TEST(SettingsDeclaration, RefusesWhatComesBeforeTheFirstSetting)
{
    expect_mistake(empty().range(0, 1), "setting '' (int): range() comes before the first add()");
    expect_mistake(empty().length(0, 1), "setting '' (int): length() comes before the first add()");
    expect_mistake(empty().choices({"a"}),
                   "setting '' (int): choices() comes before the first add()");
    expect_mistake(empty().live().add("count", &Values::count, ""),
                   "setting '' (int): live() comes before the first add()");
    expect_mistake(empty().required(), "setting '' (int): required() comes before the first add()");
}

TEST(SettingsDeclaration, ReportsTheFirstMistakeAndReadsNothing)
{
    const auto settings =
        empty().add("mode", &Values::mode, "").range(0, 1).add("mode", &Values::mode, "");
    const std::string text = "setting 'mode' (string): range() is for numbers";

    expect_throw<std::logic_error>([&] { settings.read({}); }, text);
    expect_throw<std::logic_error>([&] { settings.apply(Values(), {}); }, text);
    expect_throw<std::logic_error>([&] { settings.check(); }, text);
}

TEST(SettingsDeclaration, IsAValue)
{
    const auto few = empty().add("count", &Values::count, "");
    auto more = few;
    more.add("factor", &Values::factor, "");

    const BlockConfiguration config{{"factor", 2}};
    EXPECT_EQ(few.read(config).factor, 1);
    EXPECT_FALSE(config.is_consumed());
    EXPECT_EQ(more.read(config).factor, 2);
}

}  // namespace
