// Graphs of several machines: what can be wrong with them, and how they are cut.
#include "runtime/support/graph_files.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <stdexcept>

using Quorval::GraphOptions;
using Quorval::runtime::Entry;
using Quorval::runtime::Exit;
using Quorval::runtime::load_graph;
using Quorval::runtime::LoadedGraph;
using Quorval::runtime::Node;
using quorval_test::expect_throw;
using quorval_test::GraphFiles;

using Lines = std::vector<std::string>;

namespace {

constexpr const char* kGraph = R"(format = 1
connections = [
    { from = "source.out", to = "left.in", delivery = "all" },
    "left.out -> sink.in",
    "source.out -> sink.other",
]
machines = { edge = {}, hub = {} }
link.broker = "mqtt://localhost"
blocks.source = { type = "parts:Ports", machine = "edge", config.outputs = ["out:double"] }
blocks.left = { type = "channel", machine = "hub" }
blocks.sink = { type = "parts:Ports", machine = "hub", config.inputs = ["in:double", "other:double"] }
[superblocks.channel]
connections = ["a.out -> b.in"]
inports.in = "a.in"
outports.out = "b.out"
blocks.a.type = "parts:Gain"
blocks.b.type = "parts:Gain"
)";

LoadedGraph load_part(GraphFiles& files, const std::string& machine)
{
    files.write("g.toml", kGraph);
    GraphOptions options = files.options();
    options.machine = machine;
    return load_graph(options);
}

std::vector<std::string> paths_of(const LoadedGraph& graph)
{
    std::vector<std::string> paths;
    for (const Node& node : graph.network.nodes) {
        paths.push_back(node.path);
    }
    return paths;
}

/// What checking finds in a text that stands from line 2 on.
Lines check(const std::string& text)
{
    GraphFiles files;
    files.write("g.toml", "format = 1\n" + text);
    GraphOptions options = files.options();
    options.is_dry = true;
    return files.findings(options);
}

/// The same for a text from line 3 on, of a graph of two machines.
Lines findings_for(const std::string& text)
{
    return check("machines = { edge = {}, hub = {} }\n" + text);
}

}  // namespace

TEST(Machines, KeepTheBlocksOfOne)
{
    GraphFiles files;

    const LoadedGraph edge = load_part(files, "edge");

    EXPECT_EQ(paths_of(edge), Lines{"source"});
    EXPECT_TRUE(edge.network.wires.empty());
    EXPECT_TRUE(edge.network.entries.empty());
    ASSERT_EQ(edge.network.exits.size(), 1U);
    const Exit& exit = edge.network.exits.front();
    EXPECT_EQ(exit.port, "out");
    EXPECT_TRUE(exit.keeps_all);
}

TEST(Machines, TakeInWhatOthersSend)
{
    GraphFiles files;

    const LoadedGraph hub = load_part(files, "hub");

    EXPECT_EQ(paths_of(hub), (Lines{"left/a", "left/b", "sink"}));
    EXPECT_EQ(hub.network.wires.size(), 2U);
    EXPECT_TRUE(hub.network.exits.empty());
    ASSERT_EQ(hub.network.entries.size(), 1U);
    const Entry& entry = hub.network.entries.front();
    EXPECT_EQ(entry.path, "source");
    EXPECT_EQ(entry.port, "out");
    EXPECT_TRUE(entry.keeps_all);
    ASSERT_EQ(hub.network.entry_wires.size(), 2U);
    EXPECT_EQ(hub.network.entry_wires[0].to, 0U);
    EXPECT_EQ(hub.network.entry_wires[1].to, 2U);
    EXPECT_TRUE(hub.warnings.empty());
}

TEST(Machines, AreOneGraphWhereNoneIsNamed)
{
    GraphFiles files;
    files.write("g.toml", kGraph);
    GraphOptions options = files.options();
    options.is_local = true;

    const LoadedGraph graph = load_graph(options);

    EXPECT_EQ(paths_of(graph), (Lines{"source", "left/a", "left/b", "sink"}));
    EXPECT_EQ(graph.network.wires.size(), 4U);
    EXPECT_TRUE(graph.network.exits.empty());
}

