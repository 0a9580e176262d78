// Connections, and what can be wrong with them.
#include "runtime/support/graph_files.h"

#include <gtest/gtest.h>

using quorval_test::GraphFiles;

using Lines = std::vector<std::string>;

namespace {

/// Three blocks: `s` with outputs, `a` with inputs and an output, a superblock `ch` around `gain`.
constexpr const char* kBlocks = R"(
[blocks.s]
type = "parts:Ports"
config.outputs = ["out:double", "count:int32"]
[blocks.a]
type = "parts:Ports"
config.inputs = ["left:double", "right:double"]
config.outputs = ["out:double"]
[blocks.ch]
type = "channel"
[superblocks.channel]
blocks.gain.type = "parts:Gain"
inports.in = "gain.in"
outports.out = "gain.out"
)";

/// What is wrong with connections, which stand in line 2, between those blocks.
Lines findings_for(const std::string& connections)
{
    GraphFiles files;
    Lines lines;
    for (const std::string& line :
         files.findings_for("connections = [" + connections + "]" + kBlocks)) {
        if (line.find("is not connected") == std::string::npos) {
            lines.push_back(line);
        }
    }
    return lines;
}

}  // namespace

TEST(Connections, MayBeTextsOrTables)
{
    EXPECT_EQ(findings_for(R"("s.out -> a.left", { from = "s.out", to = "ch.in" })"), Lines());
}

TEST(Connections, HaveASpaceOnEitherSideOfTheArrow)
{
    for (const char* text :
         {"s.out->a.left", "s.out ->a.left", "s -> a.left", "s.out -> a", "s.out  -> a.left",
          "s. -> a.left", ".out -> a.left", "s.out -> a.left -> ch.in", "s.out", ""}) {
        EXPECT_EQ(findings_for("\"" + std::string(text) + "\""),
                  (Lines{"g.toml:2:16: error: '" + std::string(text) +
                         "' is not of the form BLOCK.OUTPUT -> BLOCK.INPUT"}));
    }
}

TEST(Connections, HaveBlocksAndPortsInTheirTableForm)
{
    EXPECT_EQ(findings_for(R"({ from = "s", to = "a." })"),
              (Lines{"g.toml:2:25: error: 's' is not of the form BLOCK.PORT",
                     "g.toml:2:35: error: 'a.' is not of the form BLOCK.PORT"}));
}

TEST(Connections, NeedBothEnds)
{
    EXPECT_EQ(
        findings_for(R"({ from = "s.out" }, { to = "a.left" })"),
        (Lines{"g.toml:2:16: error: missing key 'to'", "g.toml:2:36: error: missing key 'from'"}));
}

TEST(Connections, NameBlocksThatExist)
{
    EXPECT_EQ(findings_for(R"("nobody.out -> a.left", { from = "s.out", to = "chh.in" })"),
              (Lines{"g.toml:2:16: error: there is no block 'nobody'",
                     "g.toml:2:63: error: there is no block 'chh'; did you mean 'ch'?"}));
}

TEST(Connections, NamePortsThatExist)
{
    EXPECT_EQ(findings_for(R"("s.nothing -> a.nowhere", "a.aut -> ch.i", "ch.nothing -> s.in")"),
              (Lines{"g.toml:2:16: error: block 's' has no output 'nothing'; it has count, out",
                     "g.toml:2:16: error: block 'a' has no input 'nowhere'; it has left, right",
                     "g.toml:2:42: error: block 'a' has no output 'aut'; did you mean 'out'?",
                     "g.toml:2:42: error: block 'ch' has no input 'i'; it has in",
                     "g.toml:2:59: error: block 'ch' has no output 'nothing'; it has out",
                     "g.toml:2:59: error: block 's' has no input 'in'; it has none"}));
}

TEST(Connections, NameNoInputThatLeadsNowhere)
{
    GraphFiles files;

    EXPECT_EQ(files.findings_for("connections = [\"s.out -> a.in\"]\n"
                                 "blocks.s = { type = \"parts:Gain\" }\n"
                                 "blocks.a = { type = \"parts:Leads\", config.nowhere = true }\n"),
              (Lines{"g.toml:2:16: error: block 'a' has no input 'in'; it has none",
                     "g.toml:3:8: warning: s.in is not connected"}));
}

