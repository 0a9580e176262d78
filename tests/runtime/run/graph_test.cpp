#include <quorval/runtime/graph.h>
#include <quorval/runtime/messages.h>
#include <quorval/runtime/recording.h>
#include "loop/descriptor.h"
#include "runtime/link/server.h"
#include "runtime/support/graph_files.h"
#include "schedule/workers.h"
#include "support/scopes.h"
#include "support/support.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <csignal>
#include <fstream>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

using namespace Quorval;
using namespace std::chrono_literals;
using quorval_test::expect_throw;
using quorval_test::GraphFiles;
using quorval_test::LogRecorder;
using quorval_test::open_descriptors;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;

namespace {

const std::string kCounting = R"(format = 1
connections = ["count.out -> tell.in"]
[blocks.count]
type = "running:Count"
config.count = 2
[blocks.tell]
type = "running:Tell"
config.x = 1
)";

const std::string kIdle = R"(format = 1
[blocks.idle]
type = "running:Tell"
config.is_idle = true
config.x = 1
)";

class GraphTest : public ::testing::Test {
protected:
    /// Makes the graph of a file, and forgets what was said meanwhile.
    Graph& make(const std::string& text, GraphOptions options = {})
    {
        files.write("g.toml", text);
        const GraphOptions places = files.options();
        options.files = places.files;
        options.plugin_path = places.plugin_path;
        graph = std::make_unique<Graph>(std::move(options));
        recorder.clear();
        return *graph;
    }

    static GraphOptions with_signals()
    {
        GraphOptions options;
        options.takes_signals = true;
        return options;
    }

    LogRecorder recorder;
    GraphFiles files;
    std::unique_ptr<Graph> graph;
};

TEST_F(GraphTest, RunsToItsEnd)
{
    EXPECT_EQ(make(kCounting).run(), RunResult::Done);

    EXPECT_THAT(recorder.texts(),
                ElementsAre("start tell", "run tell 1", "run tell 2", "stop tell"));
}

TEST_F(GraphTest, HandsOutItsBlocks)
{
    std::vector<std::string> names;
    for (const Block* block : make(kCounting).superblock().get_blocks()) {
        names.push_back(block->get_name());
    }

    EXPECT_THAT(names, ::testing::UnorderedElementsAre("count", "tell"));
}

TEST_F(GraphTest, RunsOnSeveralThreadsWhereTheBuildHasThem)
{
    GraphOptions options;
    options.threads = 256;

    if (!runtime::Workers::are_there()) {
        expect_throw<std::invalid_argument>(
            [&] { make(kCounting, options); },
            "this build has one thread alone: it was made without QUORVAL_WITH_THREADS");
        return;
    }
    EXPECT_EQ(make(kCounting, options).run(), RunResult::Done);
    EXPECT_THAT(recorder.texts(),
                ElementsAre("start tell", "run tell 1", "run tell 2", "stop tell"));
}

/// Bytes of addresses that this process has in use.
rlim_t used_addresses()
{
    std::ifstream status("/proc/self/statm");
    rlim_t pages = 0;
    status >> pages;
    return pages * static_cast<rlim_t>(::sysconf(_SC_PAGESIZE));
}

TEST_F(GraphTest, RunsOnNoMoreThreadsThanThereAreProcessors)
{
    if (!runtime::Workers::are_there()) {
        return;
    }
    GraphOptions options;
    options.threads = 256;
    make(kCounting, options);
    // Enough for many stacks of 4 MB and more, and not for those of so many threads.
    constexpr rlim_t kMore = 512 << 20;
    const quorval_test::ScopedLimit limit(RLIMIT_AS, used_addresses() + kMore);

    EXPECT_EQ(graph->run(), RunResult::Done);

    EXPECT_THAT(recorder.texts(), Not(Contains(HasSubstr("of 256 threads"))));
}

