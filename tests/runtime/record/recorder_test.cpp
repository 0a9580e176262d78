// Recording graphs and replaying them.
#include "record/recorder.h"

#include <quorval/runtime/graph.h>
#include <quorval/runtime/recording.h>
#include "loop/loop.h"
#include "plugins/codecs.h"
#include "record/database.h"
#include "record/playback.h"
#include "runtime/support/graph_files.h"
#include "support/scopes.h"
#include "support/support.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <iterator>
#include <string>
#include <thread>
#include <vector>

namespace {

using Quorval::Graph;
using Quorval::GraphError;
using Quorval::GraphOptions;
using Quorval::RecordingInfo;
using Quorval::RunResult;
using Quorval::runtime::LoadedGraph;
using Quorval::runtime::Loop;
using Quorval::runtime::Playback;
using Quorval::runtime::Recorder;
using quorval_test::expect_throw;
using quorval_test::GraphFiles;
using quorval_test::LogRecorder;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

class RecordGraph : public testing::Test {
protected:
    std::string file() const { return files_.path("r"); }

    GraphOptions options(const std::string& text)
    {
        files_.write("g.toml", "format = 1\n" + text);
        GraphOptions options = files_.options();
        options.replays_fast = true;
        return options;
    }

    /// Runs a graph and records it.
    RunResult record(const std::string& text, const std::vector<std::string>& outputs = {})
    {
        GraphOptions recording = options(text);
        recording.record_file = file();
        recording.record_outputs = outputs;
        return Graph(recording).run();
    }

    /// Replays what was recorded, perhaps with another graph.
    RunResult replay(const std::string& text)
    {
        GraphOptions replaying = options(text);
        replaying.replay_file = file();
        return Graph(replaying).run();
    }

    /// What is logged while a graph is made and run.
    template <class Action>
    std::vector<std::string> said_by(Action action)
    {
        const LogRecorder log(LOGLEVEL_INFO);
        action();
        std::vector<std::string> texts;
        for (const std::string& text : log.texts()) {
            if (text.rfind("DlLoader:", 0) != 0) {
                texts.push_back(files_.strip(text));
            }
        }
        return texts;
    }

    RecordingInfo info() const { return Quorval::read_recording(file()); }

private:
    GraphFiles files_;
};

/// Two blocks that work on numbers, the second one on those of the wave before, too.
const std::string kWorking = R"(
connections = [
    "ticker.out -> first.in",
    "first.out -> second.in",
    "clock.out -> early.in",
    { from = "ticker.out", to = "early.late", delayed = true },
    { from = "ticker.odd", to = "second.late" },
]
blocks.ticker.type = "recorded:Ticker"
blocks.clock.type = "recorded:Ticker"
blocks.early.type = "recorded:Work"
blocks.first.type = "recorded:Work"
blocks.second.type = "recorded:Work"
)";

const std::string kOdd = "blocks.odd.type = \"recorded:Odd\"\n";

/// The lines without those that have a word.
std::vector<std::string> without(const std::vector<std::string>& lines, const std::string& word)
{
    std::vector<std::string> rest;
    for (const std::string& line : lines) {
        if (line.find(word) == std::string::npos) {
            rest.push_back(line);
        }
    }
    return rest;
}

TEST_F(RecordGraph, RecordsTheOutputsOfTheSources)
{
    const Loop::Time begin = Loop::now();
    EXPECT_EQ(record(kWorking), RunResult::Done);

    const RecordingInfo found = info();
    EXPECT_LE(found.duration, Loop::now() - begin);
    EXPECT_EQ(found.graph, "g");
    EXPECT_TRUE(found.is_whole);
    std::vector<std::string> outputs;
    for (const RecordingInfo::Output& output : found.outputs) {
        outputs.push_back(output.path + "." + output.port + " " + output.type + " " +
                          std::to_string(output.values));
    }
    // The value of the start stands twice: before the first wave, and at the end of it.
    EXPECT_THAT(outputs, ElementsAre("clock.odd int64 3", "clock.out int64 6", "ticker.odd int64 3",
                                     "ticker.out int64 6"));
}

