// Files and assignments become one description.
#include "description/read.h"

#include <quorval/config.h>
#include "support/support.h"

#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <cmath>
#include <filesystem>
#include <sstream>

using Quorval::runtime::CompositeDescription;
using Quorval::runtime::ConnectionDescription;
using Quorval::runtime::Delivery;
using Quorval::runtime::GraphDescription;
using Quorval::runtime::OnError;
using Quorval::runtime::read_graph;
using Quorval::runtime::Reading;
using Quorval::runtime::Setting;
using Quorval::runtime::Source;
using Quorval::runtime::Value;
using quorval_test::TemporaryDirectory;
using quorval_test::write_file;

using Lines = std::vector<std::string>;

namespace {

/// Files of a test.
class Files {
public:
    std::string write(const std::string& name, const std::string& text) const
    {
        const std::filesystem::path file = directory_.path() / name;
        std::filesystem::create_directories(file.parent_path());
        write_file(file, text);
        return file;
    }

    std::string path(const std::string& name) const { return directory_.path() / name; }

private:
    TemporaryDirectory directory_;
};

/// What a file of format 1 with that text describes.
GraphDescription describe(const std::string& text, const Lines& assignments = {})
{
    const Files files;
    Reading reading = read_graph({files.write("g.toml", "format = 1\n" + text)}, assignments);
    EXPECT_TRUE(reading.problems.sorted().empty());
    return std::move(reading.description);
}

std::string text_of(const Value& value)
{
    return std::visit(
        [](const auto& held) {
            Quorval::BlockConfiguration config;
            config.set("v", held);
            std::ostringstream out;
            out << config;
            const std::string text = out.str();
            const std::size_t begin = text.find("v (") + 3;
            return text.substr(begin, text.size() - 1 - begin);
        },
        value);
}

/// The settings of the member `a`, "key type) = value" each.
Lines settings_of(const GraphDescription& description)
{
    Lines lines;
    const std::size_t at = description.graph.find_member("a");
    for (const Setting& setting : description.graph.members.at(at).config) {
        lines.push_back(setting.key + " (" + text_of(setting.value));
    }
    return lines;
}

Lines settings_of(const std::string& config)
{
    return settings_of(describe("[blocks.a]\ntype = \"p:T\"\n" + config));
}

Lines connections_of(const CompositeDescription& inside)
{
    Lines lines;
    for (const ConnectionDescription& connection : inside.connections) {
        lines.push_back(connection.from.block + "." + connection.from.port +
                        (connection.is_delayed ? " ~> " : " -> ") + connection.to.block + "." +
                        connection.to.port);
    }
    return lines;
}

}  // namespace

// --- values ---

TEST(ReadGraph, TakesEachKindOfValue)
{
    EXPECT_EQ(
        settings_of(R"(config = { i = -2147483648, j = 2147483647, f = 0.5, b = true, s = "x" })"),
        (Lines{"b (bool) = 1", "f (double) = 0.5", "i (int) = -2147483648", "j (int) = 2147483647",
               "s (string) = x"}));
}

TEST(ReadGraph, TakesListsOfOneKind)
{
    EXPECT_EQ(
        settings_of(
            R"(config = { i = [1, 2], f = [0.5], m = [1, 0.5, 3000000000], b = [true, false], s = ["x", "y"] })"),
        settings_of("config.i = [1, 2]\nconfig.f = [0.5]\nconfig.m = [1.0, 0.5, 3e9]\n"
                    "config.b = [true, false]\nconfig.s = [\"x\", \"y\"]"));
    const GraphDescription description =
        describe("blocks.a = { type = \"p:T\", config.m = [1, 0.5] }");
    EXPECT_EQ(std::get<std::vector<double>>(description.graph.members[0].config[0].value),
              (std::vector<double>{1, 0.5}));
}

TEST(ReadGraph, FlattensTablesAndListsOfTables)
{
    EXPECT_EQ(settings_of("config.x = { y.z = 1, w = {} }\n[[blocks.a.config.in]]\nname = \"p\"\n"
                          "[[blocks.a.config.in]]\n[[blocks.a.config.in]]\nname = \"q\"\n"),
              (Lines{"in.0.name (string) = p", "in.2.name (string) = q", "x.y.z (int) = 1"}));
}