TEST_F(GraphTest, BearsThreadsOfItsBlocksThatLogBesideAnotherGraph)
{
    const std::string talkative =
        "format = 1\nblocks.a.type = \"running:Talkative\"\n"
        "blocks.b.type = \"running:Talkative\"\n";
    const Messages messages(LOGLEVEL_ERROR);
    GraphOptions options;
    options.threads = runtime::Workers::are_there() ? 2 : 1;
    make(talkative, options);
    const std::unique_ptr<Graph> first = std::move(graph);
    make(talkative, options);

    EXPECT_EQ(first->run(), RunResult::Done);
    EXPECT_EQ(graph->run(), RunResult::Done);
    graph.reset();  // as the sink has to outlive it
}

TEST_F(GraphTest, RefusesNumbersOfThreadsOutOfTheirRange)
{
    for (const unsigned threads : {0U, 257U}) {
        GraphOptions options;
        options.threads = threads;

        expect_throw<std::invalid_argument>(
            [&] { make(kCounting, options); },
            "the number of threads has to be from 1 to 256, not " + std::to_string(threads));
    }
}

TEST_F(GraphTest, CountsRunsAndTimesThemWhereItIsTold)
{
    make(kCounting);
    EXPECT_THAT(graph->statistics(), IsEmpty());
    graph->run();
    GraphOptions options;
    options.times_runs = true;

    const std::vector<BlockStatistics> counted = graph->statistics();
    make(kCounting, options).run();
    const std::vector<BlockStatistics> timed = graph->statistics();

    ASSERT_EQ(counted.size(), 2U);
    EXPECT_EQ(counted[1].path, "tell");
    EXPECT_EQ(counted[1].runs, 2U);
    EXPECT_EQ(counted[1].failures, 0U);
    EXPECT_EQ(counted[1].total, 0ns);
    ASSERT_EQ(timed.size(), 2U);
    EXPECT_EQ(timed[1].runs, 2U);
    EXPECT_GT(timed[1].total, 0ns);
    EXPECT_LE(timed[1].longest, timed[1].total);
    EXPECT_LE(timed[1].percentile_99, timed[1].longest);
}

TEST_F(GraphTest, HasStatisticsOfItsLinks)
{
    const quorval_test::IgnoredSignal pipe(SIGPIPE);  // as libmosquitto leaves it
    quorval_test::Server server;
    GraphOptions options;
    options.machine = "m";
    make("format = 1\nconnections = [\"a.out -> b.in\"]\nmachines = { m = {}, n = {} }\n" +
             server.link() +
             "blocks.a = { type = \"recorded:Ticker\", machine = \"m\", config.count = 1000000 }\n"
             "blocks.b = { type = \"recorded:Work\", machine = \"n\" }\n",
         options);
    EXPECT_THAT(graph->link_statistics(), IsEmpty());
    std::thread broker([&server] { server.refuse(); });

    EXPECT_EQ(graph->run(), RunResult::Failed);
    broker.join();

    const std::vector<LinkStatistics> links = graph->link_statistics();
    ASSERT_EQ(links.size(), 1U);
    EXPECT_EQ(links[0].output, "a.out");
    EXPECT_FALSE(links[0].comes_in);
}

TEST_F(GraphTest, ShowsItsBlocksAndConnections)
{
    make(kCounting);

    const std::vector<BlockInfo> blocks = graph->blocks();
    const std::vector<ConnectionInfo> connections = graph->connections();

    EXPECT_EQ(graph->name(), "g");
    ASSERT_EQ(blocks.size(), 2U);
    EXPECT_EQ(blocks[0].path, "count");
    EXPECT_EQ(blocks[0].type, "running:Count");
    EXPECT_EQ(blocks[0].outports, (std::map<std::string, std::string>{{"out", "int"}}));
    EXPECT_EQ(blocks[0].config, (BlockConfiguration{{"count", 2}}));
    EXPECT_EQ(blocks[1].inports, (std::map<std::string, std::string>{{"in", "int"}}));
    ASSERT_EQ(connections.size(), 1U);
    EXPECT_EQ(connections[0].from_path + "." + connections[0].output, "count.out");
    EXPECT_EQ(connections[0].to_path + "." + connections[0].input, "tell.in");
    EXPECT_EQ(connections[0].type, "int");
    EXPECT_FALSE(connections[0].is_delayed);
}