TEST(Machines, HaveToBeNamedToRun)
{
    GraphFiles files;
    files.write("g.toml", kGraph);
    GraphOptions options = files.options();

    expect_throw<std::invalid_argument>(
        [&] { load_graph(options); },
        "one of the machines edge, hub has to be named with --machine, or --local be given");
    options.machine = "hup";
    expect_throw<std::invalid_argument>([&] { load_graph(options); },
                                        "there is no machine 'hup'; did you mean 'hub'?");
}

TEST(MachineProblems, AreFoundInTheFile)
{
    EXPECT_EQ(findings_for("blocks.a.type = \"parts:Late\""),
              Lines{"g.toml:3:8: error: block 'a' has no machine"});
    EXPECT_EQ(findings_for("blocks.a = { type = \"parts:Late\", machine = \"hup\" }"),
              Lines{"g.toml:3:45: error: there is no machine 'hup'; did you mean 'hub'?"});
    EXPECT_EQ(findings_for("blocks.a = { type = \"parts:Late\", machine = 3 }"),
              Lines{"g.toml:3:45: error: 'machine' has to be a string"});
    EXPECT_EQ(findings_for("superblocks.k.blocks.a = { type = \"parts:Late\", machine = \"hub\" }"),
              Lines{"g.toml:3:49: error: unknown key 'machine'"});
}

TEST(MachineProblems, AreFoundInTheListOfMachines)
{
    EXPECT_EQ(check("machines = 1"), Lines{"g.toml:2:12: error: 'machines' has to be a table"});
    EXPECT_EQ(check("machines.a = 1"), Lines{"g.toml:2:14: error: 'a' has to be a table"});
    EXPECT_EQ(check("machines.a.host = 1"), Lines{"g.toml:2:12: error: unknown key 'host'"});
    EXPECT_EQ(
        check("machines.\"a b\" = {}"),
        Lines{"g.toml:2:10: error: 'a b' is not a valid name (letters, digits, '_' and '-')"});
    EXPECT_EQ(check("blocks.a = { type = \"parts:Late\", machine = \"hub\" }"),
              Lines{"g.toml:2:45: error: there is no machine 'hub'"});
}

TEST(MachineProblems, AreFoundInTheLink)
{
    EXPECT_EQ(findings_for("link = 1"), Lines{"g.toml:3:8: error: 'link' has to be a table"});
    EXPECT_EQ(findings_for("link.brocker = \"\""),
              Lines{"g.toml:3:6: error: unknown key 'brocker'; did you mean 'broker'?"});
    EXPECT_EQ(findings_for("link.queue = 0"),
              Lines{"g.toml:3:14: error: 'queue' has to be from 1 to 1000000000, not 0"});
    EXPECT_EQ(findings_for("link.limit = 300000000"),
              Lines{"g.toml:3:14: error: 'limit' has to be from 1 to 268000000, not 300000000"});
    EXPECT_EQ(findings_for("link.ca = 1"), Lines{"g.toml:3:11: error: 'ca' has to be a string"});
    EXPECT_EQ(findings_for("[link]\ncert = \"a\""), Lines{"g.toml:3:2: error: missing key 'key'"});
    EXPECT_EQ(findings_for("[link]\nkey = \"a\""), Lines{"g.toml:3:2: error: missing key 'cert'"});
    EXPECT_EQ(findings_for("[link]\npassword_file = \"a\""),
              Lines{"g.toml:3:2: error: missing key 'user'"});
    EXPECT_EQ(findings_for("link.broker = \"http://a\""),
              Lines{"g.toml:3:15: error: 'http://a' is not of the form mqtt://HOST:PORT or "
                    "mqtts://HOST:PORT"});
}

TEST(MachineProblems, AreTypesThatCannotLeave)
{
    const std::string text = R"(connections = ["a.out -> b.in"]
blocks.a = { type = "parts:Ports", machine = "edge", config.outputs = ["out:odd"] }
blocks.b = { type = "parts:Ports", machine = "hub", config.inputs = ["in:odd"] }
link.broker = "mqtt://localhost"
)";
    const Lines expected = {"g.toml:3:16: error: there is no codec for odd"};
    GraphFiles files;
    files.write("g.toml", "format = 1\nmachines = { edge = {}, hub = {} }\n" + text);
    GraphOptions options = files.options();

    EXPECT_EQ(findings_for(text), expected);
    for (const char* machine : {"edge", "hub"}) {
        options.machine = machine;
        EXPECT_EQ(files.findings(options), expected) << machine;
    }
    options.machine.clear();
    options.is_local = true;
    EXPECT_EQ(files.findings(options), Lines{});
}