TEST_F(RecordGraph, LeavesNoFileOfARunThatDoesNotBegin)
{
    GraphOptions recording = options(
        "machines.m = {}\n"
        "link = { broker = \"mqtts://127.0.0.1\", ca = \"/missing\" }\n"
        "blocks.ticker = { type = \"recorded:Ticker\", machine = \"m\" }\n");
    recording.machine = "m";
    recording.record_file = file();
    Graph graph(recording);

    EXPECT_EQ(graph.run(), RunResult::Failed);

    EXPECT_FALSE(std::filesystem::exists(file()));
}

TEST_F(RecordGraph, LeavesTheSignalsOfItsThreadAsTheyWere)
{
    const LoadedGraph graph = Quorval::runtime::load_graph(options(kWorking));
    const auto blocked = [] {
        sigset_t set;
        ::pthread_sigmask(SIG_SETMASK, nullptr, &set);
        std::string numbers;
        for (int number = 1; number < NSIG; ++number) {
            numbers += ::sigismember(&set, number) == 1 ? " " + std::to_string(number) : "";
        }
        return numbers;
    };
    const std::string before = blocked();
    Recorder recorder(graph, {"ticker.out"});
    recorder.open(file());

    recorder.begin({});

    EXPECT_EQ(blocked(), before);
}

TEST_F(RecordGraph, ReplaysAllThatTheOthersSaw)
{
    const auto live = said_by([&] { record(kWorking); });

    const auto replayed = said_by([&] { EXPECT_EQ(replay(kWorking), RunResult::Done); });

    EXPECT_EQ(replayed, without(live, "start"));
    EXPECT_GE(replayed.size(), 15U);
}

TEST_F(RecordGraph, ReplaysFromTheMiddleOfAGraph)
{
    const auto live = said_by([&] { record(kWorking, {"first.out", "ticker.odd"}); });

    const auto replayed = said_by([&] { replay(kWorking); });

    const auto only = [](const std::vector<std::string>& lines, const std::string& word) {
        std::vector<std::string> rest;
        std::copy_if(lines.begin(), lines.end(), std::back_inserter(rest),
                     [&](const std::string& line) { return line.find(word) != std::string::npos; });
        return rest;
    };
    EXPECT_EQ(only(replayed, "left out"),
              std::vector<std::string>{"what was recorded of ticker.odd is left out: block "
                                       "'ticker' stays, since not all of its connected outputs "
                                       "are recorded"});
    EXPECT_THAT(only(replayed, "first"), IsEmpty());
    EXPECT_EQ(only(replayed, "second").size(), only(live, "second").size());
}

TEST_F(RecordGraph, LeavesOutWhatTheGraphHasNoPlaceFor)
{
    record(kWorking);

    const auto said = said_by([&] {
        EXPECT_EQ(replay("connections = [\"ticker.out -> tell.in\"]\n"
                         "blocks.ticker = { type = \"running:Count\", config.count = 1 }\n"
                         "blocks.tell = { type = \"running:Tell\", config = { x = 1, y = 2 } }\n"
                         "blocks.clock.type = \"recorded:Odd\"\n"),
                  RunResult::Done);
    });

    EXPECT_THAT(said,
                ElementsAre("what was recorded of clock.odd is left out: block 'clock' has no "
                            "output 'odd'",
                            "what was recorded of clock.out is left out: block 'clock' has no "
                            "output 'out'",
                            "what was recorded of ticker.odd is left out: block 'ticker' has no "
                            "output 'odd'",
                            "what was recorded of ticker.out is left out: it is of the type int64 "
                            "there, and of the type int in the graph",
                            "start tell", "run tell 1", "stop tell"));
}

TEST_F(RecordGraph, LeavesOutBlocksThatTheGraphDoesNotHave)
{
    record(kWorking);

    const auto said = said_by([&] { replay(kOdd); });

    EXPECT_THAT(said,
                ElementsAre("what was recorded of clock.odd is left out: there is no block 'clock'",
                            "what was recorded of clock.out is left out: there is no block 'clock'",
                            "what was recorded of ticker.odd is left out: there is no block "
                            "'ticker'",
                            "what was recorded of ticker.out is left out: there is no block "
                            "'ticker'"));
}

