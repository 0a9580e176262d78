// Memory that runs out while a graph is loaded, started, run and stopped.
#include <quorval/runtime/graph.h>
#include "faults/faults.h"
#include "runtime/support/graph_files.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <functional>
#include <string>

namespace {

using Quorval::Graph;
using Quorval::GraphError;
using Quorval::GraphOptions;
using quorval_test::Endings;
using quorval_test::fail_each_allocation_in_child;
using quorval_test::GraphFiles;
using quorval_test::Mode;

/// Superblocks, settings of most kinds, an include and a delayed connection.
constexpr const char* kGraph = R"(format = 1
include = ["more.toml"]
connections = [
    "count.out -> inside.in",
    { from = "count.out", to = "delayed.in", delayed = true },
]
[blocks.count]
type = "running:Count"
config.count = 3
[blocks.inside]
type = "a-superblock-with-a-long-name"
config.tell = { x = 1, y = 2 }
[superblocks.a-superblock-with-a-long-name]
inports.in = "tell.in"
blocks.tell.type = "running:Tell"
)";

constexpr const char* kMore = R"(format = 1
[blocks.delayed]
type = "running:Tell"
[blocks.declared]
type = "parts:Declared"
config = { needed = 3, taps = [0.5, 0.25], mode = "down" }
)";

constexpr const char* kWrong = R"(format = 1
unknown-key-of-the-format = 1
connections = ["a.out -> b.in", "a.nothing -> b.in"]
[blocks.a]
type = "parts:Gain"
config.an-unknown-key-of-this-block = "a text"
[blocks.b]
type = "no-such-plugin-far-and-wide:Gain"
[blocks.c]
type = "parts:ThrowsInSetup"
)";

constexpr std::size_t kMostTerminations = 8;

class GraphOutOfMemory : public testing::Test {
protected:
    GraphOutOfMemory()
    {
        files_.write("g.toml", kGraph);
        files_.write("more.toml", kMore);
        files_.write("wrong.toml", kWrong);
    }

    /// Expects memory that runs out to end in an exception, or in a run that fails, and in nothing
    /// that is lost. A few allocations end the process: those of the core's messages, which say
    /// that a plug-in is opened or closed, and of the name that the parser of TOML keeps for each
    /// file, in a function that must not throw.
    static void expect_clean_failures(const std::function<void()>& act)
    {
        for (const Mode mode : {Mode::Once, Mode::FromThenOn}) {
            const Endings endings = fail_each_allocation_in_child(mode, act, QUORVAL_FAULT_STEP);

            EXPECT_GT(endings.ran_out, 500U / QUORVAL_FAULT_STEP);
            EXPECT_LE(endings.terminated, kMostTerminations);
        }
    }

    GraphFiles files_;
};

TEST_F(GraphOutOfMemory, ThatIsWrongIsNotMade)
{
    const GraphOptions options = files_.options({"wrong.toml"});
    expect_clean_failures([&] {
        try {
            const Graph graph(options);
            FAIL() << "a wrong graph was made";
        } catch (const GraphError&) {
        }
    });
}

TEST_F(GraphOutOfMemory, FailsOrIsStoppedInOrder)
{
    GraphOptions options = files_.options();
    options.times_runs = true;
    expect_clean_failures([&] {
        try {
            Graph graph(options);
            graph.run();
            graph.statistics();
        } catch (const GraphError&) {
            // What creating a block throws is a finding, for want of memory too.
        }
    });
}

}  // namespace