TEST(ReadGraph, TakesQuotedKeysForDottedOnes)
{
    EXPECT_EQ(settings_of("config.a = 1\nconfig.\"a.b\" = 2\n"),
              (Lines{"a (int) = 1", "a.b (int) = 2"}));
}

TEST(ReadGraph, TakesTheLaterOfTwoSpellings)
{
    EXPECT_EQ(settings_of("config.\"a.b\" = 1\nconfig.a.b = 2\n"), (Lines{"a.b (int) = 2"}));
    EXPECT_EQ(settings_of("config.a.b = 2\nconfig.\"a.b\" = 1\n"), (Lines{"a.b (int) = 1"}));
}

TEST(ReadGraph, TakesTheLaterOfTwoSpellingsInTwoFiles)
{
    const Files files;
    files.write("inner.toml", "format = 1\nblocks.a.config.\"x.y\" = 1\n");
    files.write("other.toml", "format = 1\nblocks.a.config.x.y = 3\n");

    const Reading reading = read_graph(
        {files.write("g.toml",
                     "format = 1\ninclude = [\"inner.toml\"]\nblocks.a.config.x.y = 2\n")},
        {});
    EXPECT_EQ(settings_of(reading.description), (Lines{"x.y (int) = 2"}));
    const Reading reversed = read_graph({files.path("other.toml"), files.path("inner.toml")}, {});
    EXPECT_EQ(settings_of(reversed.description), (Lines{"x.y (int) = 1"}));
}

// --- the graph ---

TEST(ReadGraph, NamesTheGraphAfterTheFirstFile)
{
    const Files files;

    EXPECT_EQ(
        read_graph({files.write("a b.c.toml", "format = 1"), files.write("d.toml", "format = 1")},
                   {})
            .description.name,
        "a_b_c");
    EXPECT_EQ(read_graph({files.write("größe.toml", "format = 1")}, {}).description.name, "gr__e");
    EXPECT_EQ(describe("name = \"x-1_Y\"").name, "x-1_Y");
}

TEST(ReadGraph, ReadsEachPartOfAConnection)
{
    const GraphDescription description = describe(R"(connections = [
    "a.out -> b.in.x",
    { from = "a.out", to = "b.y", delayed = true, delivery = "all" },
    { from = "a.out", to = "b.z", delayed = false, delivery = "latest" },
])");

    EXPECT_EQ(connections_of(description.graph),
              (Lines{"a.out -> b.in.x", "a.out ~> b.y", "a.out -> b.z"}));
    EXPECT_EQ(description.graph.connections[0].delivery, Delivery::Latest);
    EXPECT_EQ(description.graph.connections[1].delivery, Delivery::All);
    EXPECT_EQ(description.graph.connections[2].delivery, Delivery::Latest);
}

TEST(ReadGraph, ReadsWhatBecomesOfFailures)
{
    const GraphDescription description =
        describe("on_error = \"skip\"\nblocks.a.on_error = \"stop\"\nblocks.b = {}");

    EXPECT_EQ(description.on_error, OnError::Skip);
    EXPECT_EQ(description.graph.members[0].on_error, OnError::Stop);
    EXPECT_EQ(description.graph.members[1].on_error, std::nullopt);
    EXPECT_EQ(describe("").on_error, OnError::Stop);
}

TEST(ReadGraph, ReadsExposedPorts)
{
    const GraphDescription description = describe(R"(
[superblocks.s]
inports = { one = "a.in", many = ["a.in", "b.in"] }
outports.out = "a.out"
)");

    const CompositeDescription& kind = description.kinds.at("s");
    ASSERT_EQ(kind.inports.size(), 2U);
    EXPECT_EQ(kind.inports[0].name, "many");
    EXPECT_EQ(kind.inports[0].ends.size(), 2U);
    EXPECT_EQ(kind.inports[1].ends[0].block, "a");
    EXPECT_EQ(kind.outports[0].ends[0].port, "out");
}