TEST_F(RecordGraph, RefusesOutputsThatItCannotRecord)
{
    GraphOptions recording = options(kWorking + kOdd + "blocks.tell.type = \"running:Tell\"\n");
    recording.record_file = file();
    recording.record_outputs = {"first.out", "x.out",      "first.o",     "first.oot",
                                "first",     "odd.opaque", "ticker.none", "tell.x"};

    expect_throw<GraphError>(
        [&] { const Graph graph(recording); },
        "--outputs x.out: error: there is no block 'x'\n"
        "--outputs first.o: error: block 'first' has no output 'o'; it has out\n"
        "--outputs first.oot: error: block 'first' has no output 'oot'; did you mean 'out'?\n"
        "--outputs first: error: block 'first' has no output ''; it has out\n"
        "--outputs odd.opaque: error: there is no codec for opaque\n"
        "--outputs ticker.none: error: block 'ticker' has no output 'none'; it has odd, out\n"
        "--outputs tell.x: error: block 'tell' has no output 'x'; it has none");
    EXPECT_FALSE(std::filesystem::exists(file()));
}

TEST_F(RecordGraph, TellsOfValuesThatItCannotRecord)
{
    const auto said = said_by([&] { EXPECT_EQ(record(kOdd), RunResult::Failed); });

    EXPECT_THAT(said, ElementsAre("there is no codec for opaque: what odd.opaque gives is not "
                                  "recorded",
                                  "what odd.fussy gives cannot be recorded: too much"));
    EXPECT_EQ(info().waves, 3U);
    EXPECT_EQ(info().outputs.at(0).values, 1U);
}

TEST_F(RecordGraph, IsReplayedFromThePresentOn)
{
    record(kWorking);
    LoadedGraph graph = Quorval::runtime::load_graph(options(kWorking));
    Playback playback(file(), graph, false);

    const auto begin = Loop::now();
    const auto first = playback.next_time();

    ASSERT_TRUE(first.has_value());
    EXPECT_GE(*first, begin);
    EXPECT_LE(*first, Loop::now() + info().duration);
    EXPECT_EQ(playback.next_time(), first);
}

TEST_F(RecordGraph, LeavesOutWavesThatFindNoRoomInTheQueue)
{
    const LoadedGraph graph =
        Quorval::runtime::load_graph(options("blocks.text.type = \"recorded:Text\"\n"));
    auto& output = static_cast<Quorval::OutPort<std::string>&>(
        graph.network.nodes.at(0).block->get_outport("out").second);
    Recorder recorder(graph, {"text.out"});
    recorder.open(file());
    // Nothing is written before it begins, so that the queue, of 64 MiB, fills up.
    for (const std::size_t size : {30'000'000U, 30'000'000U, 30'000'000U, 1U}) {
        output.write(std::string(size, 'x'));
        recorder.wave_begins(std::chrono::hours(1'000'000));
        recorder.see(output, false);
        recorder.wave_ends();
    }

    const auto said = said_by([&] {
        recorder.begin({});
        EXPECT_FALSE(recorder.finish());
    });

    EXPECT_THAT(said, ElementsAre("1 waves are missing in 'r': the disk was too slow"));
    EXPECT_EQ(info().waves, 3U);
    EXPECT_EQ(info().missing_waves, 1U);
    EXPECT_TRUE(info().is_whole);
}

/// A recorder of the texts of one block, without a run.
class RecordTexts : public RecordGraph {
protected:
    /// One wave with a text of this size.
    void give(std::size_t size) { give(recorder, size); }
    void give(Recorder& taker, std::size_t size) const
    {
        output.write(std::string(size, 'x'));
        taker.wave_begins(std::chrono::hours(1'000'000));
        taker.see(output, false);
        taker.wave_ends();
    }

    const LoadedGraph graph =
        Quorval::runtime::load_graph(options("blocks.text.type = \"recorded:Text\"\n"));
    Quorval::OutPort<std::string>& output = static_cast<Quorval::OutPort<std::string>&>(
        graph.network.nodes.at(0).block->get_outport("out").second);
    Recorder recorder{graph, {"text.out"}};
};

