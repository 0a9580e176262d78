// What a graph shows of itself.
#include "graph/infos.h"

#include "runtime/support/graph_files.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <string>
#include <vector>

namespace {

using Quorval::BlockInfo;
using Quorval::ConnectionInfo;
using Quorval::runtime::load_graph;
using Quorval::runtime::LoadedGraph;
using quorval_test::GraphFiles;

using Types = std::map<std::string, std::string>;

TEST(Infos, TellWhatBlocksAreAndHowTheyAreConnected)
{
    GraphFiles files;
    files.write("g.toml", R"(format = 1
connections = ["s.out -> k.in", { from = "k.out", to = "s.back", delayed = true }]
machines.hub = {}
[blocks.s]
type = "parts:Ports"
machine = "hub"
config = { inputs = ["back:double"], outputs = ["out:double", "other:int32"] }
[blocks.k]
type = "kind"
machine = "hub"
config.g.factor = 2.5
[superblocks.kind]
blocks.g.type = "parts:Gain"
inports.in = "g.in"
outports.out = "g.out"
)");
    Quorval::GraphOptions options = files.options();
    options.is_local = true;
    const LoadedGraph graph = load_graph(options);

    const BlockInfo source = block_info(graph, 0);
    EXPECT_EQ(source.path, "s");
    EXPECT_EQ(source.type, "parts:Ports");
    EXPECT_EQ(source.inports, (Types{{"back", "double"}}));
    EXPECT_EQ(source.outports, (Types{{"other", "int32"}, {"out", "double"}}));
    EXPECT_EQ(source.fdports, Types());
    EXPECT_EQ(source.machine, "hub");
    const BlockInfo gain = block_info(graph, 1);
    EXPECT_EQ(gain.path, "k/g");
    EXPECT_EQ(gain.config.getDouble("factor"), 2.5);

    const std::vector<ConnectionInfo> infos = connection_infos(graph);
    ASSERT_EQ(infos.size(), 2U);
    std::vector<std::string> texts;
    for (const ConnectionInfo& info : infos) {
        texts.push_back(info.from_path + "." + info.output + (info.is_delayed ? " ~> " : " -> ") +
                        info.to_path + "." + info.input + " " + info.type);
    }
    std::sort(texts.begin(), texts.end());
    EXPECT_EQ(texts,
              (std::vector<std::string>{"k/g.out ~> s.back double", "s.out -> k/g.in double"}));
}

}  // namespace
