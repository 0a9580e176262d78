// Settings that a block type declares.
#include "graph/declared.h"

#include "runtime/support/graph_files.h"

#include <gtest/gtest.h>

using Quorval::BlockConfiguration;
using Quorval::Setting;
using quorval_test::GraphFiles;

using Lines = std::vector<std::string>;

namespace {

/// The findings of a block that declares its settings: `needed`, which is required, from 1 to 9;
/// `taps`, a list of 2 to 3 numbers from 0 to 1; `mode`, one of "up" and "down".
Lines findings_for(const std::string& config)
{
    GraphFiles files;
    return files.findings_for("[blocks.a]\ntype = \"parts:Declared\"\nconfig = " + config);
}

}  // namespace

TEST(DeclaredSettings, AreAcceptedAsTheyAreDeclared)
{
    EXPECT_EQ(findings_for("{ needed = 9, taps = [0, 0.5, 1], mode = \"up\" }"), Lines());
    EXPECT_EQ(findings_for("{ needed = 1 }"), Lines());
}

TEST(DeclaredSettings, AreMissedAtTheNameOfTheBlock)
{
    EXPECT_EQ(findings_for("{}"), (Lines{"g.toml:2:9: error: 'needed' is missing"}));
}

TEST(DeclaredSettings, AreNotMissedWhereTheyAreWrong)
{
    EXPECT_EQ(findings_for("{ needed = [] }"),
              (Lines{"g.toml:4:21: error: 'needed' is an empty list"}));
    EXPECT_EQ(findings_for("{ neded = 1 }"),
              (Lines{"g.toml:4:12: error: block type 'parts:Declared' has no setting 'neded'; did "
                     "you mean 'needed'?"}));
    EXPECT_EQ(findings_for("{ \"nee ded\" = 1 }"),
              (Lines{"g.toml:4:12: error: Parameter name 'nee ded' not valid (should be "
                     "[a-z0-9_.-])."}));
    EXPECT_EQ(findings_for("1"), (Lines{"g.toml:4:10: error: 'config' has to be a table"}));
}

TEST(DeclaredSettings, AreNotMissedWhereTheyAreWrongFurtherOut)
{
    GraphFiles files;

    EXPECT_EQ(files.findings_for(R"([blocks.k]
type = "kind"
config.a.needed = 1979-05-27
[blocks.l]
type = "kind"
config = 1
[superblocks.kind]
blocks.a.type = "parts:Declared")"),
              (Lines{"g.toml:4:19: error: 'a.needed' is a date",
                     "g.toml:7:10: error: 'config' has to be a table"}));
}

TEST(DeclaredSettings, StandBareAtTheirValues)
{
    EXPECT_EQ(findings_for("{ needed = 10, mode = \"left\", taps = [1] }"),
              (Lines{"g.toml:4:21: error: 'needed' has to be from 1 to 9, not 10",
                     "g.toml:4:32: error: 'mode' has to be one of up, down, not 'left'",
                     "g.toml:4:47: error: 'taps' has to be of 2 to 3 items, not 1"}));
    EXPECT_EQ(findings_for("{ needed = \"1\" }"),
              (Lines{"g.toml:4:21: error: BlockConfiguration::getInt failed, the parameter "
                     "'needed' is type: string"}));
}

TEST(DeclaredSettings, StandAtTheItemThatIsWrong)
{
    EXPECT_EQ(findings_for("{ needed = 1, taps = [0, 7] }"),
              (Lines{"g.toml:4:35: error: 'taps' has to be from 0 to 1, not 7 (item 1)"}));
    EXPECT_EQ(findings_for("{ needed = 1, taps = [7, 0] }"),
              (Lines{"g.toml:4:32: error: 'taps' has to be from 0 to 1, not 7 (item 0)"}));
}

TEST(DeclaredSettings, AreTheOnlyOnes)
{
    EXPECT_EQ(findings_for("{ needed = 1, tap = 1, x.y = 2, pstore_path = \"/s/\" }"),
              (Lines{"g.toml:4:24: error: block type 'parts:Declared' has no setting 'tap'; did "
                     "you mean 'taps'?",
                     "g.toml:4:35: error: block type 'parts:Declared' has no setting 'x.y'"}));
}

