#include "run/runner.h"

#include "command/notify_socket.h"
#include "messages/signal_mask.h"
#include "runtime/link/server.h"
#include "runtime/support/fakes.h"
#include "runtime/support/graph_files.h"
#include "support/scopes.h"
#include "support/support.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <systemd/sd-event.h>

#include <fcntl.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

using namespace Quorval;
using namespace Quorval::runtime;
using namespace std::chrono_literals;
using quorval_test::FakeBlock;
using quorval_test::FakeGraph;
using quorval_test::GraphFiles;
using quorval_test::IgnoredSignal;
using quorval_test::LogRecorder;
using quorval_test::NotifySocket;
using quorval_test::ScopedEnvironment;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

namespace {

/// Writes down how it is called, among what else happens.
class FakeOutside final : public IOutside {
public:
    explicit FakeOutside(std::vector<std::string>& calls) : calls_(calls) {}

    RunResult open(Run& run) override
    {
        calls_.emplace_back("open");
        if (fails_life) {
            run.life.fail();
        }
        return result;
    }
    void begin() override
    {
        calls_.emplace_back("begin");
        if (throws_at_begin) {
            throw std::runtime_error("no bus");
        }
    }
    void close() noexcept override { calls_.emplace_back("close"); }
    sd_bus* bus() override { return nullptr; }

    RunResult result = RunResult::Done;
    bool fails_life = false;
    bool throws_at_begin = false;

private:
    std::vector<std::string>& calls_;
};

/// Waves at given times, which come at once.
class FakePlayback final : public IPlayback {
public:
    explicit FakePlayback(std::vector<std::chrono::nanoseconds> times) : times_(std::move(times)) {}

    std::chrono::nanoseconds now() override { return now_; }
    std::optional<std::chrono::nanoseconds> next_time() override
    {
        return next_ < times_.size() ? std::optional(0ns) : std::nullopt;
    }
    void begin_wave(Life& /*life*/) override { now_ = times_[next_++]; }

private:
    std::vector<std::chrono::nanoseconds> times_;
    std::size_t next_ = 0;
    std::chrono::nanoseconds now_{};
};

/// One block that runs in each wave, up to `waves`.
class RunnerTest : public ::testing::Test {
protected:
    RunnerTest()
    {
        block.on_start = [this] {
            calls.emplace_back("start");
            block.get_tools().request_run();
        };
        block.on_run = [this] {
            calls.emplace_back("run");
            block.get_tools().progress(static_cast<std::uint64_t>(block.runs), 9);
            block.get_tools().request_run();
            return block.runs < waves;
        };
        block.on_stop = [this] { calls.emplace_back("stop"); };
        graph.network = blocks.arrange();
        graph.blocks.resize(1);
    }

    RunResult run(IPlayback* playback = nullptr)
    {
        Runner runner(options, graph, loop, signals, outside, has_stop);
        if (playback != nullptr) {
            runner.play(*playback);
        }
        return runner.run();
    }

    void show_progress()
    {
        options.on_progress = [this](const std::string& path, std::uint64_t done,
                                     std::uint64_t total) {
            shown.push_back(path + " " + std::to_string(done) + "/" + std::to_string(total));
        };
    }

