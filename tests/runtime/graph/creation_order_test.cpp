// Blocks are made in the order in which they run.
#include "graph/creation_order.h"

#include "runtime/support/graph_files.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

using quorval_test::GraphFiles;
using quorval_test::LogRecorder;

using Lines = std::vector<std::string>;

namespace {

/// The names of the blocks of the type Gain, in the order in which they were made, and as they run.
struct Orders {
    explicit Orders(const std::string& text)
    {
        GraphFiles files;
        const LogRecorder log;
        const auto graph = files.load(text);
        for (const std::string& line : log.texts()) {
            if (line.rfind("made ", 0) == 0) {
                made.push_back(line.substr(5));
            }
        }
        for (const auto& node : graph.network.nodes) {
            run.push_back(node.block->get_name());
        }
    }

    Lines made;
    Lines run;
};

TEST(CreationOrder, IsThatOfTheRunWhateverTheNames)
{
    const Orders orders(R"(
connections = ["c.out -> a.in", "a.out -> d.in", "d.out -> b.in"]
blocks.a.type = "parts:Gain"
blocks.b.type = "parts:Gain"
blocks.c.type = "parts:Gain"
blocks.d.type = "parts:Gain"
)");

    EXPECT_EQ(orders.made, (Lines{"c", "a", "d", "b"}));
    EXPECT_EQ(orders.made, orders.run);
}

TEST(CreationOrder, GoesThroughSuperblocks)
{
    const Orders orders(R"(
connections = ["z.out -> m.in", "m.out -> a.in", { from = "a.out", to = "y.in", delayed = true }]
blocks.a.type = "parts:Gain"
blocks.m.type = "outer"
blocks.y.type = "parts:Gain"
blocks.z.type = "parts:Gain"
[superblocks.outer]
connections = ["inner.out -> b.in"]
inports.in = ["inner.in"]
outports.out = "b.out"
blocks.b.type = "parts:Gain"
blocks.inner.type = "inner"
[superblocks.inner]
connections = ["q.out -> p.in"]
inports.in = "q.in"
outports.out = "p.out"
blocks.p.type = "parts:Gain"
blocks.q.type = "parts:Gain"
)");

    EXPECT_EQ(orders.made, (Lines{"y", "z", "q", "p", "b", "a"}));
    EXPECT_EQ(orders.made, orders.run);
}

TEST(CreationOrder, HasWhatWaitsForACycleAtTheEnd)
{
    GraphFiles files;
    const LogRecorder log;

    files.findings_for(R"(
connections = ["a.out -> b.in", "b.out -> a.in"]
blocks.a.type = "parts:Gain"
blocks.b.type = "parts:Gain"
blocks.c.type = "parts:Gain"
)");

    // Behind the line about the plug-in.
    EXPECT_EQ(log.texts().at(1), "made c");
    EXPECT_EQ(log.texts().at(2), "made a");
    EXPECT_EQ(log.texts().at(3), "made b");
}

/// The order in which `a` and `z` are made, where `z` feeds `a` behind so many connections that are
/// wrong, of 64 wires each. There are 67 blocks.
Lines order_behind(std::size_t connections)
{
    std::string text = "connections = [";
    for (std::size_t i = 0; i < connections; ++i) {
        text += "\"s.out -> k.in\",";
    }
    text +=
        "\"z.out -> a.in\"]\nblocks.a.type = \"parts:Gain\"\nblocks.z.type = \"parts:Gain\"\n"
        "blocks.s.type = \"parts:Gain\"\nblocks.k.type = \"kind\"\n[superblocks.kind]\n"
        "inports.in = [";
    std::string blocks;
    for (std::size_t i = 0; i < 64; ++i) {
        text += "\"g" + std::to_string(i) + ".in\",";
        blocks += "blocks.g" + std::to_string(i) + ".type = \"parts:Gain\"\n";
    }
    // Named twice, they are fed once.
    text += "\"g0.in\",\"g1.in\"";
    GraphFiles files;
    const LogRecorder log;
    files.findings_for(text + "]\n" + blocks);
    Lines made;
    for (const std::string& line : log.texts()) {
        if (line == "made a" || line == "made z") {
            made.push_back(line);
        }
    }
    return made;
}

TEST(CreationOrder, LooksAt64WiresForEachBlock)
{
    constexpr std::size_t kBlocks = 67;
    EXPECT_EQ(order_behind(kBlocks), (Lines{"made z", "made a"}));
    EXPECT_EQ(order_behind(kBlocks + 1), (Lines{"made a", "made z"}));
}

}  // namespace