TEST_F(GraphTest, HasToHaveASource)
{
    EXPECT_EQ(make("format = 1\n[blocks.tell]\ntype = \"running:Tell\"\n").run(),
              RunResult::NoSource);

    EXPECT_THAT(
        recorder.texts(),
        ElementsAre("start tell", "the graph has no source: nothing would ever run", "stop tell"));
}

TEST_F(GraphTest, FailsWithABlock)
{
    EXPECT_EQ(make(kCounting + "config.trouble = \"run\"\n").run(), RunResult::Failed);

    EXPECT_THAT(recorder.texts(), ElementsAre("start tell", "run tell 1",
                                              "block 'tell' failed in run: trouble", "stop tell"));
}

TEST_F(GraphTest, RunsOnPastABlockThatSkipsItsFailures)
{
    EXPECT_EQ(make(kCounting + "config.trouble = \"run\"\n" + "on_error = \"skip\"\n").run(),
              RunResult::Done);

    EXPECT_THAT(recorder.texts(),
                ElementsAre("start tell", "run tell 1", "block 'tell' failed in run: trouble",
                            "run tell 2", "stop tell", "block 'tell' failed in run 1 more times"));
}

TEST_F(GraphTest, RecordsAndReplays)
{
    const std::string ticking =
        "format = 1\nconnections = [\"a.out -> b.in\"]\nblocks.a.type = \"recorded:Ticker\"\n"
        "blocks.b.type = \"recorded:Work\"\n";
    GraphOptions recording;
    recording.record_file = files.path("r");
    EXPECT_EQ(make(ticking, recording).run(), RunResult::Done);
    EXPECT_TRUE(read_recording(files.path("r")).is_whole);
    GraphOptions replaying;
    replaying.replay_file = files.path("r");
    replaying.replays_fast = true;

    EXPECT_EQ(make(ticking, replaying).run(), RunResult::Done);

    EXPECT_THAT(recorder.texts(), Not(Contains("start a")));
    EXPECT_THAT(recorder.texts(), Contains(::testing::StartsWith("b in 101!, late")));
}

TEST_F(GraphTest, FailsWhereNotAllIsRecorded)
{
    GraphOptions recording;
    recording.record_file = files.path("r");

    EXPECT_EQ(make("format = 1\nblocks.a.type = \"recorded:Odd\"\n", recording).run(),
              RunResult::Failed);
}

TEST_F(GraphTest, FailsWhereWhatItIsToWriteIsThere)
{
    GraphOptions recording;
    recording.record_file = files.path("g.toml");

    EXPECT_EQ(make(kCounting, recording).run(), RunResult::Failed);

    EXPECT_THAT(recorder.texts(),
                ElementsAre("cannot record into '" + files.path("g.toml") + "': File exists"));
}

TEST_F(GraphTest, RunsOnce)
{
    make(kCounting).run();

    expect_throw<std::logic_error>([this] { graph->run(); },
                                   "the graph cannot be run: it has run already");
}

TEST_F(GraphTest, DoesNotRunWhenItWasMadeToBeLookedAt)
{
    GraphOptions options;
    options.is_dry = true;
    make(kCounting, options);

    expect_throw<std::logic_error>([this] { graph->run(); },
                                   "the graph cannot be run: it was made to be looked at");
    graph->stop();
}

TEST_F(GraphTest, KeepsStandardOutputFreeWhenItWasMadeToBeLookedAt)
{
    GraphOptions options;
    options.is_dry = true;

    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    make("format = 1\nblocks.a.type = \"parts:Prints\"\n", options);
    graph.reset();

    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "printed by a block\nprinted at the end\n");
}

TEST_F(GraphTest, IsStoppedFromAnotherThread)
{
    make(kIdle);
    std::thread thread([this] { graph->stop(); });

    EXPECT_EQ(graph->run(), RunResult::Done);

    thread.join();
}