    LogRecorder recorder;
    FakeGraph blocks;
    FakeBlock& block = blocks.add("a");
    LoadedGraph graph;
    Loop loop;
    GraphOptions options;
    Signals* signals = nullptr;
    IOutside* outside = nullptr;
    std::atomic<bool> has_stop{false};
    int waves = 2;
    std::vector<std::string> calls;
    std::vector<std::string> shown;
};

TEST_F(RunnerTest, OpensToTheOutsideFirstAndClosesLast)
{
    FakeOutside all(calls);
    outside = &all;

    EXPECT_EQ(run(), RunResult::Done);

    EXPECT_THAT(calls, ElementsAre("open", "start", "begin", "run", "run", "stop", "close"));
}

TEST_F(RunnerTest, StartsNothingWhereTheOutsideCannotBeOpened)
{
    FakeOutside all(calls);
    outside = &all;
    for (const bool fails : {false, true}) {
        all.fails_life = fails;
        all.result = RunResult::WrongObjects;
        EXPECT_EQ(run(), RunResult::WrongObjects);
        all.result = RunResult::NoSource;
        EXPECT_EQ(run(), fails ? RunResult::Failed : RunResult::NoSource);
    }

    EXPECT_THAT(calls,
                ElementsAre("open", "close", "open", "close", "open", "close", "open", "close"));
}

TEST_F(RunnerTest, EndsTheRunWhenTheOutsideThrows)
{
    FakeOutside all(calls);
    outside = &all;
    all.throws_at_begin = true;

    EXPECT_EQ(run(), RunResult::Failed);

    EXPECT_THAT(calls, ElementsAre("open", "start", "begin", "stop", "close"));
    EXPECT_THAT(recorder.texts(), ElementsAre("the graph cannot run on: no bus"));
}

TEST_F(RunnerTest, RunsTheWavesOfAPlaybackAtItsTimes)
{
    waves = 100;
    std::vector<std::chrono::nanoseconds> times;
    const auto run_block = block.on_run;
    block.on_run = [&] {
        times.push_back(block.get_tools().now());
        return run_block();
    };
    FakePlayback playback({5ns, 8ns, 8ns});

    EXPECT_EQ(run(&playback), RunResult::Done);

    EXPECT_THAT(times, ElementsAre(5ns, 8ns, 8ns));
}

TEST_F(RunnerTest, NeedsNoSourceWhereItIsStoppedWhileItStarts)
{
    block.on_start = [this] { has_stop = true; };

    EXPECT_EQ(run(), RunResult::Done);

    EXPECT_THAT(recorder.texts(), IsEmpty());
}

TEST_F(RunnerTest, RunsNoWaveOfAPlaybackAfterAStop)
{
    FakePlayback playback({5ns, 8ns});
    has_stop = true;
    EXPECT_EQ(run(&playback), RunResult::Done);
    EXPECT_THAT(calls, IsEmpty());

    has_stop = false;
    waves = 100;
    block.on_run = [this] {
        has_stop = true;
        return true;
    };
    EXPECT_EQ(run(&playback), RunResult::Done);
    EXPECT_EQ(block.runs, 1);
}

TEST_F(RunnerTest, PlaysWhereNoBlockEverAsksForARun)
{
    block.on_start = [] {};
    FakePlayback playback({5ns});

    EXPECT_EQ(run(&playback), RunResult::Done);

    EXPECT_THAT(recorder.texts(), IsEmpty());
}

TEST_F(RunnerTest, ShowsProgressTenTimesASecondAndAtTheEnd)
{
    show_progress();
    waves = 100;
    FakePlayback playback({0ms, 99ms, 100ms, 100ms, 199ms, 200ms, 250ms});

    EXPECT_EQ(run(&playback), RunResult::Done);

    EXPECT_THAT(shown, ElementsAre("a 1/9", "a 3/9", "a 6/9", "a 7/9"));
}

TEST_F(RunnerTest, ShowsNoProgressThatWasShown)
{
    show_progress();
    waves = 1;

    EXPECT_EQ(run(), RunResult::Done);

    EXPECT_THAT(shown, ElementsAre("a 1/9"));
}

/// Progress of a block that rests after its last run is shown when the pause is over.
TEST_F(RunnerTest, WakesUpForProgressThatWaits)
{
    block.on_run = [this] {
        block.get_tools().progress(static_cast<std::uint64_t>(block.runs), 9);
        if (block.runs < 2) {
            block.get_tools().request_run();
        }
        return true;
    };
    options.on_progress = [this](const std::string& /*path*/, std::uint64_t done,
                                 std::uint64_t /*total*/) {
        if (done == 2) {
            has_stop = true;
            loop.waker()->wake();
        }
    };

    EXPECT_EQ(run(), RunResult::Done);

    EXPECT_EQ(block.runs, 2);
}

/// The same, told of to a service manager.
class ManagedRunnerTest : public RunnerTest {
protected:
    ManagedRunnerTest() { options.tells_manager = true; }