TEST(Connections, JoinPortsOfOneType)
{
    EXPECT_EQ(findings_for(R"("s.count -> a.left", "s.count -> ch.in")"),
              (Lines{"g.toml:2:16: error: s.count (int32) does not fit a.left (double)",
                     "g.toml:2:37: error: s.count (int32) does not fit ch/gain.in (double)"}));
}

TEST(Connections, FeedAnInputOnce)
{
    EXPECT_EQ(findings_for(R"("s.out -> ch.in", "a.out -> ch.in", "s.out -> ch.in")"),
              (Lines{"g.toml:2:34: error: ch/gain.in is already fed by s.out",
                     "g.toml:2:52: error: ch/gain.in is already fed by s.out"}));
}

TEST(Connections, ThatMeetOthersAreToldTenThousandTimesAndThenOnceEach)
{
    constexpr std::size_t kInputs = 99;
    constexpr std::size_t kMostConflicts = 10'000;
    constexpr std::size_t kConnections = kMostConflicts / kInputs + 4;
    std::string text = "connections = [\n";
    for (std::size_t i = 0; i < kConnections; ++i) {
        text += "\"s.out -> k.in\",\n";
    }
    text +=
        "]\nblocks.s = { type = \"parts:Ports\", config.outputs = [\"out:double\"] }\n"
        "blocks.k.type = \"kind\"\n[superblocks.kind]\ninports.in = [";
    std::string blocks;
    for (std::size_t i = 0; i < kInputs; ++i) {
        text += "\"g" + std::to_string(i) + ".in\",";
        blocks += "blocks.g" + std::to_string(i) + ".type = \"parts:Gain\"\n";
    }
    GraphFiles files;

    const Lines lines = files.findings_for(text + "]\n" + blocks);

    // All of 101 connections, then one of each of three; the first one feeds.
    EXPECT_EQ(lines.size(), kMostConflicts / kInputs * kInputs + 3);
    EXPECT_EQ(lines.back(), "g.toml:107:1: error: k/g0.in is already fed by s.out");
}

TEST(Connections, MakeNoCycle)
{
    EXPECT_EQ(findings_for(R"("a.out -> ch.in", "ch.out -> a.left")"),
              (Lines{"g.toml:2:34: error: the connections make a cycle: ch/gain -> a -> ch/gain"}));
    EXPECT_EQ(
        findings_for(R"("a.out -> ch.in", { from = "ch.out", to = "a.left", delayed = true })"),
        Lines());
    EXPECT_EQ(findings_for(R"("a.out -> a.left")"),
              (Lines{"g.toml:2:16: error: the connections make a cycle: a -> a"}));
    EXPECT_EQ(findings_for(R"({ from = "a.out", to = "a.left", delayed = true })"), Lines());
    EXPECT_EQ(findings_for(R"("a.out -> ch.in", { from = "a.out", to = "a.left", delayed = true },
                              { from = "a.out", to = "ch.in", delayed = true })"),
              (Lines{"g.toml:3:31: error: ch/gain.in is already fed by a.out"}));
}

TEST(Connections, AreNotCalledForWhereTheyFailed)
{
    GraphFiles files;

    EXPECT_EQ(files.findings_for(R"(connections = ["a.out -> b.in"]
blocks.a.type = "parts:Gain"
blocks.b.type = "parts:Gain"
)"),
              (Lines{"g.toml:3:8: warning: a.in is not connected"}));
    EXPECT_EQ(files.findings_for(R"(connections = ["a.aut -> b.in"]
blocks.a.type = "parts:Gain"
blocks.b.type = "parts:Gain"
)"),
              (Lines{"g.toml:2:16: error: block 'a' has no output 'aut'; did you mean 'out'?",
                     "g.toml:3:8: warning: a.in is not connected"}));
}

TEST(Connections, ExposeSeveralInputsUnderOneName)
{
    GraphFiles files;

    EXPECT_EQ(files.findings_for(R"(connections = ["s.out -> k.in", "s.out -> k.other"]
[blocks.s]
type = "parts:Ports"
config.outputs = ["out:double"]
[blocks.k]
type = "kind"
[superblocks.kind]
inports.in = ["a.in", "b.in"]
inports.other = "b.in"
blocks.a.type = "parts:Gain"
blocks.b.type = "parts:Gain"
)"),
              (Lines{"g.toml:2:33: error: k/b.in is already fed by s.out"}));
}

