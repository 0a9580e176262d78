// A graph file becomes blocks.
#include <quorval/log.h>
#include <quorval/pstore.h>
#include "messages/context.h"
#include "runtime/support/graph_files.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <memory>
#include <optional>
#include <set>

using Quorval::Block;
using Quorval::Connection;
using Quorval::GraphOptions;
using Quorval::runtime::load_graph;
using Quorval::runtime::LoadedBlock;
using Quorval::runtime::LoadedGraph;
using Quorval::runtime::loading_graph;
using Quorval::runtime::Node;
using Quorval::runtime::SettingRef;
using Quorval::runtime::Wire;
using quorval_test::GraphFiles;
using quorval_test::LogRecorder;
using quorval_test::ScopedEnvironment;
using quorval_test::test_plugin_directory;

using Lines = std::vector<std::string>;

namespace {

constexpr const char* kChannel = R"(
[superblocks.channel]
connections = ["gain.out -> fir.in"]
inports.in = "gain.in"
outports.out = "fir.out"
blocks.gain = { type = "parts:Gain", config = { factor = 1.0 } }
blocks.fir.type = "parts:Gain"
)";

/// A channel in a channel.
constexpr const char* kNested = R"(
[blocks.outer]
type = "pair"
config.left.gain.factor = 3.0
config.right.gain.factor = 4.0
[superblocks.pair]
blocks.left = { type = "channel", config.gain.factor = 2.0, config.fir.factor = 7.0 }
blocks.right = { type = "channel", on_error = "skip" }
)";

Lines paths_of(const LoadedGraph& graph)
{
    Lines paths;
    for (const Node& node : graph.network.nodes) {
        paths.push_back(node.path);
    }
    return paths;
}

Lines wires_of(const LoadedGraph& graph)
{
    Lines wires;
    for (const Wire& wire : graph.network.wires) {
        wires.push_back(graph.network.nodes[wire.from].path + "." + wire.output->get_name() +
                        (wire.is_delayed ? " ~> " : " -> ") + graph.network.nodes[wire.to].path +
                        "." + wire.input_name());
    }
    return wires;
}

std::size_t index_of(const LoadedGraph& graph, const std::string& path)
{
    for (std::size_t i = 0; i < graph.network.nodes.size(); ++i) {
        if (graph.network.nodes[i].path == path) {
            return i;
        }
    }
    throw std::out_of_range(path);
}

const LoadedBlock& block_of(const LoadedGraph& graph, const std::string& path)
{
    return graph.blocks.at(index_of(graph, path));
}

double factor_of(const LoadedGraph& graph, const std::string& path)
{
    return block_of(graph, path).config.getDouble("factor", 0.0);
}

mode_t mode_of(const std::string& path)
{
    struct stat status {};
    return ::stat(path.c_str(), &status) == 0 ? status.st_mode & 07777U : 0;
}

}  // namespace