    const quorval_test::TemporaryDirectory directory;
    const std::string path = directory.path() / "notify";
    const NotifySocket socket{path};
    const ScopedEnvironment name{"NOTIFY_SOCKET", path};
};

TEST_F(ManagedRunnerTest, TellsTheManagerThatItIsReadyAndThatItStops)
{
    EXPECT_EQ(run(), RunResult::Done);
    EXPECT_EQ(socket.take_present(), "READY=1\nSTATUS=running, 1 blocks");
    EXPECT_EQ(socket.take_present(), "STOPPING=1\nSTATUS=stopping");
    EXPECT_EQ(socket.take_present(), "");

    block.on_start = [] { throw std::runtime_error("no"); };
    EXPECT_EQ(run(), RunResult::Failed);
    EXPECT_EQ(socket.take_present(), "STOPPING=1\nSTATUS=stopping");
    block.on_start = [] {};
    EXPECT_EQ(run(), RunResult::NoSource);
    EXPECT_EQ(socket.take_present(), "STOPPING=1\nSTATUS=stopping");
}

TEST_F(ManagedRunnerTest, ShowsThatItIsAliveInARunAndInAPlayback)
{
    const ScopedEnvironment time("WATCHDOG_USEC", "2000");
    FakePlayback playback({5ns, 8ns});

    for (IPlayback* one : {static_cast<IPlayback*>(nullptr), static_cast<IPlayback*>(&playback)}) {
        EXPECT_EQ(run(one), RunResult::Done);

        EXPECT_EQ(socket.take_present(), "READY=1\nSTATUS=running, 1 blocks");
        EXPECT_EQ(socket.take_present(), "WATCHDOG=1");
        const std::vector<std::string> rest = socket.take_all_present();
        ASSERT_FALSE(rest.empty());
        EXPECT_EQ(rest.back(), "STOPPING=1\nSTATUS=stopping");
    }
}

TEST_F(ManagedRunnerTest, ReadsFilesAgainInARunAndNotInAPlayback)
{
    options.files = {"/missing/g.toml"};
    waves = 100;
    block.on_run = [this] {
        block.get_tools().request_run();
        return block.runs % 3 != 0;
    };
    Signals taken(loop.waker());
    signals = &taken;
    std::raise(SIGHUP);
    EXPECT_EQ(run(), RunResult::Done);
    EXPECT_EQ(socket.take_present(), "READY=1\nSTATUS=running, 1 blocks");
    EXPECT_THAT(socket.take_present(), ::testing::StartsWith("RELOADING=1\nMONOTONIC_USEC="));
    EXPECT_EQ(socket.take_present(), "READY=1\nSTATUS=running, 1 blocks");
    EXPECT_EQ(socket.take_present(), "STOPPING=1\nSTATUS=stopping");
    EXPECT_EQ(recorder.texts().size(), 1U);
    recorder.clear();

    FakePlayback playback({5ns, 8ns});
    std::raise(SIGHUP);
    EXPECT_EQ(run(&playback), RunResult::Done);
    EXPECT_THAT(recorder.texts(), IsEmpty());
}

TEST(TakenSignals, WakeTheLoopAndAreForgottenWhenTheyWereTakenOrTheGraphIsGone)
{
    Loop loop;
    {
        Signals taken(loop.waker());
        EXPECT_FALSE(taken.take_reload());
        EXPECT_TRUE(loop.waker()->begin_sleep());
        loop.waker()->end_sleep();
        std::raise(SIGHUP);
        EXPECT_FALSE(loop.waker()->begin_sleep());
        loop.waker()->end_sleep();
        EXPECT_TRUE(taken.take_reload());
        EXPECT_FALSE(taken.take_reload());
        EXPECT_FALSE(taken.has_stop());
        std::raise(SIGHUP);
        std::raise(SIGTERM);
        EXPECT_TRUE(taken.has_stop());
    }
    Signals next(loop.waker());

    EXPECT_FALSE(next.has_stop());
    EXPECT_FALSE(next.take_reload());
}

TEST(TakenSignals, ArePutBackAllAndInterruptNoSystemCall)
{
    const IgnoredSignal ignored[] = {IgnoredSignal(SIGINT), IgnoredSignal(SIGTERM),
                                     IgnoredSignal(SIGHUP), IgnoredSignal(SIGPIPE)};
    Loop loop;
    struct sigaction action = {};
    {
        const Signals taken(loop.waker());
        ::sigaction(SIGHUP, nullptr, &action);
        EXPECT_NE(action.sa_flags & SA_RESTART, 0);
    }

    for (const int signal : {SIGINT, SIGTERM, SIGHUP, SIGPIPE}) {
        ::sigaction(signal, nullptr, &action);
        EXPECT_EQ(action.sa_handler, SIG_IGN) << signal;
    }
}

TEST(TakenSignals, AreTakenBackFromWhoBlocksThem)
{
    const LogRecorder recorder;
    Loop loop;
    sigset_t blocked;
    ::sigemptyset(&blocked);
    ::sigaddset(&blocked, SIGTERM);
    {
        const Signals taken(loop.waker());
        ::pthread_sigmask(SIG_BLOCK, &blocked, nullptr);
        give_back_signals();
    }
    ::pthread_sigmask(SIG_BLOCK, &blocked, nullptr);
    give_back_signals();
    ::pthread_sigmask(SIG_UNBLOCK, &blocked, nullptr);

    EXPECT_THAT(recorder.texts(), ElementsAre("a block blocked SIGTERM: taken back"));
}

TEST(TakenSignals, EndTheWaitForAPipeAndOthersDoNot)
{
    Loop loop;
    Signals taken(loop.waker());
    int ends[2] = {};
    ASSERT_EQ(::pipe2(ends, O_CLOEXEC), 0);
    std::thread writer([&ends] {
        std::raise(SIGHUP);
        EXPECT_EQ(::write(ends[1], "x", 1), 1);
    });

    EXPECT_TRUE(taken.wait_readable(ends[0]));
    writer.join();
    EXPECT_TRUE(taken.wait_readable(ends[0]));
    std::raise(SIGTERM);
    EXPECT_FALSE(taken.wait_readable(ends[0]));

    ::close(ends[0]);
    ::close(ends[1]);
}

TEST_F(RunnerTest, EndsAfterTheShortestTime)
{
    block.on_start = [this] { block.make_eventport("never"); };
    options.run_for = 1ns;

    EXPECT_EQ(run(), RunResult::Done);

    EXPECT_EQ(block.runs, 0);
}

TEST_F(RunnerTest, TakesWhatBecameReadyInARunAndInAPlayback)
{
    FakePlayback playback({5ns, 8ns});
    for (IPlayback* one : {static_cast<IPlayback*>(nullptr), static_cast<IPlayback*>(&playback)}) {
        FakeGraph other;
        FakeBlock& ready = other.add("a");
        ready.on_start = [&] { static_cast<EventPort*>(ready.make_eventport("event"))->fire(); };
        ready.on_run = [] { return false; };
        LoadedGraph other_graph;
        other_graph.network = other.arrange();
        Runner runner(options, other_graph, loop, nullptr, nullptr, has_stop);
        if (one != nullptr) {
            runner.play(*one);
        }

        EXPECT_EQ(runner.run(), RunResult::Done);

        EXPECT_EQ(ready.runs, 1);
    }
}

int write_seven(sd_event_source* /*source*/, void* output)
{
    static_cast<OutPort<int>*>(output)->write(7);
    return 0;
}

TEST_F(RunnerTest, TakesOverWhatIsWrittenInTheEventLoopInARunAndInAPlayback)
{
    FakePlayback playback({5ns, 8ns, 9ns});
    for (IPlayback* one : {static_cast<IPlayback*>(nullptr), static_cast<IPlayback*>(&playback)}) {
        FakeGraph other;
        FakeBlock& writer = other.add("a");
        FakeBlock& reader = other.add("b");
        OutPort<int>& out = writer.output("out");
        InPort<int>& in = reader.input("in");
        other.connect(writer, "out", reader, "in");
        writer.on_start = [&] {
            writer.make_eventport("never");
            sd_event_add_defer(writer.get_tools().loop(), nullptr, write_seven, &out);
        };
        reader.on_run = [&] {
            EXPECT_EQ(in.value(), 7);
            reader.get_tools().stop("enough");
            return true;
        };
        LoadedGraph other_graph;
        other_graph.network = other.arrange();
        Loop other_loop;
        Runner runner(options, other_graph, other_loop, nullptr, nullptr, has_stop);
        if (one != nullptr) {
            runner.play(*one);
        }

        EXPECT_EQ(runner.run(), RunResult::Done);

        EXPECT_EQ(reader.runs, 1);
    }
}

/// A graph with a machine, and perhaps a broker.
class RunnerLinkTest : public ::testing::Test {
protected:
    RunResult run(const std::string& machine, const std::string& link, IPlayback* playback,
                  const std::string& block = "type = \"running:Count\", config.count = 1")
    {
        files.write("g.toml", "format = 1\nmachines.m = {}\n" + link +
                                  "blocks.a = { machine = \"m\", " + block + " }\n");
        GraphOptions options = files.options();
        options.machine = machine;
        options.is_local = machine.empty();
        LoadedGraph graph = load_graph(options);
        recorder.clear();
        Loop loop;
        const std::atomic<bool> has_stop{false};
        Runner runner(options, graph, loop, nullptr, nullptr, has_stop);
        if (playback != nullptr) {
            runner.play(*playback);
        }
        const RunResult result = runner.run();
        EXPECT_THAT(runner.link_statistics(), IsEmpty());
        return result;
    }

