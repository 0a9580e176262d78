// A graph file becomes blocks.
#include <gtest/gtest.h>

#include "runtime/support/graph_files.h"

using Quorval::GraphOptions;
using Quorval::runtime::LoadedBlock;
using Quorval::runtime::LoadedGraph;
using Quorval::runtime::Node;
using Quorval::runtime::Wire;
using quorval_test::GraphFiles;

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
                        "." + wire.input->get_name());
    }
    return wires;
}

const LoadedBlock& block_of(const LoadedGraph& graph, const std::string& path)
{
    for (const LoadedBlock& block : graph.blocks) {
        if (block.place.path == path) {
            return block;
        }
    }
    throw std::out_of_range(path);
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
    EXPECT_EQ(block_of(graph, "left/gain").config.getDouble("factor"), 0.5);
    EXPECT_EQ(block_of(graph, "right/gain").config.getDouble("factor"), 1.0);
    EXPECT_EQ(graph.warnings.size(), 0U);
}