TEST(ReadGraph, ReadsSizesOfALink)
{
    const GraphDescription smallest = describe("link = { queue = 1, limit = 1 }");
    EXPECT_EQ(smallest.link.queue, 1U);
    EXPECT_EQ(smallest.link.limit, 1U);
    const GraphDescription largest = describe("link = { queue = 1000000000, limit = 268000000 }");
    EXPECT_EQ(largest.link.queue, 1'000'000'000U);
    EXPECT_EQ(largest.link.limit, 268'000'000U);
}

TEST(ReadGraph, TellsOfExposedPortsThatLeadNowhere)
{
    const Files files;
    const Reading reading = read_graph(
        {files.write("g.toml",
                     "format = 1\nsuperblocks.s.inports = { a = [], b = [\"x.in\", 1] }\n"
                     "superblocks.t = 1\n")},
        {});

    ASSERT_EQ(reading.problems.sorted().size(), 3U);
    EXPECT_EQ(reading.problems.sorted()[0].text, "'a' is an empty list");
    const CompositeDescription& kind = reading.description.kinds.at("s");
    EXPECT_TRUE(kind.inports.at(0).is_broken);
    EXPECT_TRUE(kind.inports.at(1).is_broken);
    EXPECT_FALSE(kind.is_broken);
    EXPECT_TRUE(reading.description.kinds.at("t").is_broken);
}

// --- merging ---

TEST(ReadGraph, MergesTablesKeyByKey)
{
    const Files files;
    files.write("one.toml", R"(format = 1
name = "one"
connections = ["a.x -> b.x"]
blocks.a = { type = "p:One", config = { kept = 1, replaced = 1, list = [1, 2], t.u = 1, v = 1 }, on_error = "skip" }
superblocks.s.connections = ["c.x -> d.x"]
superblocks.s.inports.in = ["c.a", "c.b"]
)");
    files.write("two.toml", R"(format = 1
name = "two"
connections = ["a.y -> b.y"]
blocks.a = { type = "p:Two", config = { replaced = 2, list = [3], t = 2, v.w = 2 } }
superblocks.s.connections = ["c.y -> d.y"]
superblocks.s.inports.in = ["c.c"]
)");

    const Reading reading = read_graph({files.path("one.toml"), files.path("two.toml")}, {});

    const GraphDescription& description = reading.description;
    EXPECT_TRUE(reading.problems.sorted().empty());
    EXPECT_EQ(description.name, "two");
    EXPECT_EQ(description.graph.members[0].type, "p:Two");
    EXPECT_EQ(description.graph.members[0].on_error, OnError::Skip);
    EXPECT_EQ(connections_of(description.graph), (Lines{"a.x -> b.x", "a.y -> b.y"}));
    EXPECT_EQ(connections_of(description.kinds.at("s")), (Lines{"c.x -> d.x", "c.y -> d.y"}));
    ASSERT_EQ(description.kinds.at("s").inports[0].ends.size(), 1U);
    EXPECT_EQ(description.kinds.at("s").inports[0].ends[0].port, "c");
    Lines keys;
    for (const Setting& setting : description.graph.members[0].config) {
        keys.push_back(setting.key);
    }
    EXPECT_EQ(keys, (Lines{"kept", "list", "replaced", "t", "v.w"}));
    EXPECT_EQ(description.graph.members[0].type_place.source, 1U);
}

TEST(ReadGraph, ReplacesListsOfTables)
{
    const Files files;
    files.write("one.toml", "format = 1\nblocks.a.config.in = [{ n = 1 }, { n = 2 }]\n");
    files.write("two.toml", "format = 1\nblocks.a.config.in = [{ m = 3 }]\n");

    const Reading reading = read_graph({files.path("one.toml"), files.path("two.toml")}, {});

    EXPECT_EQ(settings_of(reading.description), (Lines{"in.0.m (int) = 3"}));
}

TEST(ReadGraph, AppendsConnectionsAloneAndOnlyThose)
{
    const Files files;
    files.write("one.toml",
                "format = 1\nblocks.a.config.connections = [1]\n"
                "blocks.connections.type = \"p:T\"\n");
    files.write("two.toml", "format = 1\nblocks.a.config.connections = [2]\n");

    const Reading reading = read_graph({files.path("one.toml"), files.path("two.toml")}, {});

    EXPECT_EQ(std::get<std::vector<int>>(reading.description.graph.members[0].config[0].value),
              std::vector<int>{2});
}

TEST(ReadGraph, ReadsIncludedFilesFirstAndOnce)
{
    const Files files;
    const auto file_with = [](const std::string& include, const std::string& connection) {
        return "format = 1\n" + include + "\nconnections = [\"" + connection + "\"]\n";
    };
    files.write("g.toml", file_with("include = [\"sub/a.toml\", \"b.toml\", \"./sub/a.toml\"]",
                                    "g.x -> g.y"));
    files.write("sub/a.toml", file_with("include = [\"../c.toml\"]", "a.x -> a.y"));
    files.write("b.toml", file_with("include = [\"c.toml\"]", "b.x -> b.y"));
    files.write("c.toml", file_with("", "c.x -> c.y"));
    std::filesystem::create_hard_link(files.path("c.toml"), files.path("same.toml"));

    const Reading reading =
        read_graph({files.path("g.toml"), files.path("b.toml"), files.path("same.toml")}, {});

    EXPECT_TRUE(reading.problems.sorted().empty());
    EXPECT_EQ(connections_of(reading.description.graph),
              (Lines{"c.x -> c.y", "a.x -> a.y", "b.x -> b.y", "g.x -> g.y"}));
    Lines names;
    for (const Source& source : reading.sources) {
        names.push_back(source.name);
    }
    EXPECT_EQ(names, (Lines{files.path("g.toml"), files.path("sub/a.toml"),
                            files.path("sub/../c.toml"), files.path("b.toml")}));
}

TEST(ReadGraph, TakesAbsoluteNamesOfIncludedFilesAsTheyAre)
{
    const Files files;
    const std::string inner = files.write("inner.toml", "format = 1\nname = \"inner\"");

    const Reading reading =
        read_graph({files.write("sub/g.toml", "format = 1\ninclude = [\"" + inner + "\"]")}, {});

    EXPECT_EQ(reading.description.name, "inner");
    EXPECT_EQ(reading.sources.at(1).name, inner);
}

TEST(ReadGraph, BearsAChainOfManyIncludes)
{
    const Files files;
    constexpr int kCount = 2000;
    for (int i = 0; i < kCount; ++i) {
        files.write(std::to_string(i) + ".toml",
                    "format = 1\ninclude = [\"" + std::to_string(i + 1) + ".toml\"]");
    }
    files.write(std::to_string(kCount) + ".toml", "format = 1\nname = \"last\"");

    EXPECT_EQ(read_graph({files.path("0.toml")}, {}).description.name, "last");
}

// --- files ---

TEST(ReadGraph, ReadsPipes)
{
    int ends[2] = {};
    ASSERT_EQ(::pipe(ends), 0);
    const std::string text = "format = 1\nname = \"piped\"\n";
    ASSERT_EQ(::write(ends[1], text.data(), text.size()), static_cast<ssize_t>(text.size()));
    ::close(ends[1]);

    const Reading reading = read_graph({"/dev/fd/" + std::to_string(ends[0])}, {});

    EXPECT_EQ(reading.description.name, "piped");
    ::close(ends[0]);
}

TEST(ReadGraph, DoesNotWaitForTheWriterOfAPipe)
{
    const Files files;
    const std::string pipe = files.path("pipe");
    ASSERT_EQ(::mkfifo(pipe.c_str(), 0600), 0);

    const Reading reading = read_graph({pipe}, {});

    ASSERT_EQ(reading.problems.sorted().size(), 1U);
    EXPECT_EQ(reading.problems.sorted()[0].text, "missing key 'format'");
}

TEST(ReadGraph, ReadsLargeFiles)
{
    const Files files;
    const std::string comment = "#" + std::string(1'000'000, 'x') + "\n";

    EXPECT_EQ(read_graph({files.write("g.toml", "format = 1\n" + comment + "name = \"end\"")}, {})
                  .description.name,
              "end");
}

TEST(ReadGraph, ToleratesAByteOrderMarkAndCarriageReturns)
{
    const Files files;

    const Reading reading = read_graph({files.write("g.toml",
                                                    "\xEF\xBB\xBF"
                                                    "format = 1\r\nname = \"x\"\r\n")},
                                       {});

    EXPECT_TRUE(reading.problems.sorted().empty());
    EXPECT_EQ(reading.description.name, "x");
}

TEST(ReadGraph, IsNotWholeWithoutOneOfItsFiles)
{
    const Files files;

    EXPECT_FALSE(read_graph({files.write("a.toml", "format = 2")}, {}).is_whole);
    EXPECT_FALSE(read_graph({files.write("b.toml", "format =")}, {}).is_whole);
    EXPECT_FALSE(read_graph({files.path("c.toml")}, {}).is_whole);
    EXPECT_TRUE(read_graph({files.write("d.toml", "x = 1")}, {}).is_whole);
    const std::string open_to_all = files.write("e.toml", "format = 1");
    ASSERT_EQ(::chmod(open_to_all.c_str(), 0666), 0);
    EXPECT_EQ(read_graph({open_to_all}, {}).is_whole, ::geteuid() != 0);
}

TEST(ReadGraph, TellsOfABrokenFileOnce)
{
    const Files files;
    files.write("broken.toml", "format =");

    const Reading reading = read_graph(
        {files.write("g.toml", "format = 1\ninclude = [\"broken.toml\", \"./broken.toml\"]")}, {});

    EXPECT_EQ(reading.problems.sorted().size(), 1U);
}

// --- assignments ---

TEST(ReadGraph, TakesAssignmentsApart)
{
    const GraphDescription description =
        describe("", {"left/gain.factor=0.25", "a.b.c==x", "a.t={ u = 1, v.w = [1] }"});

    Lines lines;
    for (const auto& assignment : description.assignments) {
        lines.push_back(assignment.path + " " + assignment.setting.key + " (" +
                        text_of(assignment.setting.value));
    }
    ASSERT_EQ(lines.size(), 4U);
    EXPECT_EQ(lines[0], "left/gain factor (double) = 0.25");
    EXPECT_EQ(lines[1], "a b.c (string) = =x");
    EXPECT_EQ(lines[2], "a t.u (int) = 1");
    EXPECT_EQ(lines[3].substr(0, 8), "a t.v.w ");
}

TEST(ReadGraph, TakesWhatIsNoTomlValueAsAString)
{
    const auto value_of = [](const std::string& text) {
        return describe("", {"a.k=" + text}).assignments.at(0).setting.value;
    };
    for (const std::string text : {"", "in.wav", "Song #1", "1 # one", "1\nx = 2", "\"open", "1 2",
                                   "'a' b", "#", "true ish", "[1, 2", "1,", "\xff", "\xC3\xA4"}) {
        EXPECT_EQ(std::get<std::string>(value_of(text)), text);
    }
    EXPECT_EQ(std::get<std::string>(value_of("\"1\"")), "1");
    EXPECT_EQ(std::get<std::string>(value_of("'\xC3\xA4'")), "\xC3\xA4");
    EXPECT_EQ(std::get<int>(value_of(" 0x10 ")), 16);
    EXPECT_EQ(std::get<bool>(value_of("true")), true);
    EXPECT_TRUE(std::isinf(std::get<double>(value_of("-inf"))));
    EXPECT_EQ(std::get<std::vector<int>>(value_of("[1,\n2]")), (std::vector<int>{1, 2}));
}

TEST(ReadGraph, NamesAssignmentsBehindTheFiles)
{
    const Files files;

    const Reading reading =
        read_graph({files.write("g.toml", "format = 1")}, {"a/b.c=1", "d.e=f.g=h"});

    ASSERT_EQ(reading.sources.size(), 3U);
    EXPECT_EQ(reading.sources[1].name, "--set a/b.c");
    EXPECT_EQ(reading.sources[2].name, "--set d.e");
    EXPECT_FALSE(reading.sources[0].is_assignment);
    EXPECT_TRUE(reading.sources[2].is_assignment);
}

TEST(ReadGraph, FindsTheMembersAtEachEnd)
{
    const CompositeDescription kind = describe(R"(
[superblocks.k]
connections = ["b.out -> a.in", "c.out -> missing.in"]
inports.in = ["c.in", "b.in"]
outports.out = "a.out"
[superblocks.k.blocks]
c.type = "p:T"
a.type = "p:T"
b.type = "p:T"
)")
                                          .kinds.at("k");

    const auto members_of = [](const ConnectionDescription& connection) {
        return std::pair(connection.from.member, connection.to.member);
    };
    EXPECT_EQ(members_of(kind.connections.at(0)), std::pair(1U, 0U));
    EXPECT_EQ(members_of(kind.connections.at(1)), std::pair(2U, Quorval::runtime::kNoMember));
    EXPECT_EQ(kind.inports.at(0).ends.at(0).member, 2U);
    EXPECT_EQ(kind.inports.at(0).ends.at(1).member, 1U);
    EXPECT_EQ(kind.outports.at(0).ends.at(0).member, 0U);
}

/// What is missing of a description because it is wrong, by what may be asked for it.
Lines gaps_of(const GraphDescription& whole)
{
    Lines gaps;
    const auto note = [&gaps](bool is_there, const std::string& gap) {
        if (is_there) {
            gaps.push_back(gap);
        }
    };
    note(whole.has_broken_kinds, "kinds");
    note(whole.has_broken_machines, "machines");
    note(whole.link.is_wrong, "link");
    const auto look_into = [&](const std::string& where, const CompositeDescription& inside) {
        note(inside.is_broken, where + "blocks");
        note(inside.misses_connections, where + "connections");
        for (const auto& member : inside.members) {
            note(!member.misses_type, where + member.name + ".type");
            note(where.empty() && !member.misses_machine, member.name + ".machine");
            note(member.is_config_wrong, where + member.name + ".config");
        }
    };
    look_into("", whole.graph);
    for (const auto& [name, kind] : whole.kinds) {
        look_into(name + "/", kind);
    }
    return gaps;
}

TEST(ReadGraph, LacksWhatIsWrongInOneOfSeveralFiles)
{
    struct Case {
        std::string wrong;
        std::string right;
        Lines gaps;
    };
    for (const Case& one :
         {Case{"superblocks = 1", "superblocks.k = {}", {"kinds"}},
          Case{"machines = 1", "machines.m = {}", {"machines"}},
          Case{"link = 1", "link.queue = 5", {"link"}},
          Case{"blocks = 1", "blocks = {}", {"blocks"}},
          Case{"connections = 1", "connections = []", {"connections"}},
          Case{"blocks.a.config = 1", "blocks.a.config.x = 1", {"a.config"}},
          Case{"blocks.a = 1", "blocks.a = {}", {"a.type", "a.machine"}},
          Case{"superblocks.k.blocks = 1", "superblocks.k.blocks = {}", {"k/blocks"}},
          Case{
              "superblocks.k.connections = 1", "superblocks.k.connections = []", {"k/connections"}},
          Case{"superblocks.k.blocks.a.config = 1",
               "superblocks.k.blocks.a = {}",
               {"k/a.config"}}}) {
        const Files files;
        const std::string wrong = files.write("wrong.toml", "format = 1\n" + one.wrong);
        const std::string right = files.write("right.toml", "format = 1\n" + one.right);

        EXPECT_EQ(gaps_of(read_graph({wrong, right}, {}).description), one.gaps) << one.wrong;
        EXPECT_EQ(gaps_of(read_graph({right, wrong, right}, {}).description), one.gaps)
            << one.wrong;
        EXPECT_EQ(gaps_of(read_graph({right, right}, {}).description), Lines()) << one.right;
    }
}

TEST(ReadGraph, MayLackAllThatAFileCouldHaveWhoseNameIsWrong)
{
    const Files files;
    const std::string text =
        "format = 1\nblocks.a.config = {}\n[superblocks.k]\nblocks.b.config = {}\n";

    const Reading reading = read_graph({files.write("g.toml", "include = [1]\n" + text)}, {});

    EXPECT_EQ(gaps_of(reading.description),
              (Lines{"kinds", "machines", "link", "blocks", "connections", "a.type", "a.machine",
                     "a.config", "k/blocks", "k/connections", "k/b.type", "k/b.config"}));
    EXPECT_EQ(gaps_of(read_graph({files.write("g.toml", text)}, {}).description), Lines());
}