TEST_F(GraphTest, StopsWhenABlockEndsTheEventLoop)
{
    for (const std::string operation : {"start", "run"}) {
        make("format = 1\nblocks.a = { type = \"running:EndLoop\", config.at = \"" + operation +
             "\" }\n");

        EXPECT_EQ(graph->run(), RunResult::Done) << operation;
        graph.reset();
    }
}

TEST_F(GraphTest, StopsAfterItsTime)
{
    GraphOptions options;
    options.run_for = 2ms;

    EXPECT_EQ(make(kIdle, options).run(), RunResult::Done);

    EXPECT_THAT(recorder.texts(), ElementsAre("start idle", "stop idle"));
}

TEST_F(GraphTest, ShowsTheLastProgress)
{
    std::vector<std::string> shown;
    GraphOptions options;
    options.on_progress = [&shown](const std::string& path, std::uint64_t done,
                                   std::uint64_t total) {
        shown.push_back(path + " " + std::to_string(done) + "/" + std::to_string(total));
    };

    make(kCounting, options).run();

    ASSERT_FALSE(shown.empty());
    EXPECT_EQ(shown.back(), "count 2/2");
}

TEST_F(GraphTest, LeavesNothingBehindAfterManyRuns)
{
    make(kCounting).run();
    graph.reset();
    const std::vector<int> before = open_descriptors();

    for (int round = 0; round < 1000; ++round) {
        make(kCounting).run();
        graph.reset();
    }

    EXPECT_EQ(open_descriptors(), before);
}

TEST_F(GraphTest, BearsRequestsOfOtherThreadsUntilItsBlocksAreDestroyed)
{
    make(
        "format = 1\nblocks.a = { type = \"running:Threaded\" }\n"
        "blocks.b = { type = \"running:Threaded\" }\n");

    EXPECT_EQ(graph->run(), RunResult::Done);

    ASSERT_FALSE(recorder.texts().empty());
    EXPECT_THAT(recorder.texts(), ::testing::Each("enough"));
}

// ---- signals ------------------------------------------------------------------------------------

void (*handler_of(int signal))(int)
{
    struct sigaction action = {};
    ::sigaction(signal, nullptr, &action);
    return action.sa_handler;
}

TEST_F(GraphTest, IsNotStartedAfterASignalThatCameWhileItWasLoaded)
{
    make(kIdle, with_signals());
    std::raise(SIGTERM);

    EXPECT_EQ(graph->run(), RunResult::Done);

    EXPECT_THAT(recorder.texts(), IsEmpty());
}

TEST_F(GraphTest, StartsNoFurtherBlockAfterASignal)
{
    make(kIdle + "[blocks.last]\ntype = \"running:Tell\"\nconfig.signal = 2\n", with_signals());

    EXPECT_EQ(graph->run(), RunResult::Done);

    EXPECT_THAT(recorder.texts(), ElementsAre("start last", "stop last"));
}

TEST_F(GraphTest, GivesSignalsTheirDefaultActionAfterTheFirst)
{
    make(kIdle, with_signals());
    EXPECT_NE(handler_of(SIGINT), SIG_DFL);
    EXPECT_EQ(handler_of(SIGPIPE), SIG_IGN);

    std::raise(SIGINT);

    EXPECT_EQ(handler_of(SIGINT), SIG_DFL);
    EXPECT_EQ(handler_of(SIGTERM), SIG_DFL);
}

TEST_F(GraphTest, PutsTheActionsOfSignalsBack)
{
    const quorval_test::IgnoredSignal ignored(SIGTERM);
    make(kIdle, with_signals());
    EXPECT_NE(handler_of(SIGTERM), SIG_IGN);

    graph.reset();

    EXPECT_EQ(handler_of(SIGTERM), SIG_IGN);
    EXPECT_EQ(handler_of(SIGPIPE), SIG_DFL);
}