TEST_F(RecordTexts, FillTheQueueToTheLastByte)
{
    for (const bool is_too_much : {false, true}) {
        std::filesystem::remove(file());
        Recorder one(graph, {"text.out"});
        one.open(file());
        std::string bytes;
        Quorval::runtime::encode(*graph.plugins->find_codec("string"), &output.value(), bytes);
        const std::size_t beside =
            bytes.size() - output.value().size() + sizeof(Quorval::runtime::Batch::Row);
        give(one, 30'000'000);
        give(one, (std::size_t{64} << 20U) - 30'000'000 - 2 * beside + (is_too_much ? 1 : 0));

        one.begin({});

        EXPECT_EQ(one.finish(), !is_too_much);
        EXPECT_EQ(info().waves, is_too_much ? 1U : 2U);
    }
}

TEST_F(RecordTexts, AreWrittenWhileTheGraphRuns)
{
    recorder.open(file());
    recorder.begin({});

    for (std::uintmax_t waves = 1; waves <= 2; ++waves) {
        give(1);
        give(17'000'000);
        while (std::filesystem::file_size(file()) < waves * 17'000'000) {
            std::this_thread::yield();
        }
    }

    EXPECT_TRUE(recorder.finish());
    EXPECT_EQ(info().waves, 4U);
    EXPECT_EQ(info().outputs.at(0).values, 4U);
}

TEST_F(RecordTexts, AreLostWhereTheFileTakesNothing)
{
    const std::vector<int> before = quorval_test::open_descriptors();
    recorder.open(file());

    const auto said = said_by([&] {
        const quorval_test::FileSizeLimit limit(0);
        recorder.begin({});
        give(1);
        EXPECT_FALSE(recorder.finish());
    });

    EXPECT_THAT(said, ElementsAre(::testing::StartsWith("'r' cannot be written: ")));
    EXPECT_FALSE(std::filesystem::exists(file()));
    EXPECT_EQ(quorval_test::open_descriptors(), before);
}

TEST_F(RecordTexts, AreLostWhereTheFileTakesNoMore)
{
    recorder.open(file());
    recorder.begin({});

    const auto said = said_by([&] {
        const quorval_test::FileSizeLimit limit(std::filesystem::file_size(file()));
        give(1'000'000);
        EXPECT_FALSE(recorder.finish());
    });

    EXPECT_THAT(said, ElementsAre(::testing::StartsWith("'r' cannot be written: ")));
    EXPECT_EQ(info().waves, 0U);
}

TEST_F(RecordTexts, AreNotWholeWhereTheEndCannotBeWritten)
{
    recorder.open(file());
    recorder.begin({});

    const auto said = said_by([&] {
        const quorval_test::FileSizeLimit limit(1);
        EXPECT_FALSE(recorder.finish());
    });

    EXPECT_THAT(said, ElementsAre(::testing::StartsWith("'r' cannot be written: ")));
    EXPECT_FALSE(info().is_whole);
}

std::atomic<int> signals_that_came{0};

TEST_F(RecordTexts, AreWrittenByAThreadThatTakesNoSignals)
{
    const auto former = std::signal(SIGUSR1, [](int) { ++signals_that_came; });
    recorder.open(file());
    recorder.begin({});
    sigset_t signals;
    sigset_t mask;
    ::sigemptyset(&signals);
    ::sigaddset(&signals, SIGUSR1);
    ::pthread_sigmask(SIG_BLOCK, &signals, &mask);

    ::kill(::getpid(), SIGUSR1);
    recorder.finish();
    EXPECT_EQ(signals_that_came, 0);
    ::pthread_sigmask(SIG_SETMASK, &mask, nullptr);

    EXPECT_EQ(signals_that_came, 1);
    static_cast<void>(std::signal(SIGUSR1, former));
}

