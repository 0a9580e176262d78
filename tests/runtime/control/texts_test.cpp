#include "control/texts.h"

#include "loop/loop.h"
#include "run/runner.h"
#include "runtime/support/graph_files.h"
#include "support/allocations.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstddef>
#include <string>

using namespace Quorval;
using namespace Quorval::runtime;
using quorval_test::GraphFiles;

namespace {

/// Takes down what is said of a run before its start, and ends it there.
class Onlooker final : public IOutside {
public:
    /// @param changes  what the first block is given before
    explicit Onlooker(BlockConfiguration changes) : changes_(std::move(changes)) {}

    RunResult open(Run& run) override
    {
        run.overrides.change({{0, changes_}});
        description = describe(run);
        allocations = quorval_test::allocations_of([&] { config = show_config(run, 0); });
        return RunResult::Failed;
    }
    void begin() override {}
    void close() noexcept override {}
    sd_bus* bus() override { return nullptr; }

    std::string description;
    std::string config;
    std::size_t allocations = 0;  // to show the configuration

private:
    BlockConfiguration changes_;
};

/// What is said of the graph in a file.
Onlooker look_at(const std::string& text, const BlockConfiguration& changes = {})
{
    GraphFiles files;
    files.write("g.toml", "format = 1\n" + text);
    const GraphOptions options = files.options();
    LoadedGraph graph = load_graph(options);
    Loop loop;
    Onlooker onlooker(changes);
    const std::atomic<bool> has_stop{false};
    Runner(options, graph, loop, nullptr, &onlooker, has_stop).run();
    onlooker.config = files.strip(onlooker.config);
    return onlooker;
}

TEST(ControlTexts, ShowKeysWithDotsThatCanBePutIntoAGraphFile)
{
    const Onlooker shown = look_at(R"([blocks.a]
type = "running:Tell"
[blocks.a.config]
x = 1
table.inner.key = true
"x.below" = "under a value"
".first" = 0.5
"last." = "text"
"double..dot" = [1, 2]
)");

    EXPECT_EQ(shown.config, R"(".first" = 0.5  # g.toml:8
"double..dot" = [1, 2]  # g.toml:10
"last." = "text"  # g.toml:9
table.inner.key = true  # g.toml:6
x = 1  # g.toml:5
"x.below" = "under a value"  # g.toml:7
)");
}

TEST(ControlTexts, ShowManyChangedKeysWithAsMuchWorkForEach)
{
    const auto allocations_for = [](int keys) {
        BlockConfiguration changes;
        for (int key = 0; key < keys; ++key) {
            changes.set("key" + std::to_string(key), key);
        }
        return look_at("blocks.a.type = \"running:Tell\"\n", changes).allocations;
    };

    EXPECT_LT(allocations_for(400), 3 * allocations_for(200));
}

TEST(ControlTexts, DescribeAGraphAsJson)
{
    const Onlooker shown = look_at(R"(name = "small"
connections = ["count.out -> tell.in"]
[blocks.count]
type = "running:Count"
[blocks.tell]
type = "running:Tell"
config = { y = 2, x = 1 }
)");

    EXPECT_EQ(shown.description,
              R"({"blocks":[{"config":{},"fdports":{},"inports":{},"outports":{"out":"int"},)"
              R"("path":"count","type":"running:Count"},{"config":{"x":1,"y":2},"fdports":{},)"
              R"("inports":{"in":"int"},"outports":{},"path":"tell","type":"running:Tell"}],)"
              R"("connections":[{"delayed":false,"from":"count.out","to":"tell.in","type":"int"}],)"
              R"("format":1,"name":"small"})");
}

}  // namespace