TEST_F(GraphTest, LeavesSignalsToOneGraph)
{
    make(kIdle, with_signals());
    GraphOptions options = files.options();
    options.takes_signals = true;

    expect_throw<std::logic_error>([&] { Graph other(options); },
                                   "another graph takes the signals");
}

// ---- descriptors --------------------------------------------------------------------------------

/// What a program has open besides its graph is none of the graph's business, unless the graph has
/// the signals of the program too, and so all of it.
TEST_F(GraphTest, MindsTheDescriptorsOfItsOwnProgramAlone)
{
    struct Case {
        bool takes_signals;
        bool is_dry;
        std::vector<std::string> expected;
    };
    for (const Case& one : std::vector<Case>{
             {true, false, {"a block left a descriptor open: '/dev/null'"}},
             {false, false, {}},
             {true, true, {}},
         }) {
        GraphOptions options;
        options.takes_signals = one.takes_signals;
        options.is_dry = one.is_dry;
        make(kIdle, options);
        const runtime::Descriptor opened(::open("/dev/null", O_RDONLY | O_CLOEXEC), "/dev/null");

        const LogRecorder warnings(LOGLEVEL_WARNING);

        graph.reset();

        EXPECT_EQ(warnings.texts(), one.expected) << one.takes_signals << one.is_dry;
    }
}

// ---- files that are read again ------------------------------------------------------------------

/// A graph whose file has changed since it was loaded, and that notices it when it runs.
class ReloadTest : public GraphTest {
protected:
    /// The messages of a run from the file `before`, which is `after` by the time it runs.
    std::vector<std::string> run_changed(const std::string& before, const std::string& after)
    {
        graph.reset();
        GraphOptions options = with_signals();
        options.run_for = 1ms;
        options.is_local = true;
        make(before, options);
        files.write("g.toml", after);
        std::raise(SIGHUP);
        EXPECT_EQ(graph->run(), RunResult::Done);
        std::vector<std::string> texts;
        for (const std::string& text : recorder.texts()) {
            texts.push_back(files.strip(text));
        }
        return texts;
    }
};

TEST_F(ReloadTest, AppliesChangedAndNewValues)
{
    EXPECT_THAT(
        run_changed(kIdle,
                    "format = 1\nblocks.idle = { type = \"running:Tell\", config = "
                    "{ is_idle = true, x = 5, y = 6 } }\n"),
        ElementsAre("start idle", "change idle 5 6", "the changed files are applied", "stop idle"));
}

TEST_F(ReloadTest, AppliesNothingWhenNothingChanged)
{
    EXPECT_THAT(run_changed(kIdle, kIdle + "# a remark\n"),
                ElementsAre("start idle", "the changed files are applied", "stop idle"));
}

TEST_F(ReloadTest, LeavesAllAsItWasWhenABlockRefuses)
{
    EXPECT_THAT(run_changed(kIdle, kIdle + "config.y = 7\n[blocks.idle.config.more]\n"),
                ElementsAre("start idle", "change idle -1 7", "the changed files are applied",
                            "stop idle"));
    std::string refused = kIdle;
    refused.replace(refused.find("x = 1"), 5, "x = 101");
    EXPECT_THAT(run_changed(kIdle, refused),
                ElementsAre("start idle", "change idle 101 -1", "change idle 1 -1",
                            "the changed files are not applied: block 'idle': x is too large",
                            "stop idle"));
}

TEST_F(ReloadTest, BearsRequestsOfOtherThreads)
{
    const std::string threaded =
        "[blocks.a]\ntype = \"running:Threaded\"\nconfig.reloads = true\n"
        "[blocks.b]\ntype = \"running:Threaded\"\n";
    const std::string changed =
        "format = 1\n[blocks.idle]\ntype = \"running:Tell\"\nconfig = { is_idle = true, x = 2 }\n";
    make(kIdle + threaded, with_signals());
    files.write("g.toml", changed + threaded);

    EXPECT_EQ(graph->run(), RunResult::Done);

    EXPECT_THAT(recorder.texts(), Contains("change idle 2 -1").Times(1));
}