TEST(DeclaredSettings, AreLookedAtInAssignmentsToo)
{
    GraphFiles files;
    files.write("g.toml", "format = 1\nblocks.a.type = \"parts:Declared\"\n");
    Quorval::GraphOptions options = files.options();
    options.assignments = {"a.needed=11", "a.taps=[2, 0]", "a.x=1"};

    EXPECT_EQ(files.findings(options),
              (Lines{"--set a.needed: error: 'needed' has to be from 1 to 9, not 11",
                     "--set a.taps: error: 'taps' has to be from 0 to 1, not 2 (item 0)",
                     "--set a.x: error: block type 'parts:Declared' has no setting 'x'"}));
}

namespace {

/// A live integer from 1 to 9, and a text that is not live.
std::vector<Setting> two_settings()
{
    std::vector<Setting> settings(2);
    settings[0].key = "level";
    settings[0].is_live = true;
    settings[0].has_range = true;
    settings[0].minimum = 1;
    settings[0].maximum = 9;
    settings[1].key = "mode";
    settings[1].type = BlockConfiguration::Type::String;
    return settings;
}

}  // namespace

TEST(LiveSettings, AreRefusedWithTheReason)
{
    const auto refusal = [](const BlockConfiguration& values) {
        return Quorval::runtime::find_refusal(two_settings(), "plugin:Type", values);
    };

    EXPECT_EQ(refusal({}), "");
    EXPECT_EQ(refusal({{"level", 9}}), "");
    EXPECT_EQ(refusal({{"level", 10}}), "'level' has to be from 1 to 9, not 10");
    EXPECT_EQ(refusal({{"level", true}}),
              "BlockConfiguration::getInt failed, the parameter 'level' is type: bool");
    EXPECT_EQ(refusal({{"level", 1}, {"mode", "a"}}),
              "'mode' cannot be changed while the graph runs");
    EXPECT_EQ(refusal({{"levl", 1}}),
              "block type 'plugin:Type' has no setting 'levl'; did you mean 'level'?");
    EXPECT_EQ(refusal({{"a", 1}, {"level", 10}}), "block type 'plugin:Type' has no setting 'a'");
}

TEST(DeclaredSettings, ThatNobodyWroteStandAtTheNameOfTheBlock)
{
    Quorval::runtime::MemberDescription member;
    member.name_place = {0, 7, 8};
    Quorval::runtime::Setting mode;
    mode.key = "mode";
    Quorval::runtime::PlainBlock block;
    block.member = &member;
    for (const bool has_another : {false, true}) {
        if (has_another) {
            block.settings.push_back({&mode, 0});
        }
        Quorval::runtime::Problems problems;

        EXPECT_FALSE(check_declared(two_settings(), block, {{"level", 10}}, problems));

        ASSERT_EQ(problems.sorted().size(), 1U);
        EXPECT_EQ(problems.sorted()[0].place, member.name_place);
        EXPECT_EQ(problems.sorted()[0].text, "'level' has to be from 1 to 9, not 10");
        EXPECT_TRUE(check_declared(two_settings(), block, {{"level", 9}}, problems));
    }
}

TEST(LiveSettings, AreKnownByTheirKeys)
{
    EXPECT_TRUE(Quorval::runtime::is_declared(two_settings(), "level"));
    EXPECT_TRUE(Quorval::runtime::is_declared(two_settings(), "mode"));
    EXPECT_FALSE(Quorval::runtime::is_declared(two_settings(), "leve"));
}

TEST(Defaults, AreTakenOutOfADescription)
{
    BlockConfiguration description = {{"text", "what it is"}};
    description.set("settings.0.key", "a");
    description.set("settings.0.text", "has one");
    description.set("settings.0.default", 2.5);
    description.set("settings.1.key", "b");
    description.set("settings.1.minimum", 1.0);
    description.set("settings.2.key", "c.d");
    description.set("settings.2.default", std::vector<int>{1, 2});

    const BlockConfiguration defaults = Quorval::runtime::read_defaults(description);

    EXPECT_EQ(defaults, BlockConfiguration({{"a", 2.5}, {"c.d", {1, 2}}}));
    EXPECT_EQ(Quorval::runtime::read_defaults({}), BlockConfiguration());
}
