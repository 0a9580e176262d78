#include "run/reload.h"

#include "graph/saved.h"
#include "run/life.h"
#include "run/overrides.h"
#include "runtime/support/fake_world.h"
#include "runtime/support/graph_files.h"
#include "support/support.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <optional>
#include <string>

using namespace Quorval;
using namespace Quorval::runtime;
using quorval_test::FakeWorld;
using quorval_test::GraphFiles;
using quorval_test::LogRecorder;
using ::testing::Contains;

namespace {

/// A loaded graph with a saved key, an assigned one and one of the file. Another one was saved for
/// a block that is gone.
class ReloadOriginTest : public ::testing::Test {
protected:
    ReloadOriginTest()
    {
        write("config = { x = 1, y = 2, saved = 3 }");
        options = files.options();
        options.assignments = {"b.y=20"};
        options.state_directory = files.path("state");
        Assignment saved;
        saved.path = "b";
        saved.setting.key = "saved";
        saved.setting.value = 30;
        Assignment gone = saved;
        gone.path = "gone";
        write_saved(options.state_directory, {gone, saved});
        graph.emplace(load_graph(options));
        life.emplace(graph->network, world, nullptr, nullptr);
        overrides.emplace(*graph, *life);
        reload.emplace(options, *graph, *overrides, nullptr);
        recorder.clear();
    }

    void write(const std::string& config)
    {
        files.write("g.toml",
                    "format = 1\nblocks.a.type = \"running:Tell\"\n"
                    "[blocks.b]\ntype = \"running:Tell\"\n" +
                        config + "\n");
    }

    std::string origin_of(const std::string& key) const
    {
        const auto origins = reload->origins_of(1);
        const auto found = origins.find(key);
        return found == origins.end() ? "" : files.strip(found->second);
    }

    LogRecorder recorder;
    GraphFiles files;
    GraphOptions options;
    FakeWorld world;
    std::optional<LoadedGraph> graph;
    std::optional<Life> life;
    std::optional<Overrides> overrides;
    std::optional<Reload> reload;
};

TEST_F(ReloadOriginTest, IsTheLineTheAssignmentOrWhatWasSaved)
{
    EXPECT_EQ(origin_of("x"), "g.toml:5");
    EXPECT_EQ(origin_of("y"), "--set");
    EXPECT_EQ(origin_of("saved"), "saved");
    EXPECT_EQ(origin_of("other"), "");
    EXPECT_TRUE(reload->origins_of(0).empty());
}

TEST_F(ReloadOriginTest, IsThatOfTheFilesThatWereAppliedLast)
{
    write("# moved\nconfig = { x = 5, y = 2, saved = 4, new = 6 }");
    reload->run();

    EXPECT_THAT(recorder.texts(), Contains("change b 5 -1"));
    EXPECT_THAT(recorder.texts(), Contains("the changed files are applied"));
    EXPECT_EQ(origin_of("x"), "g.toml:6");
    EXPECT_EQ(origin_of("new"), "g.toml:6");
    EXPECT_EQ(origin_of("y"), "--set");
    EXPECT_EQ(origin_of("saved"), "saved");
    EXPECT_EQ(overrides->present(1).getInt("saved"), 30);
}

TEST_F(ReloadOriginTest, IsRefusedForErrorsAlone)
{
    write("wrong = 1");
    reload->run();

    EXPECT_THAT(recorder.texts(), Contains(testing::HasSubstr("unknown key 'wrong'")));
    EXPECT_THAT(recorder.texts(), testing::Not(Contains(testing::HasSubstr("'gone'"))));
}

TEST_F(ReloadOriginTest, StaysWhereTheFilesAreRefused)
{
    write("# moved\n\nconfig = { x = 500, y = 2, saved = 3 }");
    reload->run();

    EXPECT_EQ(origin_of("x"), "g.toml:5");
}

}  // namespace
