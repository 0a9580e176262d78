// Right graphs with one fault: it is found where it is, and nothing else is.
#include "runtime/graph/single_faults.h"

#include "plugins/search.h"
#include "runtime/graph/written_graph.h"
#include "runtime/support/graph_files.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

using quorval_test::ExpectedLine;
using quorval_test::GraphFiles;
using quorval_test::GraphNotes;
using quorval_test::kWrittenKey;
using quorval_test::Part;
using quorval_test::single_faults;
using quorval_test::SingleFault;
using quorval_test::Style;
using quorval_test::WrittenGraph;

using Lines = std::vector<std::string>;

namespace {

/// Superblocks in superblocks, one of them used twice and one not at all.
constexpr const char* kNested = R"(--- g.toml
format = 1
name = "loudness"
on_error = "skip"
connections.0 = "source.out -> left.in"
connections.1.from = "source.out"
connections.1.to = "right.in"
connections.1.delivery = "latest"
connections.2 = "left.out -> sink.level"
connections.3.to = "source.again"
connections.3.delayed = true
connections.3.from = "sink.peak"
blocks.source.type = "parts:Ports"
blocks.source.config.outputs = ["out:double", "count:int32"]
blocks.source.config.inputs = ["again:double"]
blocks.left.type = "channel"
blocks.left.config.deep.second.factor = 0.5
blocks.right.config.deep.first.factor = 0.5
blocks.right.type = "channel"
blocks.sink.on_error = "stop"
blocks.sink.type = "parts:Ports"
blocks.sink.config.inputs = ["level:double"]
blocks.sink.config.outputs = ["peak:double"]
superblocks.channel.connections.0 = "gain.out -> deep.in"
superblocks.channel.inports.in.0 = "gain.in"
superblocks.channel.outports.out = "deep.out"
superblocks.channel.blocks.gain.type = "parts:Gain"
superblocks.channel.blocks.gain.config.factor = 1.0
superblocks.channel.blocks.deep.type = "inner"
superblocks.inner.inports.in.0 = "first.in"
superblocks.inner.inports.in.1 = "second.in"
superblocks.inner.outports.out = "first.out"
superblocks.inner.blocks.first.type = "parts:Gain"
superblocks.inner.blocks.second.type = "parts:Gain"
superblocks.inner.blocks.second.on_error = "stop"
superblocks.spare.connections.0 = "alone.out -> alone.in"
superblocks.spare.inports.in = "alone.in"
superblocks.spare.blocks.alone.type = "parts:Gain"
superblocks.spare.blocks.alone.config.factor = 2
)";

/// Several files that have the same tables.
constexpr const char* kSeveralFiles = R"(--- g.toml
format = 1
include.0 = "kinds.toml"
connections.0 = "source.out -> middle.in"
connections.1 = "middle.out -> sink.in"
blocks.source.type = "parts:Ports"
blocks.source.config.outputs = ["out:double"]
blocks.middle.type = "pair"
superblocks.single.inports.in = "gain.in"
superblocks.single.outports.out = "gain.out"
superblocks.single.blocks.gain.type = "parts:Gain"
--- kinds.toml
format = 1
connections.0 = "source.out -> other.in"
blocks.sink.type = "parts:Gain"
blocks.other.type = "single"
superblocks.pair.connections.0 = "front.out -> behind.in"
superblocks.pair.inports.in = "front.in"
superblocks.pair.outports.out = "behind.out"
superblocks.pair.blocks.front.type = "single"
superblocks.pair.blocks.behind.type = "single"
)";

/// Machines, a link, and settings that are declared.
constexpr const char* kMachines = R"(--- g.toml
format = 1
name = "meter"
connections.0.from = "source.out"
connections.0.to = "sink.in"
connections.0.delivery = "all"
machines.edge = {}
machines.server = {}
link.broker = "mqtts://localhost:8883"
link.ca = "ca.pem"
link.cert = "cert.pem"
link.key = "key.pem"
link.user = "meter"
link.password_file = "secret"
link.queue = 100
link.limit = 1000
blocks.source.type = "parts:Ports"
blocks.source.machine = "edge"
blocks.source.config.outputs = ["out:double"]
blocks.sink.machine = "server"
blocks.sink.type = "parts:Gain"
blocks.known.type = "parts:Declared"
blocks.known.machine = "server"
blocks.known.config.needed = 3
blocks.known.config.taps = [0.5, 1]
blocks.known.config.mode = "down"
)";