TEST_F(RecordGraph, LeavesOutWhatHasNoCodec)
{
    record(kOdd);
    {
        Quorval::runtime::Database database(file(), SQLITE_OPEN_READWRITE);
        database.execute("UPDATE outputs SET port = 'opaque', type = 'opaque' WHERE id = 0");
    }

    const auto said = said_by([&] { replay(kOdd); });

    EXPECT_THAT(said, ::testing::Contains("what was recorded of odd.opaque is left out: there is "
                                          "no codec for opaque"));
}

TEST_F(RecordGraph, TellsOfEachOutputOfABlockThatStaysAndOfNoneThatIsReplayed)
{
    const std::string text =
        "connections = [\"ticker.out -> first.in\"]\n"
        "blocks.alone.type = \"recorded:Ticker\"\n"
        "blocks.first.type = \"recorded:Work\"\n"
        "blocks.ticker.type = \"recorded:Ticker\"\n";
    record(text);

    const auto said = said_by([&] { replay(text); });

    std::vector<std::string> left_out;
    std::copy_if(
        said.begin(), said.end(), std::back_inserter(left_out),
        [](const std::string& line) { return line.find("left out") != std::string::npos; });
    const std::string why =
        " is left out: block 'alone' stays, since not all of its connected outputs are recorded";
    EXPECT_THAT(left_out, ElementsAre("what was recorded of alone.odd" + why,
                                      "what was recorded of alone.out" + why));
}

TEST_F(RecordGraph, TellsOnceHowAReplayEnds)
{
    record(kWorking);
    {
        Quorval::runtime::Database database(file(), SQLITE_OPEN_READWRITE);
        database.execute("UPDATE recording SET waves = NULL; DELETE FROM part_1");
    }
    LoadedGraph graph = Quorval::runtime::load_graph(options(kWorking));
    Playback playback(file(), graph, true);

    const auto said = said_by([&] {
        EXPECT_FALSE(playback.next_time().has_value());
        EXPECT_FALSE(playback.next_time().has_value());
    });

    EXPECT_THAT(said, ElementsAre("'r' was cut off: the last wave in it is 0"));
}

TEST_F(RecordGraph, StopsAReplayWhoseValuesAreNone)
{
    record(kWorking);
    {
        Quorval::runtime::Database database(file(), SQLITE_OPEN_READWRITE);
        database.execute(
            "UPDATE part_1 SET value = x'0101', mark = 4 WHERE wave > 1 AND output = "
            "(SELECT id FROM outputs WHERE path = 'ticker' AND port = 'out')");
    }

    const auto said = said_by([&] { EXPECT_EQ(replay(kWorking), RunResult::Failed); });

    EXPECT_THAT(said, ::testing::Contains(
                          "block 'ticker' failed in run: what was recorded of out cannot be read: "
                          "the value ends too early"));
}

TEST_F(RecordGraph, TellsOfARecordingThatWasCutOff)
{
    record(kWorking);
    {
        Quorval::runtime::Database database(file(), SQLITE_OPEN_READWRITE);
        database.execute("UPDATE recording SET waves = NULL; DELETE FROM part_1 WHERE wave > 2");
    }

    const auto said = said_by([&] { EXPECT_EQ(replay(kWorking), RunResult::Done); });

    EXPECT_THAT(said, ::testing::Contains("'r' was cut off: the last wave in it is 2"));
}

TEST_F(RecordGraph, TellsOfWavesThatAreMissing)
{
    record(kWorking);
    {
        Quorval::runtime::Database database(file(), SQLITE_OPEN_READWRITE);
        database.execute("UPDATE part_1 SET wave = wave + 2 WHERE wave > 1");
    }

    const auto said = said_by([&] { EXPECT_EQ(replay(kWorking), RunResult::Done); });

    EXPECT_THAT(said, ::testing::Contains("2 waves are missing in 'r'"));
}

TEST_F(RecordGraph, StopsAReplayThatIsStoppedBeforeItsFirstWave)
{
    record(kWorking);
    GraphOptions replaying = options(kWorking);
    replaying.replay_file = file();

    const auto said = said_by([&] {
        Graph graph(replaying);
        graph.stop();
        EXPECT_EQ(graph.run(), RunResult::Done);
    });

    EXPECT_THAT(without(said, "ends with nothing"), IsEmpty());
}

}  // namespace