TEST_F(ReloadTest, RefusesFilesWithErrors)
{
    EXPECT_THAT(run_changed(kIdle, "format = 2\n"),
                ElementsAre("start idle",
                            "the changed files are not applied: g.toml:1:10: error: format 2 is "
                            "not supported, only 1 is",
                            "stop idle"));
}

TEST_F(ReloadTest, ShowsAConnectionAsItWas)
{
    const std::string text = R"(format = 1
blocks.count = { type = "running:Count", machine = "a", config.count = 1000000000 }
blocks.tell = { type = "running:Tell", machine = "b" }
machines = { a = {}, b = {} }
[[connections]]
from = "count.out"
to = "tell.in"
)";

    EXPECT_THAT(
        run_changed(text + "delivery = \"all\"\n", text),
        Contains("the changed files are not applied: connection 'count.out -> tell.in', with "
                 "delivery \"all\", was removed"));
}

TEST_F(ReloadTest, RefusesEveryOtherDifferenceAndNamesIt)
{
    const std::string pair = R"(format = 1
connections = ["count.out -> box.in"]
blocks.count = { type = "running:Count", machine = "a", config.count = 1000000000 }
blocks.box = { type = "box", machine = "a", config.tell.x = 1 }
machines = { a = {}, b = {} }
[superblocks.box]
inports.in = "tell.in"
blocks.tell = { type = "running:Tell" }
blocks.other = { type = "running:Tell" }
)";
    struct Case {
        std::string from;
        std::string to;
        std::string text;
    };
    const std::vector<Case> cases = {
        {"format = 1", "format = 1\nname = \"h\"", "the name of the graph was changed"},
        {"blocks.box =", "blocks.more = { type = \"running:Tell\", machine = \"a\" }\nblocks.box =",
         "block 'more' was added"},
        {"blocks.other = { type = \"running:Tell\" }", "", "block 'box/other' was removed"},
        {"blocks.other = { type = \"running:Tell\" }",
         "blocks.other = { type = \"running:Count\" }",
         "the type of block 'box/other' was changed"},
        {"blocks.other = { type = \"running:Tell\" }",
         "blocks.other = { type = \"running:Tell\", on_error = \"skip\" }",
         "'on_error' of block 'box/other' was changed"},
        {", config.tell.x = 1", "", "key 'x' of block 'box/tell' was removed"},
        {"\"count.out -> box.in\"", "", "connection 'count.out -> box.in' was removed"},
        {"\"count.out -> box.in\"", "{ from = \"count.out\", to = \"box.in\", delayed = true }",
         "connection 'count.out -> box.in' was removed"},
        {"\"count.out -> box.in\"", "\"count.out -> box.in\", \"count.out -> box.in\"",
         "connection 'count.out -> box.in' was added"},
        {"blocks.box =",
         "superblocks.nothing = {}\nblocks.none = { type = \"nothing\", machine = \"a\" "
         "}\nblocks.box =",
         "superblock 'none' of type 'nothing' was added"},
        {"format = 1", "format = 1\nlink.queue = 5", "'link' was changed"},
        {"format = 1", "link = {}\nformat = 1", "'link' was changed"},
        {"b = {} }", "b = {}, c = {} }", "'machines' was changed"},
        {"machine = \"a\"", "machine = \"b\"", "the machine of block 'count' was changed"},
        {"inports.in = \"tell.in\"", "inports.in = [\"tell.in\", \"other.in\"]",
         "input 'in' for 'other.in' in 'box' was added"},
        {"inports.in = \"tell.in\"", "inports.in = \"other.in\"",
         "input 'in' for 'tell.in' in 'box' was removed"},
    };
    for (const Case& one : cases) {
        std::string after = pair;
        after.replace(after.find(one.from), one.from.size(), one.to);

        const std::vector<std::string> texts = run_changed(pair, after);

        EXPECT_THAT(texts, Contains("the changed files are not applied: " + one.text)) << one.to;
    }
}

}  // namespace