TEST(MachineProblems, AreFoundBetweenThem)
{
    GraphFiles files;
    files.write("g.toml", R"(format = 1
connections = ["a.out -> b.in", "c.out -> b.in"]
machines = { edge = {}, hub = {} }
link.broker = "mqtt://localhost"
blocks.a = { type = "parts:Gain", machine = "edge" }
blocks.b = { type = "parts:Gain", machine = "hub" }
blocks.c = { type = "parts:Gain", machine = "edge" }
)");
    GraphOptions options = files.options();
    options.machine = "hub";

    EXPECT_EQ(files.findings(options), Lines{"g.toml:2:33: error: b.in is already fed by a.out"});
}

TEST(MachineProblems, AreConnectionsWithoutALink)
{
    GraphFiles files;
    files.write("g.toml", R"(format = 1
connections = ["a.out -> b.in"]
machines = { edge = {}, hub = {} }
blocks.a = { type = "parts:Gain", machine = "edge" }
blocks.b = { type = "parts:Gain", machine = "hub" }
)");
    GraphOptions options = files.options();
    options.machine = "hub";

    EXPECT_EQ(files.findings(options), Lines{"g.toml:1:1: error: missing key 'link.broker'"});
}

namespace {

/// A connection from one machine to another, and a text from line 6 on.
Lines findings_of_two_machines(const std::string& text, const std::string& machine = "")
{
    GraphFiles files;
    files.write("g.toml", R"(format = 1
connections = ["a.out -> b.in"]
machines = { edge = {}, hub = {}, attic = {} }
blocks.a = { type = "parts:Gain", machine = "edge" }
blocks.b = { type = "parts:Gain", machine = "hub" }
)" + text);
    GraphOptions options = files.options();
    options.is_dry = true;
    options.machine = machine;
    Lines lines = files.findings(options);
    lines.erase(
        std::remove(lines.begin(), lines.end(), "g.toml:4:8: warning: a.in is not connected"),
        lines.end());
    return lines;
}

}  // namespace

TEST(MachineProblems, AreBrokersThatAreMissingInALink)
{
    const Lines missing = {"g.toml:6:2: error: missing key 'broker'"};

    for (const char* machine : {"", "edge", "hub"}) {
        EXPECT_EQ(findings_of_two_machines("[link]\nqueue = 2\n", machine), missing) << machine;
    }
    EXPECT_EQ(findings_of_two_machines("[link]\n", "attic"), Lines{});
}

TEST(MachineProblems, AreBrokersThatAreMissingInALinkOfTheFirstLine)
{
    GraphFiles files;
    files.write("g.toml", R"(link.queue = 2
format = 1
connections = ["a.out -> b.in"]
machines = { edge = {}, hub = {} }
blocks.a = { type = "parts:Gain", machine = "edge" }
blocks.b = { type = "parts:Gain", machine = "hub" }
)");
    GraphOptions options = files.options();
    options.machine = "hub";

    EXPECT_EQ(files.findings(options), Lines{"g.toml:1:1: error: missing key 'broker'"});
}

TEST(MachineProblems, AreConnectionsWithoutALinkInTheWholeToo)
{
    EXPECT_EQ(findings_of_two_machines(""), Lines{"g.toml:1:1: error: missing key 'link.broker'"});
}

TEST(MachineProblems, OfBrokersComeWithErrorsThatHaveNothingToDoWithThem)
{
    EXPECT_EQ(findings_of_two_machines("unknown = 1\n[link]\n", "hub"),
              (Lines{"g.toml:6:1: error: unknown key 'unknown'",
                     "g.toml:7:2: error: missing key 'broker'"}));
    EXPECT_EQ(findings_of_two_machines("[link]\nqueue = 0\n", "hub"),
              (Lines{"g.toml:6:2: error: missing key 'broker'",
                     "g.toml:7:9: error: 'queue' has to be from 1 to 1000000000, not 0"}));
}