const std::vector<std::pair<Style, const char*>> kStyles = {
    {Style::Dotted, "dotted keys"}, {Style::Headers, "headers"}, {Style::Inline, "inline tables"}};

class SingleFaults : public testing::Test {
protected:
    /// What is found in a graph, in the order of bytes.
    Lines find(const std::vector<std::pair<std::string, std::string>>& texts)
    {
        for (const auto& [file, text] : texts) {
            files_.write(file, text);
        }
        Quorval::GraphOptions options = files_.options();
        options.is_dry = true;
        options.keeps_plugins = true;
        Lines lines = files_.findings(options);
        std::sort(lines.begin(), lines.end());
        return lines;
    }

    static std::string line_of(const WrittenGraph& graph, const ExpectedLine& line)
    {
        const std::string file = line.part.substr(0, line.part.find(':') + 1);
        if (line.at == ExpectedLine::At::Begin) {
            return file + "1:1: " + line.text;
        }
        const Part& part = graph.at(line.part);
        std::string text = line.text;
        const std::size_t at = text.find(kWrittenKey);
        if (at != std::string::npos) {
            text.replace(at, std::string(kWrittenKey).size(), part.written_key);
        }
        return file + (line.at == ExpectedLine::At::Key ? part.key_spot : part.value_spot) + ": " +
               text;
    }

    void expect_lines(const SingleFault& fault, WrittenGraph graph, Style style)
    {
        fault.make(graph);
        const auto texts = graph.write(style);
        Lines expected;
        for (const ExpectedLine& line : fault.lines) {
            expected.push_back(line_of(graph, line));
        }
        std::sort(expected.begin(), expected.end());
        expected.erase(std::unique(expected.begin(), expected.end()), expected.end());
        std::string shown;
        for (const auto& [file, text] : texts) {
            shown += "--- " + file + "\n" + text;
        }
        EXPECT_EQ(find(texts), expected) << fault.name << "\n" << shown;
    }

    void expect_all(const std::string& text, GraphNotes notes)
    {
        WrittenGraph right(text);
        for (const std::string& directory :
             Quorval::runtime::plugin_directories({quorval_test::test_plugin_directory()})) {
            notes.plugin_directories += (notes.plugin_directories.empty() ? "" : ":") + directory;
        }
        notes.types =
            "Composite, Declared, Empty, Gain, Late, Leads, Null, Once, Ports, Prints, Renamed, "
            "Stores, Tells, Throws, ThrowsANumber, ThrowsInSetup, ThrowsItsOwn";
        const std::vector<SingleFault> faults = single_faults(right, notes);
        EXPECT_GT(faults.size(), 200U);
        for (const auto& [style, name] : kStyles) {
            SCOPED_TRACE(name);
            EXPECT_EQ(find(right.write(style)), Lines());
            for (const SingleFault& fault : faults) {
                expect_lines(fault, right, style);
            }
        }
    }

    GraphFiles files_;
};

TEST_F(SingleFaults, OfNestedSuperblocksAreFoundAlone)
{
    GraphNotes notes;
    notes.cycles["g.toml:connections.3"] = {
        "g.toml:superblocks.channel.connections.0",
        "left/gain -> left/deep/first -> sink -> source -> left/gain"};
    expect_all(kNested, notes);
}

TEST_F(SingleFaults, OfSeveralFilesAreFoundAlone)
{
    expect_all(kSeveralFiles, {});
}

TEST_F(SingleFaults, OfMachinesAndSettingsAreFoundAlone)
{
    expect_all(kMachines, {});
}

}  // namespace
