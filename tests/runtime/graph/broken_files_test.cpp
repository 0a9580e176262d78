// Graph files with random damage: whatever they hold, findings come of it or a graph.
#include "runtime/support/graph_files.h"

#include <gtest/gtest.h>

#include <random>
#include <string>

using Quorval::Diagnostic;
using Quorval::GraphError;
using Quorval::runtime::load_graph;
using quorval_test::GraphFiles;

namespace {

constexpr const char* kWhole = R"(format = 1
name = "loudness"
on_error = "skip"
connections = [
    "source.out -> left.in",
    { from = "left.out", to = "sink.level", delayed = true, delivery = "all" },
    "source.out -> sink.other",
]
[blocks.source]
type = "parts:Ports"
config.outputs = ["out:double"]
[blocks.sink]
type = "parts:Ports"
config = { inputs = ["level:double", "other:double"], x.y = [1, 2.5], "x.z" = true }
[blocks.left]
type = "channel"
config.gain.factor = 0.5
[[blocks.left.config.gain.list]]
name = 'a'
[superblocks.channel]
connections = ["gain.out -> fir.in"]
inports.in = ["gain.in"]
outports.out = "fir.out"
blocks.gain = { type = "parts:Gain", config = { factor = 1.0 } }
blocks.fir = { type = "inner", on_error = "stop" }
[superblocks.inner]
inports.in = "x.in"
outports.out = "x.out"
blocks.x.type = "parts:Gain"
)";

class Damage {
public:
    explicit Damage(unsigned seed) : random_(seed) {}

    std::string operator()(std::string text)
    {
        const std::size_t count = 1 + random_() % 4;
        for (std::size_t i = 0; i < count; ++i) {
            damage(text);
        }
        return text;
    }

private:
    /// Removes, doubles or replaces a part, or puts a part of the text elsewhere.
    void damage(std::string& text)
    {
        const std::string marks = "\"'.[]{}=,:\n -#\\0a\x01\xFF";
        const std::size_t at = random_() % (text.size() + 1);
        const std::size_t from = random_() % (text.size() + 1);
        const std::size_t length = random_() % 24;
        switch (random_() % 4) {
            case 0:
                text.erase(at, length);
                break;
            case 1:
                text.insert(at, text.substr(from, length));
                break;
            case 2:
                text.insert(at, 1, marks[random_() % marks.size()]);
                break;
            default:
                text.replace(at, length, text.substr(from, random_() % 24));
                break;
        }
    }

    std::mt19937 random_;
};

}  // namespace

TEST(BrokenFiles, EndInFindingsOrInAGraph)
{
    GraphFiles files;
    constexpr unsigned kSeeds = 1000;
    unsigned graphs = 0;
    for (unsigned seed = 0; seed < kSeeds; ++seed) {
        files.write("g.toml", Damage(seed)(kWhole));
        try {
            const auto graph = load_graph(files.options());
            EXPECT_EQ(graph.blocks.size(), graph.network.nodes.size());
            ++graphs;
        } catch (const GraphError& error) {
            ASSERT_FALSE(error.diagnostics().empty()) << "seed " << seed;
            for (const Diagnostic& diagnostic : error.diagnostics()) {
                EXPECT_FALSE(diagnostic.text.empty()) << "seed " << seed;
                EXPECT_EQ(diagnostic.text.find('\n'), std::string::npos) << "seed " << seed;
                EXPECT_GE(diagnostic.line, 1U) << "seed " << seed;
                EXPECT_GE(diagnostic.column, 1U) << "seed " << seed;
            }
        }
    }

    // Both happen.
    EXPECT_GT(graphs, 0U);
    EXPECT_LT(graphs, kSeeds);
}