TEST(Connections, LeadToWhatIsRightOfAnExposedInput)
{
    GraphFiles files;

    EXPECT_EQ(files.findings_for(R"(connections = ["s.out -> k.in"]
[blocks.s]
type = "parts:Ports"
config.outputs = ["out:int32"]
[blocks.k]
type = "kind"
[superblocks.kind]
inports.in = ["nobody.in", "a.nothing", "a.in", "wrong"]
blocks.a.type = "parts:Gain"
)"),
              (Lines{"g.toml:2:16: error: s.out (int32) does not fit k/a.in (double)",
                     "g.toml:9:15: error: there is no block 'nobody'",
                     "g.toml:9:28: error: block 'k/a' has no input 'nothing'; it has in",
                     "g.toml:9:49: error: 'wrong' is not of the form BLOCK.PORT"}));
}

TEST(Connections, AreNotCalledForWherePortsAreMisspelt)
{
    GraphFiles files;

    EXPECT_EQ(files.findings_for(R"(connections = ["s.out -> k.in"]
[blocks.s]
type = "parts:Ports"
config.outputs = ["out:double"]
[blocks.k]
type = "kind"
[superblocks.kind]
inport.in = "a.in"
blocks.a.type = "parts:Gain"
)"),
              (Lines{"g.toml:9:1: error: unknown key 'inport'; did you mean 'inports'?"}));
}

TEST(Connections, AreLookedUpInsideOfSuperblocksThatAreUsed)
{
    GraphFiles files;
    const std::string kind = R"(
connections = ["a.out -> b.nothing"]
inports.in = "a.nothing"
outports.out = "c.out"
blocks.a.type = "parts:Gain"
blocks.b.type = "parts:Gain"
)";

    EXPECT_EQ(files.findings_for("[blocks.x]\ntype = \"used\"\n[superblocks.unused]" + kind +
                                 "[superblocks.used]" + kind),
              (Lines{"g.toml:11:16: error: block 'x/b' has no input 'nothing'; it has in",
                     "g.toml:12:14: error: block 'x/a' has no input 'nothing'; it has in",
                     "g.toml:13:16: error: there is no block 'c'"}));
}

TEST(Connections, AreNotCalledForWhereABlockIsMissing)
{
    GraphFiles files;

    EXPECT_EQ(
        files.findings_for("connections = [\"a.out -> c.in\"]\n"
                           "blocks.a.type = \"parts:Gain\"\nblocks.b.type = \"parts:Gain\"\n"),
        (Lines{"g.toml:2:16: error: there is no block 'c'"}));
}

TEST(Connections, OfATypeWithoutCodecMayLeadNowhere)
{
    GraphFiles files;

    EXPECT_EQ(
        files.findings_for("connections = [\"s.out -> a.in\"]\n"
                           "blocks.s = { type = \"parts:Ports\", config.outputs = [\"out:odd\"] }\n"
                           "blocks.a = { type = \"parts:Leads\", config.nowhere = true }\n"),
        (Lines{"g.toml:2:16: error: block 'a' has no input 'in'; it has none"}));
}

TEST(Connections, CountInTheOrderInWhichTheyAreWritten)
{
    GraphFiles files;

    EXPECT_EQ(files.findings_for(R"(superblocks.kind.connections = ["a.out -> b.in"]
connections = ["k.out -> k.in", "k.out -> k.first"]
superblocks.kind.inports = { in = "b.in", first = "a.in" }
superblocks.kind.outports.out = "b.out"
superblocks.kind.blocks.a.type = "parts:Gain"
superblocks.kind.blocks.b.type = "parts:Gain"
blocks.k.type = "kind"
)"),
              (Lines{"g.toml:3:16: error: k/b.in is already fed by k/a.out",
                     "g.toml:3:33: error: the connections make a cycle: k/b -> k/a -> k/b"}));
}