    LogRecorder recorder{LOGLEVEL_WARNING};
    GraphFiles files;
};

TEST_F(RunnerLinkTest, FailsWhereAFileCannotBeUsed)
{
    const std::string wrong = "link = { broker = \"mqtts://127.0.0.1\", ca = \"/missing\" }\n";

    EXPECT_EQ(run("m", wrong, nullptr), RunResult::Failed);

    ASSERT_EQ(recorder.texts().size(), 1U);
    EXPECT_EQ(recorder.texts()[0].rfind("the link cannot be used: ", 0), 0U) << recorder.texts()[0];
}

TEST_F(RunnerLinkTest, EndsTheRunWhereTheBrokerRefusesIt)
{
    quorval_test::Server server;
    std::thread broker([&server] { server.refuse(); });

    const RunResult result = run("m", server.link(), nullptr,
                                 "type = \"running:Tell\", config = { is_idle = true, x = 1 }");
    broker.join();

    EXPECT_EQ(result, RunResult::Failed);
    EXPECT_THAT(recorder.texts(), ElementsAre("the broker " + server.url() +
                                              " refuses the connection: Not authorized"));
}

TEST_F(RunnerLinkTest, IsNotNeededOnOneMachineNorWithoutABrokerNorInAPlayback)
{
    const std::string wrong = "link = { broker = \"mqtts://127.0.0.1\", ca = \"/missing\" }\n";
    FakePlayback playback({1ns});

    EXPECT_EQ(run("", wrong, nullptr), RunResult::Done);
    EXPECT_EQ(run("m", "", nullptr), RunResult::Done);
    EXPECT_EQ(run("m", wrong, &playback), RunResult::Done);
    EXPECT_THAT(recorder.texts(), IsEmpty());
}

}  // namespace