TEST(MachineProblems, HideBrokersThatAreMissingBecauseOfThem)
{
    for (const char* machine : {"", "hub"}) {
        SCOPED_TRACE(machine);
        EXPECT_EQ(findings_of_two_machines("[link]\nbroker = 1\n", machine),
                  Lines{"g.toml:7:10: error: 'broker' has to be a string"});
        EXPECT_EQ(findings_of_two_machines("[link]\nbrokr = \"mqtt://a\"\n", machine),
                  Lines{"g.toml:7:1: error: unknown key 'brokr'; did you mean 'broker'?"});
        EXPECT_EQ(findings_of_two_machines("[link]\n[lnk]\nbroker = \"mqtt://a\"\n", machine),
                  Lines{"g.toml:7:2: error: unknown key 'lnk'; did you mean 'link'?"});
        EXPECT_EQ(findings_of_two_machines("link = 1\n", machine),
                  Lines{"g.toml:6:8: error: 'link' has to be a table"});
    }
    EXPECT_EQ(check(R"(connections = ["a.out -> b.in", "b.out -> a.in"]
machines.hub = {}
blocks.a = { type = "parts:Gain", machine = "hup" }
blocks.b = { type = "parts:Late", machine = "hub", config.x = [] }
)"),
              (Lines{"g.toml:4:45: error: there is no machine 'hup'; did you mean 'hub'?",
                     "g.toml:5:63: error: 'x' is an empty list"}));
}

TEST(Machines, KeepAllValuesOfThoseConnectionsAlone)
{
    for (const std::string delivery : {"latest", "all"}) {
        GraphFiles files;
        files.write("g.toml", R"(format = 1
connections = [{ from = "a.out", to = "b.in", delivery = ")" +
                                  delivery + R"(" }, "a.out -> c.in"]
machines = { edge = {}, hub = {} }
link.broker = "mqtt://localhost"
blocks.a = { type = "parts:Gain", machine = "edge" }
blocks.b = { type = "parts:Gain", machine = "hub" }
blocks.c = { type = "parts:Gain", machine = "hub" }
)");
        GraphOptions options = files.options();
        options.machine = "edge";
        const LoadedGraph edge = load_graph(options);
        ASSERT_EQ(edge.network.exits.size(), 1U);
        EXPECT_EQ(edge.network.exits[0].keeps_all, delivery == "all");
        options.machine = "hub";
        const LoadedGraph hub = load_graph(options);
        ASSERT_EQ(hub.network.entries.size(), 1U);
        EXPECT_EQ(hub.network.entries[0].keeps_all, delivery == "all");
    }
}

TEST(Machines, LeaveOutSuperblocksOfOthers)
{
    GraphFiles files;
    files.write("g.toml", R"(format = 1
machines = { edge = {}, hub = {} }
blocks.a = { type = "kind", machine = "edge" }
blocks.b = { type = "outer", machine = "hub" }
blocks.c = { type = "kind", machine = "edge" }
[superblocks.outer]
blocks.k.type = "kind"
[superblocks.kind]
connections = ["x.out -> y.in"]
blocks.x.type = "parts:Gain"
blocks.y.type = "parts:Gain"
)");
    GraphOptions options = files.options();
    options.machine = "hub";

    const LoadedGraph hub = load_graph(options);

    EXPECT_EQ(paths_of(hub), (Lines{"b/k/x", "b/k/y"}));
    Quorval::Container& outer = hub.superblock->get_block("b");
    EXPECT_EQ(hub.superblock->get_blocks().size(), 2U);
    EXPECT_EQ(outer.get_blocks().size(), 2U);
}

TEST(MachineProblems, DoNotHideThemselvesInTypesThatCannotLeave)
{
    const auto findings = [](const std::string& from, const std::string& to) {
        return findings_for(
            "connections = [\"a.out -> b.in\"]\nlink.broker = \"mqtt://localhost\"\n"
            "blocks.a = { type = \"parts:Ports\"" +
            from +
            ", config.outputs = [\"out:odd\"] }\n"
            "blocks.b = { type = \"parts:Ports\"" +
            to + ", config.inputs = [\"in:odd\"] }\n");
    };
    const std::string edge = ", machine = \"edge\"";

    EXPECT_EQ(findings(edge, edge), Lines{});
    EXPECT_EQ(findings(edge, ""), Lines{"g.toml:6:8: error: block 'b' has no machine"});
    EXPECT_EQ(findings("", edge), Lines{"g.toml:5:8: error: block 'a' has no machine"});
}