TEST(Connections, OfIncludedFilesComeFirst)
{
    const std::string blocks = "blocks.a.type = \"parts:Gain\"\nblocks.b.type = \"parts:Gain\"\n";
    GraphFiles files;
    files.write("part.toml", "format = 1\nconnections = [\"a.out -> b.in\"]\n");

    EXPECT_EQ(files.findings_for("connections = [\"b.out -> b.in\", \"b.out -> a.in\"]\n"
                                 "include = [\"part.toml\"]\n" +
                                 blocks),
              (Lines{"g.toml:2:16: error: b.in is already fed by a.out",
                     "g.toml:2:33: error: the connections make a cycle: b -> a -> b"}));
}

TEST(Connections, WithOneWrongEndAreCheckedAtTheOtherOne)
{
    const std::string blocks = "blocks.a.type = \"parts:Gain\"\n";
    const auto findings = [&](const std::string& ends) {
        GraphFiles files;
        return files.findings_for("connections = [{ " + ends + " }]\n" + blocks);
    };

    EXPECT_EQ(findings("from = 'a.none', to = 'x'"),
              (Lines{"g.toml:2:25: error: block 'a' has no output 'none'; it has out",
                     "g.toml:2:40: error: 'x' is not of the form BLOCK.PORT"}));
    EXPECT_EQ(findings("from = 3, to = 'a.none'"),
              (Lines{"g.toml:2:25: error: 'from' has to be a string",
                     "g.toml:2:33: error: block 'a' has no input 'none'; it has in"}));
    EXPECT_EQ(findings("to = 'none.in'"), (Lines{"g.toml:2:16: error: missing key 'from'",
                                                 "g.toml:2:23: error: there is no block 'none'"}));
    EXPECT_EQ(findings("from = 'a.out', to = 'x'"),
              (Lines{"g.toml:2:39: error: 'x' is not of the form BLOCK.PORT"}));
    EXPECT_EQ(findings("from = 'x', to = 'a.in'"),
              (Lines{"g.toml:2:25: error: 'x' is not of the form BLOCK.PORT"}));

    GraphFiles files;
    EXPECT_EQ(files.findings_for("connections = ['a.none -> x', 'y -> a.none']\n" + blocks),
              (Lines{"g.toml:2:16: error: 'a.none -> x' is not of the form BLOCK.OUTPUT -> "
                     "BLOCK.INPUT",
                     "g.toml:2:31: error: 'y -> a.none' is not of the form BLOCK.OUTPUT -> "
                     "BLOCK.INPUT"}));
}

TEST(Connections, OfAnotherTypeLeaveTheirInputToOthers)
{
    const std::string blocks = R"(
blocks.s = { type = "parts:Ports", config.outputs = ["out:double", "count:int32"] }
blocks.a = { type = "parts:Ports", config.inputs = ["in:double", "other:double"] }
)";
    const auto findings = [&](const std::string& connections) {
        GraphFiles files;
        return files.findings_for("connections = [" + connections + "]" + blocks);
    };
    const std::string misfit = "g.toml:2:16: error: s.count (int32) does not fit a.in (double)";
    const std::string unfed = "g.toml:4:8: warning: a.other is not connected";

    EXPECT_EQ(findings("'s.count -> a.in'"), (Lines{misfit, unfed}));
    EXPECT_EQ(findings("'s.count -> a.in', 's.out -> a.in'"), (Lines{misfit, unfed}));
    EXPECT_EQ(findings("'s.count -> a.in', 's.out -> a.in', 's.out -> a.in'"),
              (Lines{misfit, "g.toml:2:52: error: a.in is already fed by s.out", unfed}));
    EXPECT_EQ(findings("'s.out -> a.in', 's.out -> a.in'"),
              (Lines{"g.toml:2:33: error: a.in is already fed by s.out", unfed}));
    EXPECT_EQ(findings("'s.out -> a.in'"), (Lines{unfed}));
    EXPECT_EQ(findings("'s.nothing -> a.in', 's.out -> a.other'"),
              (Lines{"g.toml:2:16: error: block 's' has no output 'nothing'; it has count, out"}));
}

TEST(Connections, AreCalledForBesideASuperblockThatIsNone)
{
    GraphFiles files;

    EXPECT_EQ(files.findings_for("blocks.a.type = \"parts:Gain\"\nblocks.k.type = \"kind\"\n"
                                 "superblocks.kind = 1\n"),
              (Lines{"g.toml:2:8: warning: a.in is not connected",
                     "g.toml:4:20: error: 'kind' has to be a table"}));
}