TEST(LoadGraph, MakesBlocksInTheOrderInWhichTheyRun)
{
    GraphFiles files;

    const LoadedGraph graph = files.load(std::string(R"(
connections = ["source.out -> left.in", "source.out -> right.in", "left.out -> mix.a",
               { from = "right.out", to = "mix.b", delayed = true }]
[blocks.source]
type = "parts:Ports"
config.outputs = ["out:double"]
[blocks.left]
type = "channel"
config.gain.factor = 0.5
[blocks.right]
type = "channel"
[blocks.mix]
type = "parts:Ports"
config.inputs = ["a:double", "b:double"]
)") + kChannel);

    EXPECT_EQ(paths_of(graph),
              (Lines{"source", "left/gain", "left/fir", "mix", "right/gain", "right/fir"}));
    EXPECT_EQ(wires_of(graph),
              (Lines{"source.out -> left/gain.in", "left/gain.out -> left/fir.in",
                     "left/fir.out -> mix.a", "right/fir.out ~> mix.b",
                     "source.out -> right/gain.in", "right/gain.out -> right/fir.in"}));
    EXPECT_EQ(factor_of(graph, "left/gain"), 0.5);
    EXPECT_EQ(factor_of(graph, "right/gain"), 1.0);
    EXPECT_EQ(graph.warnings.size(), 0U);
}

TEST(LoadGraph, DescribesBlocksInTheOrderOfTheNetwork)
{
    GraphFiles files;

    const LoadedGraph graph = files.load(
        "connections = [\"b.out -> a.in\"]\n"
        "blocks.a.type = \"parts:Gain\"\n"
        "blocks.b.type = \"parts:Gain\"\n");

    ASSERT_EQ(graph.blocks.size(), 2U);
    for (std::size_t i = 0; i < 2; ++i) {
        EXPECT_EQ(graph.blocks[i].place.path, graph.network.nodes[i].path);
        EXPECT_EQ(graph.blocks[i].place.path, graph.network.nodes[i].block->get_name());
        EXPECT_EQ(graph.blocks[i].place.member->type, "parts:Gain");
    }
    EXPECT_EQ(graph.blocks[0].place.path, "b");
}

TEST(LoadGraph, GivesBlocksTheLastPartOfTheirPath)
{
    GraphFiles files;

    const LoadedGraph graph = files.load(
        "blocks.s.type = \"kind\"\nsuperblocks.kind.blocks.x.type = \"parts:Renamed\"\n");

    EXPECT_EQ(graph.network.nodes[0].path, "s/x");
    EXPECT_EQ(graph.network.nodes[0].block->get_name(), "x");
}

TEST(LoadGraph, LetsTheOutermostConfigurationWin)
{
    GraphFiles files;
    files.write("g.toml", "format = 1\n" + std::string(kNested) + kChannel);
    GraphOptions options = files.options();
    options.assignments = {"outer/right/gain.factor=4.5", "outer/right/gain.factor=5"};

    const LoadedGraph graph = load_graph(options);

    EXPECT_EQ(factor_of(graph, "outer/left/gain"), 3.0);
    EXPECT_EQ(factor_of(graph, "outer/left/fir"), 7.0);
    EXPECT_EQ(factor_of(graph, "outer/right/gain"), 5.0);
    EXPECT_EQ(factor_of(graph, "outer/right/fir"), 0.0);
}

TEST(LoadGraph, TellsWhereAValueComesFrom)
{
    GraphFiles files;
    files.write("g.toml", "format = 1\n" + std::string(kNested) + kChannel);
    GraphOptions options = files.options();
    options.assignments = {"outer/right/gain.factor=5"};

    const LoadedGraph graph = load_graph(options);

    const std::vector<SettingRef>& left = block_of(graph, "outer/left/gain").place.settings;
    ASSERT_EQ(left.size(), 1U);
    EXPECT_EQ(left[0].key(), "factor");
    EXPECT_EQ(left[0].setting->value_place.line, 5U);
    const std::vector<SettingRef>& right = block_of(graph, "outer/right/gain").place.settings;
    ASSERT_EQ(right.size(), 1U);
    EXPECT_TRUE(graph.reading->sources[right[0].setting->value_place.source].is_assignment);
}

TEST(LoadGraph, HandsDownWhatBecomesOfFailures)
{
    GraphFiles files;

    const LoadedGraph graph =
        files.load(std::string(kNested) + kChannel + "[blocks.plain]\ntype = \"parts:Late\"\n");

    EXPECT_FALSE(graph.network.nodes[index_of(graph, "plain")].skips_failures);
    EXPECT_FALSE(graph.network.nodes[index_of(graph, "outer/left/gain")].skips_failures);
    EXPECT_TRUE(graph.network.nodes[index_of(graph, "outer/right/gain")].skips_failures);
    const LoadedGraph other = files.load(
        "on_error = \"skip\"\nblocks.a.type = \"parts:Late\"\n"
        "blocks.b = { type = \"parts:Late\", on_error = \"stop\" }");
    EXPECT_TRUE(other.network.nodes[0].skips_failures);
    EXPECT_FALSE(other.network.nodes[1].skips_failures);
}

TEST(LoadGraph, MakesSuperblocksOfTheLibrary)
{
    GraphFiles files;

    const LoadedGraph graph = files.load(std::string(R"(
connections = ["source.out -> left.in"]
[blocks.source]
type = "parts:Ports"
config.outputs = ["out:double"]
[blocks.left]
type = "channel"
)") + kChannel);

    EXPECT_EQ(graph.superblock->get_name(), "g");
    Quorval::Container& left = graph.superblock->get_block("left");
    EXPECT_EQ(left.get_blocks().size(), 2U);
    EXPECT_EQ(left.get_inport("in").size(), 1U);
    EXPECT_EQ(left.get_outport("out").first.get_name(), "fir");
    const std::vector<Connection> connections = graph.superblock->get_connections();
    ASSERT_EQ(connections.size(), 2U);
    EXPECT_EQ(std::get<0>(connections[0]).get_name(), "gain");
    EXPECT_EQ(&std::get<2>(connections[1]), graph.network.nodes[1].block);
    EXPECT_EQ(std::get<3>(connections[1]), "in");
}

TEST(LoadGraph, GivesSuperblocksAllThatTheyExpose)
{
    GraphFiles files;

    const LoadedGraph graph = files.load(R"(
blocks.k.type = "kind"
[superblocks.kind]
inports = { one = "a.in", three = ["a.in", "b.in"], two = "b.in" }
outports = { first = "a.out", second = "b.out", third = "a.out" }
blocks.a.type = "parts:Gain"
blocks.b.type = "parts:Gain"
)");

    Quorval::Container& kind = graph.superblock->get_block("k");
    EXPECT_EQ(kind.get_inport("one").size(), 1U);
    EXPECT_EQ(kind.get_inport("two").size(), 1U);
    EXPECT_EQ(kind.get_inport("three").size(), 2U);
    EXPECT_EQ(kind.get_outport("first").first.get_name(), "a");
    EXPECT_EQ(kind.get_outport("second").first.get_name(), "b");
    EXPECT_EQ(kind.get_outport("third").first.get_name(), "a");
}

TEST(LoadGraph, MakesBlocksThatDeclareTheirSettings)
{
    GraphFiles files;

    const LoadedGraph graph = files.load(
        "blocks.a = { type = \"parts:Declared\", config.needed = 1 }\n"
        "blocks.b.type = \"parts:Late\"\n");

    const LoadedBlock& declared = block_of(graph, "a");
    EXPECT_NE(graph.network.nodes[index_of(graph, "a")].block, nullptr);
    ASSERT_NE(declared.declared, nullptr);
    EXPECT_EQ(declared.declared->size(), 3U);
    ASSERT_NE(declared.description, nullptr);
    EXPECT_EQ(declared.description->getString("settings.0.key"), "needed");
    EXPECT_EQ(block_of(graph, "b").declared, nullptr);
    EXPECT_EQ(block_of(graph, "b").description, nullptr);
}

TEST(LoadGraph, FeedsAllInputsBehindAnExposedOne)
{
    GraphFiles files;

    const LoadedGraph graph = files.load(R"(connections = ["s.out -> k.all"]
[blocks.s]
type = "parts:Ports"
config.outputs = ["out:double"]
[blocks.k]
type = "outer"
[superblocks.outer]
inports.all = ["inner.both", "inner.again"]
blocks.inner.type = "inner"
[superblocks.inner]
inports.both = ["a.in", "b.in"]
inports.again = ["b.in", "a.in"]
blocks.a.type = "parts:Gain"
blocks.b.type = "parts:Gain"
)");

    EXPECT_EQ(wires_of(graph), (Lines{"s.out -> k/inner/a.in", "s.out -> k/inner/b.in"}));
    EXPECT_EQ(graph.superblock->get_connections().size(), 2U);
}

TEST(LoadGraph, NamesInputsAsTheirBlocksDo)
{
    GraphFiles files;
    const LoadedGraph graph = files.load(R"(
connections = ["a.out -> b.in"]
blocks.a.type = "parts:Gain"
blocks.b.type = "parts:Leads"
)");

    EXPECT_EQ(wires_of(graph), (Lines{"a.out -> b.in"}));
}

TEST(LoadGraph, BearsExposedInputsThatMultiply)
{
    GraphFiles files;
    std::string text =
        "connections = [\"s.out -> k.a\"]\nblocks.k.type = \"k60\"\n"
        "blocks.s = { type = \"parts:Ports\", config.outputs = [\"out:double\"] }\n"
        "[superblocks.k0]\nblocks.x.type = \"parts:Gain\"\n"
        "inports = { a = \"x.in\", b = \"x.in\" }\n";
    for (int i = 1; i <= 60; ++i) {
        text += "[superblocks.k" + std::to_string(i) + "]\nblocks.x.type = \"k" +
                std::to_string(i - 1) +
                "\"\ninports = { a = [\"x.a\", \"x.b\"], b = [\"x.b\", \"x.a\"] }\n";
    }

    EXPECT_EQ(files.load(text).network.wires.size(), 1U);
}

TEST(LoadGraph, IsGivenUpWithoutFindingsWhenPatienceEnds)
{
    struct Impatient final : Quorval::runtime::IPatience {
        bool wait_readable(int /*fd*/) override { return false; }
    } impatient;
    const GraphFiles files;
    ASSERT_EQ(::mkfifo(files.path("g.toml").c_str(), S_IRUSR | S_IWUSR), 0);
    const int writer = ::open(files.path("g.toml").c_str(), O_RDWR | O_CLOEXEC);

    quorval_test::expect_throw<Quorval::GraphError>(
        [&] { load_graph(files.options(), &impatient); }, "");
    ::close(writer);
}

// --- plug-ins ---

TEST(LoadGraph, LoadsAPluginOnceAndKeepsItForItsBlocks)
{
    GraphFiles files;
    const LogRecorder log;
    const std::string file = test_plugin_directory() + "/parts.so";
    {
        const LoadedGraph graph =
            files.load("blocks.a.type = \"parts:Late\"\nblocks.b.type = \"parts:Late\"\n");
        EXPECT_EQ(log.texts(), (Lines{"DlLoader: Loaded library '" + file + "'."}));
    }

    EXPECT_EQ(log.texts(), (Lines{"DlLoader: Loaded library '" + file + "'.",
                                  "DlLoader: Unloaded library '" + file + "'."}));
}

TEST(LoadGraph, TakesBlocksWithoutTypeInformation)
{
    GraphFiles files;

    const LoadedGraph graph = files.load(
        "blocks.a.type = \"own_port_without_rtti:OwnPort\"\n"
        "blocks.b.type = \"own_port_without_rtti:OwnPort\"\n");

    EXPECT_EQ(paths_of(graph), (Lines{"a", "b"}));
}

TEST(LoadGraph, TakesTheFirstPluginOfAName)
{
    GraphFiles files;
    const ScopedEnvironment path("QUORVAL_PLUGIN_PATH",
                                 files.path("two") + ":" + files.path("one"));
    const ScopedEnvironment directory("QUORVAL_PLUGIN_DIR", files.path("three"));
    const std::string parts = test_plugin_directory() + "/parts.so";
    for (const std::string name : {"one", "two", "three", "given"}) {
        std::filesystem::create_directories(files.path(name));
    }
    const auto provide = [&](const std::string& name) {
        std::filesystem::copy_file(parts, files.path(name) + "/found.so");
    };
    const auto found_in = [&] {
        const LogRecorder log;
        files.write("g.toml", "format = 1\nblocks.a.type = \"found:Late\"");
        GraphOptions options = files.options();
        options.plugin_path = {files.path("given")};
        load_graph(options);
        return files.strip(log.texts().at(0));
    };

    provide("three");
    EXPECT_EQ(found_in(), "DlLoader: Loaded library 'three/found.so'.");
    provide("one");
    EXPECT_EQ(found_in(), "DlLoader: Loaded library 'one/found.so'.");
    provide("two");
    EXPECT_EQ(found_in(), "DlLoader: Loaded library 'two/found.so'.");
    provide("given");
    EXPECT_EQ(found_in(), "DlLoader: Loaded library 'given/found.so'.");
}

TEST(LoadGraph, LeavesTheEnvironmentAlone)
{
    GraphFiles files;
    const ScopedEnvironment directory("QUORVAL_PLUGIN_DIR", std::nullopt);

    files.load("blocks.a.type = \"parts:Late\"");

    EXPECT_EQ(std::getenv("QUORVAL_PLUGIN_DIR"), nullptr);
}

TEST(LoadGraph, TellsCreateFunctionsWhatTheyAreUsedFor)
{
    GraphFiles files;
    files.write("g.toml", "format = 1\nname = \"n\"\nblocks.a.type = \"parts:Tells\"");
    GraphOptions options = files.options();
    options.is_dry = true;

    EXPECT_EQ(files.findings(options),
              (Lines{"g.toml:3:17: error: block 'a' cannot be created: a in n, dry"}));
}

TEST(LoadGraph, TellsTheSinkOfMessagesWhichGraphTheyAreOf)
{
    struct Sink : Quorval::LogInstance {
        explicit Sink(std::set<std::string>& seen) : LogInstance(LOGLEVEL_INFO), names(seen) {}
        void emit(loglevel /*level*/, const char* /*text*/, int /*length*/) override
        {
            names.insert(loading_graph() == nullptr ? "" : loading_graph());
        }
        std::set<std::string>& names;
    };
    std::set<std::string> names;
    const LogRecorder recorder;  // puts the former sink back
    Quorval::loginstance = std::make_unique<Sink>(names);
    GraphFiles files;

    files.load("blocks.a.type = \"parts:Late\"\nname = \"n\"\n");

    EXPECT_EQ(names.count("n"), 1U);
    EXPECT_EQ(loading_graph(), nullptr);
}

TEST(LoadGraph, KeepsStandardOutputFreeWhenItIsDry)
{
    GraphFiles files;
    files.write("g.toml",
                "format = 1\nblocks.a.type = \"parts:Prints\"\n"
                "blocks.b.type = \"parts:Throws\"\n");
    GraphOptions options = files.options();
    options.is_dry = true;

    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    files.findings(options);

    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "printed by a block\nprinted at the end\n");
}

// --- state ---

TEST(LoadGraph, GivesEachBlockADirectoryForItsState)
{
    GraphFiles files;
    const std::string state = files.path("some/state");
    files.write("g.toml",
                "format = 1\nblocks.s.type = \"kind\"\n"
                "superblocks.kind.blocks.x.type = \"parts:Stores\"\n");
    GraphOptions options = files.options();
    options.state_directory = state + "/";

    const LoadedGraph graph = load_graph(options);

    EXPECT_EQ(graph.blocks[0].state_directory, state + "/s.x/");
    EXPECT_EQ(graph.blocks[0].config.getString("pstore_path"), state + "/s.x/");
    EXPECT_EQ(graph.network.nodes[0].block->pstore().get_path(), state + "/s.x/");
    EXPECT_EQ(mode_of(state + "/s.x"), 0700U);
    EXPECT_EQ(mode_of(state), 0700U);
    EXPECT_EQ(mode_of(files.path("some")), 0700U);
}

TEST(LoadGraph, TakesTheStateDirectoryOfTheService)
{
    GraphFiles files;
    const ScopedEnvironment environment("STATE_DIRECTORY",
                                        files.path("first") + ":" + files.path("second"));

    EXPECT_EQ(files.load("blocks.x.type = \"parts:Stores\"").blocks[0].state_directory,
              files.path("first") + "/x/");
}

TEST(LoadGraph, HasNoStateWithoutADirectory)
{
    GraphFiles files;
    const ScopedEnvironment environment("STATE_DIRECTORY", std::nullopt);

    const LoadedGraph graph = files.load("blocks.x.type = \"parts:Stores\"");

    EXPECT_EQ(graph.blocks[0].state_directory, "");
    EXPECT_TRUE(graph.blocks[0].config.is_consumed());
}

TEST(LoadGraph, LeavesAStoreThatTheFileSets)
{
    GraphFiles files;
    files.write("g.toml",
                "format = 1\nblocks.x = { type = \"parts:Stores\", "
                "config.pstore_path = \"/of/the/file/\" }\n");
    GraphOptions options = files.options();
    options.state_directory = files.path("state");

    const LoadedGraph graph = load_graph(options);

    EXPECT_EQ(graph.network.nodes[0].block->pstore().get_path(), "/of/the/file/");
    EXPECT_FALSE(std::filesystem::exists(files.path("state")));
}

TEST(LoadGraph, DoesNotReportItsOwnKeyAsUnread)
{
    GraphFiles files;
    files.write("g.toml",
                "format = 1\nblocks.x = { type = \"parts:Late\", config = { a = 1, z = 2 } }");
    GraphOptions options = files.options();
    options.state_directory = files.path("state");

    EXPECT_EQ(files.findings(options),
              (Lines{"g.toml:2:46: warning: key 'a' is not read by block 'x'",
                     "g.toml:2:53: warning: key 'z' is not read by block 'x'"}));
    files.write("g.toml", "format = 1\nblocks.x = { type = \"parts:Late\", config.late = 1 }");
    EXPECT_EQ(files.findings(options), Lines());
}

TEST(LoadGraph, MakesNothingOnDiskWhenItIsDry)
{
    GraphFiles files;
    files.write("g.toml", "format = 1\nblocks.x.type = \"parts:Stores\"\n");
    GraphOptions options = files.options();
    options.state_directory = files.path("state");
    options.is_dry = true;

    const LoadedGraph graph = load_graph(options);

    EXPECT_EQ(graph.blocks[0].state_directory, files.path("state") + "/x/");
    EXPECT_FALSE(std::filesystem::exists(files.path("state")));
}

TEST(LoadGraph, TellsWhyADirectoryCannotBeMade)
{
    GraphFiles files;
    files.write("file", "");
    files.write("g.toml", "format = 1\nblocks.x.type = \"parts:Stores\"\n");
    GraphOptions options = files.options();
    options.state_directory = files.path("file");

    EXPECT_EQ(files.findings(options),
              (Lines{"g.toml:2:17: error: block 'x' cannot be created: file: Not a directory"}));
}
