#include "run/life.h"

#include <quorval/runtime/messages.h>
#include "graph/saved.h"
#include "loop/descriptor.h"
#include "loop/loop.h"
#include "messages/context.h"
#include "messages/left_open.h"
#include "messages/signal_mask.h"
#include "run/overrides.h"
#include "runtime/support/fake_world.h"
#include "runtime/support/fakes.h"
#include "schedule/workers.h"
#include "support/support.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <systemd/sd-bus.h>
#include <systemd/sd-event.h>

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <list>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <variant>
#include <vector>

using namespace Quorval;
using namespace Quorval::runtime;
using namespace std::chrono_literals;
using quorval_test::FakeBlock;
using quorval_test::FakeGraph;
using quorval_test::FakeWorld;
using quorval_test::LogRecorder;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

namespace {

constexpr bool kSkips = true;

/// Three blocks, "a", "b" and "c", that write down what is called, and their life.
class LifeTest : public ::testing::Test {
protected:
    LifeTest()
    {
        for (FakeBlock* block : {&a, &b, &c}) {
            const std::string name = block->get_name();
            block->on_start = [this, name] { note("start " + name); };
            block->on_stop = [this, name] { note("stop " + name); };
            block->on_run = [this, name] {
                note("run " + name);
                return true;
            };
        }
        graph.arrange();
        life = std::make_unique<Life>(graph.network(), world, nullptr, nullptr);
    }

    void note(const std::string& what) { calls.push_back(what); }

    LogRecorder recorder;
    FakeGraph graph;
    FakeBlock& a = graph.add("a");
    FakeBlock& b = graph.add("b", kSkips);
    FakeBlock& c = graph.add("c");
    FakeWorld world;
    std::unique_ptr<Life> life;
    std::vector<std::string> calls;
};

TEST_F(LifeTest, StartsFromTheLastToTheFirstAndStopsFromTheFirstToTheLast)
{
    b.on_start = [&] { b.get_tools().request_run(); };

    EXPECT_TRUE(life->start());
    life->step();
    life->stop();

    EXPECT_THAT(calls, ElementsAre("start c", "start a", "run b", "stop a", "stop b", "stop c"));
    EXPECT_FALSE(life->has_failed());
}

TEST_F(LifeTest, HasNothingToDoWithoutASource)
{
    EXPECT_FALSE(life->start());
}

TEST_F(LifeTest, StopsTheStartedWhenAStartFails)
{
    b.on_start = [] { throw std::runtime_error("no device"); };

    life->start();
    EXPECT_TRUE(life->is_over());
    life->stop();

    EXPECT_THAT(calls, ElementsAre("start c", "stop c"));
    EXPECT_TRUE(life->has_failed());
    EXPECT_THAT(recorder.texts(), ElementsAre("block 'b' failed in start: no device"));
}

TEST_F(LifeTest, StartsNoFurtherBlockWhenItHasToStop)
{
    b.on_start = [&] { world.stops = true; };

    life->start();
    EXPECT_TRUE(life->is_over());
    world.stops = false;
    EXPECT_TRUE(life->is_over());
    life->stop();

    EXPECT_THAT(calls, ElementsAre("start c", "stop b", "stop c"));
    EXPECT_EQ(b.runs, 0);
    EXPECT_FALSE(life->has_failed());
}

TEST_F(LifeTest, StopsTheOthersWhenAStopFails)
{
    b.on_stop = []() { throw 5; };

    life->start();
    life->stop();

    EXPECT_THAT(calls, ElementsAre("start c", "start b", "start a", "stop a", "stop c"));
    EXPECT_TRUE(life->has_failed());
    EXPECT_THAT(recorder.texts(), ElementsAre("block 'b' failed in stop: an unknown exception"));
}

TEST_F(LifeTest, IsOverWhenTheLastSourceIsDone)
{
    a.on_start = [&] { a.get_tools().request_run(); };
    b.on_start = [&] { b.get_tools().run_at(101s); };
    a.on_run = [] { return false; };
    b.on_run = [] { return false; };
    life->start();

    life->step();
    EXPECT_FALSE(life->is_over());
    world.time = 101s;
    life->step();

    EXPECT_TRUE(life->is_over());
}

TEST_F(LifeTest, WithoutASourceIsOverAfterTheWavesThatOutputsCause)
{
    FakeGraph other;
    FakeBlock& writer = other.add("a");
    FakeBlock& reader = other.add("b");
    OutPort<int>& out = writer.output("out");
    reader.input("in");
    other.connect(writer, "out", reader, "in");
    writer.on_start = [&] { out.write(1); };
    reader.on_run = [&] {
        if (reader.runs == 1) {
            reader.get_tools().request_run();
        }
        return true;
    };
    Life short_life(other.arrange(), world, nullptr, nullptr);

    EXPECT_TRUE(short_life.start());
    EXPECT_FALSE(short_life.is_over());
    short_life.step();
    EXPECT_FALSE(short_life.is_over());
    short_life.step();

    EXPECT_TRUE(short_life.is_over());
    EXPECT_EQ(reader.runs, 2);
    EXPECT_EQ(writer.runs, 0);
}

TEST_F(LifeTest, RunsABlockAtItsTimeAndNotBefore)
{
    a.on_start = [&] { a.get_tools().run_at(105s); };
    life->start();

    life->step();
    EXPECT_EQ(a.runs, 0);
    EXPECT_EQ(life->next_time(), 105s);
    world.time = 105s;
    life->step();
    life->step();

    EXPECT_EQ(a.runs, 1);
    EXPECT_FALSE(life->next_time().has_value());
}

TEST_F(LifeTest, DoesNotUseUpATimeByAnotherRun)
{
    a.on_start = [&] {
        a.get_tools().run_at(103s);
        a.get_tools().run_at(105s);
        a.get_tools().request_run();
    };
    life->start();
    life->step();
    EXPECT_EQ(a.runs, 1);

    world.time = 104s;
    life->step();
    EXPECT_EQ(a.runs, 1);
    world.time = 106s;
    life->step();

    EXPECT_EQ(a.runs, 2);
}

TEST_F(LifeTest, TakesATimeBack)
{
    a.on_start = [&] {
        a.get_tools().run_at(103s);
        a.get_tools().run_at(-1ns);
    };

    EXPECT_FALSE(life->start());

    EXPECT_FALSE(life->next_time().has_value());
}

TEST_F(LifeTest, GivesABlockNoTimeAfterItsEnd)
{
    a.on_start = [&] { a.get_tools().request_run(); };
    a.on_run = [&] {
        a.get_tools().run_at(103s);
        return false;
    };
    life->start();
    life->step();
    a.get_tools().run_at(104s);

    EXPECT_FALSE(life->next_time().has_value());
    world.time = 105s;
    life->step();

    EXPECT_EQ(a.runs, 1);
}

TEST_F(LifeTest, RunsABlockAtOnceThatWantsToAtTheBeginningOfTime)
{
    a.on_start = [&] { a.get_tools().run_at(0ns); };

    EXPECT_TRUE(life->start());
    EXPECT_EQ(life->next_time(), 0ns);
    life->step();

    EXPECT_EQ(a.runs, 1);
}

TEST_F(LifeTest, TellsThatAGraphWasStarted)
{
    was_started() = false;

    life->start();

    EXPECT_TRUE(was_started());
}

TEST_F(LifeTest, LooksAtTheOutputsOfBlocksThatUseTheEventLoop)
{
    FakeGraph other;
    FakeBlock& writer = other.add("a");
    FakeBlock& unseen = other.add("b");
    FakeBlock& reader = other.add("c");
    OutPort<int>& out = writer.output("out");
    OutPort<int>& unseen_out = unseen.output("out");
    reader.input("in");
    reader.input("unseen");
    other.connect(writer, "out", reader, "in");
    other.connect(unseen, "out", reader, "unseen");
    writer.on_start = [&] { writer.get_tools().loop(); };
    Life watching_life(other.arrange(), world, nullptr, nullptr);
    watching_life.start();
    watching_life.step();

    unseen_out.write(1);
    watching_life.look_around();
    EXPECT_FALSE(watching_life.has_work());
    out.write(2);
    watching_life.look_around();
    EXPECT_TRUE(watching_life.has_work());
    watching_life.step();

    EXPECT_EQ(reader.runs, 1);
}

TEST_F(LifeTest, ServesABlockNoMoreThatIsStopped)
{
    b.on_stop = [&] {
        a.get_tools().progress(1, 2);
        b.get_tools().progress(3, 4);
    };
    life->start();

    life->stop();

    EXPECT_THAT(world.progresses, ElementsAre("b 3/4"));
}

TEST_F(LifeTest, LeavesServicesThatDoNothingWhereItWasNotStopped)
{
    Loop loop;
    FakeGraph other;
    FakeBlock& first = other.add("a");
    FakeBlock& second = other.add("b");
    auto short_life = std::make_unique<Life>(other.arrange(), world, nullptr, loop.waker());
    first.get_tools().request_run();
    EXPECT_FALSE(loop.waker()->begin_sleep());
    loop.waker()->end_sleep();
    short_life.reset();

    for (FakeBlock* block : {&first, &second}) {
        RuntimeTools& tools = block->get_tools();
        tools.request_run();
        tools.progress(1, 2);
        tools.stop("no");
        tools.keep_place();
        EXPECT_EQ(tools.loop(), nullptr);
        EXPECT_EQ(tools.now(), 100s);
    }

    EXPECT_TRUE(loop.waker()->begin_sleep());
    EXPECT_THAT(world.progresses, IsEmpty());
    EXPECT_THAT(recorder.texts(), IsEmpty());
}

/// Writes down what it is told.
class WatcherOfOutputs final : public IOutputWatcher {
public:
    void begin(const std::vector<bool>& is_source) override
    {
        sources = is_source;
        told.emplace_back("begin");
    }
    void wave_begins(std::chrono::nanoseconds time) override
    {
        told.push_back("wave at " + std::to_string(time / 1s));
    }
    void see(const OutPortInternal& output, bool is_early) override
    {
        told.push_back((is_early ? "early " : "") + output.get_name() + " " +
                       std::to_string(*static_cast<const int*>(output.get_data())));
    }
    void wave_ends() override { told.emplace_back("end"); }

    std::vector<bool> sources;
    std::vector<std::string> told;
};

TEST_F(LifeTest, ShowsOutputsWaveByWave)
{
    FakeGraph other;
    FakeBlock& writer = other.add("a");
    OutPort<int>& out = writer.output("out");
    OutPort<int>& next = writer.output("next");
    writer.on_start = [&] {
        out.write(1);
        writer.get_tools().request_run();
    };
    writer.on_run = [&] {
        next.write(2);
        return true;
    };
    Life watched_life(other.arrange(), world, nullptr, nullptr);
    WatcherOfOutputs watcher;
    watched_life.watch_outputs(watcher);

    watched_life.start();
    watched_life.step();

    EXPECT_THAT(watcher.told,
                ElementsAre("begin", "wave at 100", "early out 1", "out 1", "next 2", "end"));
}

TEST_F(LifeTest, ShowsThatItBeginsWhenItIsToStopAtOnce)
{
    WatcherOfOutputs watcher;
    life->watch_outputs(watcher);
    world.stops = true;

    EXPECT_TRUE(life->start());

    EXPECT_THAT(watcher.told, ElementsAre("begin"));
    EXPECT_THAT(calls, IsEmpty());
}

/// The sources of a life among its blocks.
std::vector<bool> sources_of(FakeGraph& graph, FakeWorld& world)
{
    Life life(graph.arrange(), world, nullptr, nullptr);
    WatcherOfOutputs watcher;
    life.watch_outputs(watcher);
    life.start();
    return watcher.sources;
}

const sd_bus_vtable kTable{};

TEST_F(LifeTest, TakesForSourcesWhatCanBeWokenFromOutside)
{
    for (const bool has_bus : {false, true}) {
        FakeGraph other;
        other.add("a");
        FakeBlock& asks = other.add("b");
        asks.on_start = [&] { asks.get_tools().request_run(); };
        FakeBlock& waits = other.add("c");
        waits.on_start = [&] { waits.get_tools().run_at(1h); };
        FakeBlock& has_port = other.add("d");
        has_port.on_start = [&] { has_port.make_eventport("event"); };
        other.add("e").add_dbus("/e", "x.y", &kTable, nullptr);
        other.add("f");
        // Only what is not null matters of it here.
        world.connection = has_bus ? reinterpret_cast<sd_bus*>(&world) : nullptr;

        EXPECT_THAT(sources_of(other, world), ElementsAre(false, true, true, true, has_bus, false));
    }
}

TEST_F(LifeTest, TakesForSourcesWhatOtherMachinesTrigger)
{
    FakeGraph other;
    for (const char* name : {"a", "b", "c", "d", "e"}) {
        FakeBlock& block = other.add(name);
        block.input("late");
        block.input("in");
        if (*name != 'c') {
            other.connect_remote(block, "late", true);
        }
        if (*name == 'a' || *name == 'd') {
            other.connect_remote(block, "in");
        }
    }

    EXPECT_THAT(sources_of(other, world), ElementsAre(true, false, false, true, false));
}

TEST_F(LifeTest, RefusesToBeWokenByWhatIsNoPort)
{
    life->start();

    life->take({{kFirstReservedTag, true, false}, {kFirstReservedTag + 1, true, true}});

    EXPECT_FALSE(life->has_work());
}

// --- descriptors ---

/// A block with a port, watched by a loop.
class LifePortsTest : public LifeTest {
protected:
    LifePortsTest()
    {
        block.on_start = [this] { port = static_cast<EventPort*>(block.make_eventport("event")); };
        ported.arrange();
        ported_life = std::make_unique<Life>(ported.network(), world, &loop.poller(), nullptr);
    }

    /// Whether a port is ready, which the life takes.
    bool take()
    {
        const std::vector<Ready>& ready = loop.wait(0ns);
        ported_life->take(ready);
        return std::any_of(ready.begin(), ready.end(),
                           [](const Ready& one) { return one.tag < kFirstReservedTag; });
    }

    Loop loop;
    FakeGraph ported;
    FakeBlock& block = ported.add("a");
    EventPort* port = nullptr;
    std::unique_ptr<Life> ported_life;
};

TEST_F(LifePortsTest, RunABlockWhenTheyAreReady)
{
    EXPECT_TRUE(ported_life->start());
    EXPECT_FALSE(take());
    port->fire();

    EXPECT_TRUE(take());
    ported_life->step();
    ported_life->step();

    EXPECT_EQ(block.runs, 1);
    EXPECT_FALSE(take());
}

TEST_F(LifePortsTest, AreNotWatchedAfterTheEndOfTheirBlock)
{
    block.on_run = [] { return false; };
    ported_life->start();
    port->fire();
    take();
    ported_life->step();
    port->fire();

    EXPECT_FALSE(take());
    EXPECT_TRUE(ported_life->is_over());
}

TEST_F(LifePortsTest, AreNotWatchedAfterTheStop)
{
    ported_life->start();
    ported_life->stop();
    port->fire();

    EXPECT_FALSE(take());
}

TEST_F(LifePortsTest, AreNotWatchedAfterALifeThatWasNotStopped)
{
    ported_life->start();
    ported_life.reset();
    port->fire();

    for (const Ready& ready : loop.wait(0ns)) {
        EXPECT_GE(ready.tag, kFirstReservedTag);
    }
}

TEST_F(LifePortsTest, AreLookedAtWhereTheyAreNeverDrained)
{
    int ends[2] = {};
    ASSERT_EQ(::pipe2(ends, O_CLOEXEC), 0);
    ASSERT_EQ(::write(ends[1], "x", 1), 1);
    block.on_start = [&] { block.make_fdport("pipe", ends[0], {true, false}); };
    ported_life->start();

    for (int wave = 0; wave < 1000; ++wave) {
        take();
        ported_life->step();
    }
    ported_life->stop();
    ::close(ends[0]);
    ::close(ends[1]);

    EXPECT_EQ(block.runs, 1000);
    EXPECT_THAT(recorder.texts(),
                ElementsAre("descriptor port 'pipe' was still readable after its block's run in "
                            "1000 waves in a row: the block may not drain it"));
}

// --- what blocks do to the process ---

/// Blocks a signal in the operation of a block.
void block_signal()
{
    sigset_t signals;
    ::sigemptyset(&signals);
    ::sigaddset(&signals, SIGTERM);
    ::pthread_sigmask(SIG_BLOCK, &signals, nullptr);
}

TEST_F(LifeTest, TakesSignalsBackBehindTheStartAndOnceASecond)
{
    watch_signals();
    a.on_start = [&] {
        block_signal();
        a.get_tools().request_run();
    };
    a.on_run = [&] {
        block_signal();
        a.get_tools().request_run();
        return true;
    };
    life->start();
    EXPECT_THAT(recorder.texts(), ElementsAre("block 'a' blocked SIGTERM in start: taken back"));
    const auto warnings_after = [&](std::chrono::nanoseconds time) {
        recorder.clear();
        world.time = time;
        life->step();
        return recorder.texts().size();
    };

    EXPECT_EQ(warnings_after(0s), 1U);
    EXPECT_EQ(warnings_after(1s - 1ns), 0U);
    EXPECT_EQ(warnings_after(1s), 1U);
    EXPECT_EQ(warnings_after(2s - 1ns), 0U);
    EXPECT_EQ(warnings_after(5s), 1U);
    forget_signals();
}

/// What a file is opened for that stays open.
class LifeDescriptorsTest : public LifeTest {
protected:
    /// Has the block open a file.
    void open(const std::string& name)
    {
        const std::string file = directory.path() / name;
        quorval_test::write_file(file, "");
        opened.emplace_back(::open(file.c_str(), O_RDONLY | O_CLOEXEC), "open");
    }

    /// What is told of a life that goes as far as its end.
    std::vector<std::string> told_of_life()
    {
        {
            LeftOpen watch(true);
            // As that of the loop of a graph, it has the number that the first look itself used.
            const Descriptor guarded(::open("/dev/null", O_RDONLY | O_CLOEXEC), "open");
            watch.guard(guarded.get());
            life->start();
            life->step();
            life->stop();
        }
        return recorder.texts();
    }

    std::string warning(const std::string& who, const std::string& name) const
    {
        return who + " left a descriptor open: '" + (directory.path() / name).string() + "'";
    }

    quorval_test::TemporaryDirectory directory;
    std::list<Descriptor> opened;
};

TEST_F(LifeDescriptorsTest, AreToldOfWithTheBlockThatLeftThemOpen)
{
    c.on_start = [&] { open("start"); };
    b.on_start = [&] { b.get_tools().request_run(); };
    b.on_run = [&] {
        open("run");
        return true;
    };
    a.on_stop = [&] { open("stop"); };

    EXPECT_THAT(told_of_life(), ElementsAre(warning("a block", "run"), warning("block 'a'", "stop"),
                                            warning("block 'c'", "start")));
}

TEST_F(LifeDescriptorsTest, AreToldOfWhereTheStartFailed)
{
    b.on_start = [&] {
        open("start");
        throw std::runtime_error("no");
    };

    EXPECT_THAT(told_of_life(),
                ElementsAre("block 'b' failed in start: no", warning("block 'b'", "start")));
}

TEST_F(LifeTest, HasASourceOnAnotherMachineUnlessAllThatComesFromThereIsDelayed)
{
    for (const bool has_other : {false, true}) {
        FakeGraph other;
        FakeBlock& reader = other.add("a");
        FakeBlock& last = other.add("b");
        reader.input("late");
        other.connect_remote(reader, "late", true);
        if (has_other) {
            reader.input("in");
            other.connect_remote(reader, "in");
        }
        last.input("late");
        other.connect_remote(last, "late", true);
        Life far_life(other.arrange(), world, nullptr, nullptr);

        EXPECT_EQ(far_life.start(), has_other);
    }
}

TEST_F(LifeTest, ShowsTheTimeOfTheWave)
{
    std::vector<std::chrono::nanoseconds> times;
    a.on_run = [&] {
        world.time += 1s;
        times.push_back(a.get_tools().now());
        a.get_tools().request_run();
        return true;
    };
    a.on_start = [&] {
        times.push_back(a.get_tools().now());
        a.get_tools().request_run();
    };
    life->start();
    life->step();
    life->step();

    EXPECT_THAT(times, ElementsAre(100s, 100s, 101s));
    EXPECT_EQ(a.get_tools().now(), 102s);
}

TEST_F(LifeTest, CountsManyRequestsAsOneAndTakesOneInARunForTheNextWave)
{
    a.on_start = [&] {
        a.get_tools().request_run();
        a.get_tools().request_run();
    };
    a.on_run = [&] {
        if (a.runs == 1) {
            a.get_tools().request_run();
        }
        return true;
    };
    life->start();

    life->step();
    EXPECT_EQ(a.runs, 1);
    EXPECT_EQ(life->next_time(), 0ns);
    life->step();
    life->step();

    EXPECT_EQ(a.runs, 2);
}

TEST_F(LifeTest, StopsAfterTheWaveInWhichABlockAsksForIt)
{
    a.on_start = [&] { a.get_tools().request_run(); };
    c.on_start = [&] { c.get_tools().request_run(); };
    a.on_run = [&] {
        a.get_tools().stop("enough");
        return true;
    };
    life->start();
    life->step();

    EXPECT_TRUE(life->is_over());
    EXPECT_EQ(c.runs, 1);
    EXPECT_FALSE(life->has_failed());
    EXPECT_EQ(recorder.lines().size(), 1U);
    EXPECT_EQ(recorder.lines().front().text, "enough");
    EXPECT_EQ(recorder.lines().front().level, LOGLEVEL_INFO);
}

TEST_F(LifeTest, FailsWithABlockThatDoesNotSkip)
{
    a.on_start = [&] { a.get_tools().request_run(); };
    c.on_start = [&] { c.get_tools().request_run(); };
    a.on_run = []() -> bool { throw std::runtime_error("no disk"); };
    life->start();
    life->step();

    EXPECT_TRUE(life->is_over());
    EXPECT_TRUE(life->has_failed());
    EXPECT_EQ(c.runs, 0);
    EXPECT_THAT(recorder.texts(), ElementsAre("block 'a' failed in run: no disk"));
}

TEST_F(LifeTest, ReportsFailuresOfOneBlockOnceASecond)
{
    b.on_start = [&] { b.get_tools().request_run(); };
    b.on_run = [&]() -> bool {
        b.get_tools().request_run();
        throw std::runtime_error("again");
    };
    life->start();
    for (int wave = 0; wave < 5; ++wave) {
        life->step();
        world.time += 400ms;
    }
    life->stop();

    EXPECT_FALSE(life->has_failed());
    EXPECT_THAT(recorder.texts(),
                ElementsAre("block 'b' failed in run: again",
                            "block 'b' failed in run: again (2 more since the last one)",
                            "block 'b' failed in run 1 more times"));
}

TEST_F(LifeTest, ShowsProgress)
{
    a.on_start = [&] { a.get_tools().progress(1, 4); };

    life->start();

    EXPECT_THAT(world.progresses, ElementsAre("a 1/4"));
}

TEST_F(LifeTest, GivesServicesThatDoNothingAfterwards)
{
    a.on_start = [&] { a.get_tools().request_run(); };
    a.on_stop = [&] { a.get_tools().progress(1, 1); };
    life->start();
    life->step();
    life->stop();
    world.progresses.clear();
    life.reset();
    RuntimeTools& tools = a.get_tools();

    tools.request_run();
    tools.run_at(0ns);
    tools.progress(1, 2);
    tools.stop("no");

    EXPECT_EQ(tools.path(), "a");
    EXPECT_EQ(tools.now(), 100s);
    EXPECT_EQ(tools.loop(), nullptr);
    EXPECT_EQ(tools.bus(), nullptr);
    EXPECT_THAT(world.progresses, IsEmpty());
    EXPECT_THAT(recorder.texts(), IsEmpty());
}

TEST_F(LifeTest, NamesBlockAndOperation)
{
    std::vector<std::string> contexts;
    const auto where = [&] {
        contexts.push_back(std::string(context().path) + " " + context().operation);
    };
    a.on_start = [&] {
        where();
        a.get_tools().request_run();
    };
    a.on_run = [&] {
        where();
        return true;
    };
    a.on_stop = where;

    life->start();
    life->step();
    life->stop();

    EXPECT_THAT(contexts, ElementsAre("a start", "a run", "a stop"));
}

/// Blocks that write down the overrides that they get.
class OverridesTest : public LifeTest {
protected:
    OverridesTest()
    {
        for (FakeBlock* block : {&a, &b}) {
            const std::string name = block->get_name();
            block->on_reconfigure = [this, name](const auto& /*merged*/, const auto& override) {
                note(name + " " + std::to_string(override.getInt("x", -1)) + " " +
                     std::to_string(override.getInt("y", -1)));
            };
        }
        life->start();
        calls.clear();
        loaded.network = graph.network();
        for (const char* path : {"a", "b", "c"}) {
            LoadedBlock block;
            block.place.path = path;
            block.place.member = &member;
            block.config = {{"x", 1}};
            loaded.blocks.push_back(std::move(block));
        }
    }

    /// Gives a block a type with settings.
    void declare(std::uint32_t block)
    {
        loaded.blocks[block].declared = &settings;
        loaded.blocks[block].description = &description;
    }

    static Quorval::Setting setting(const std::string& key, bool is_live)
    {
        Quorval::Setting setting;
        setting.key = key;
        setting.is_live = is_live;
        return setting;
    }

    MemberDescription member = [] {
        MemberDescription made;
        made.type = "plug:Type";
        return made;
    }();
    std::vector<Quorval::Setting> settings = {setting("x", true), setting("y", true),
                                              setting("fixed", false)};
    BlockConfiguration description{
        {"settings",
         {{{"key", "x"}, {"default", 0}}, {{"key", "y"}, {"default", 2}}, {{"key", "fixed"}}}}};
    LoadedGraph loaded;
    Overrides overrides{loaded, *life};
};

TEST_F(OverridesTest, GiveABlockAllThatWasChangedOfIt)
{
    EXPECT_EQ(overrides.change({{0, {{"x", 5}}}}), "");
    EXPECT_EQ(overrides.change({{0, {{"y", 6}}}}), "");

    EXPECT_THAT(calls, ElementsAre("a 5 -1", "a 5 6"));
    EXPECT_EQ(overrides.present(0), (BlockConfiguration{{"x", 5}, {"y", 6}}));
    EXPECT_THAT(recorder.texts(), IsEmpty());
}

TEST_F(OverridesTest, TakeAllBackWhenABlockThrows)
{
    overrides.change({{0, {{"y", 3}}}});
    calls.clear();
    b.on_reconfigure = [this](const auto& /*merged*/, const auto& override) {
        const int x = override.getInt("x");
        note("b " + std::to_string(x));
        if (x == 7) {
            throw std::runtime_error("7 is odd");
        }
    };

    EXPECT_EQ(overrides.change({{0, {{"x", 5}, {"y", 6}, {"z", 1}}}, {1, {{"x", 7}}}}),
              "block 'b': 7 is odd");

    EXPECT_THAT(calls, ElementsAre("a 5 6", "b 7", "a 1 3", "b 1"));
    EXPECT_EQ(overrides.present(0), (BlockConfiguration{{"x", 1}, {"y", 3}}));
    EXPECT_EQ(overrides.present(1), (BlockConfiguration{{"x", 1}}));
}

TEST_F(OverridesTest, ReportWhatABlockThrowsWhenItIsToGoBack)
{
    b.on_reconfigure = [](const auto& /*merged*/, const auto& /*override*/) {
        throw std::runtime_error("never");
    };

    EXPECT_EQ(overrides.change({{1, {{"x", 7}}}}), "block 'b': never");

    EXPECT_THAT(recorder.texts(), ElementsAre("block 'b' failed in reconfigure: never"));
    EXPECT_FALSE(life->has_failed());
}

TEST_F(OverridesTest, TakeAKeyBackToItsDeclaredDefault)
{
    declare(0);
    b.on_reconfigure = [](const auto& /*merged*/, const auto& override) {
        if (override.getInt("x") == 7) {
            throw std::runtime_error("7 is odd");
        }
    };

    EXPECT_EQ(overrides.change({{0, {{"y", 6}}}, {1, {{"x", 7}}}}), "block 'b': 7 is odd");

    EXPECT_THAT(calls, ElementsAre("a -1 6", "a -1 2"));
}

TEST_F(OverridesTest, RefuseBeforeAnythingIsTouched)
{
    declare(1);
    const std::vector<std::pair<BlockConfiguration, std::string>> refused = {
        {{{"z", 1}}, "block 'b': block type 'plug:Type' has no setting 'z'"},
        {{{"fixd", 1}},
         "block 'b': block type 'plug:Type' has no setting 'fixd'; did you mean 'fixed'?"},
        {{{"fixed", 1}}, "block 'b': 'fixed' cannot be changed while the graph runs"},
        {{{"pstore_path", "/"}}, "block 'b': 'pstore_path' cannot be changed while the graph runs"},
    };

    for (const auto& [values, text] : refused) {
        EXPECT_EQ(overrides.change({{0, {{"x", 5}}}, {1, values}}), text);
    }

    EXPECT_THAT(calls, IsEmpty());
}

TEST_F(OverridesTest, LeaveWhatWasChangedInTheRunningGraphWhenFilesChange)
{
    std::vector<BlockConfiguration> told;
    overrides.set_listener([&told](const std::vector<Change>& changes) {
        for (const Change& change : changes) {
            told.push_back(change.values);
        }
    });
    overrides.change({{0, {{"x", 5}}}});

    EXPECT_EQ(overrides.reload({{0, {{"x", 6}, {"y", 7}}}, {1, {{"x", 8}}}}), "");
    EXPECT_EQ(overrides.reload({{0, {{"x", 9}}}}), "");

    EXPECT_THAT(calls, ElementsAre("a 5 -1", "a 5 7", "b 8 -1"));
    EXPECT_THAT(told, ElementsAre(BlockConfiguration{{"y", 7}}, BlockConfiguration{{"x", 8}}));
    EXPECT_THAT(overrides.changed_keys(0), ElementsAre("x"));
}

TEST_F(OverridesTest, TakeOverWhatABlockWritesWhileItIsChanged)
{
    for (const bool throws : {false, true}) {
        FakeGraph other;
        FakeBlock& writer = other.add("a");
        FakeBlock& reader = other.add("b");
        OutPort<int>& out = writer.output("out");
        reader.input("in");
        other.connect(writer, "out", reader, "in");
        writer.on_reconfigure = [&](const auto& /*merged*/, const auto& override) {
            if (override.getInt("x", 0) == 7) {
                out.write(7);
                if (throws) {
                    throw std::runtime_error("no");
                }
            }
        };
        Life other_life(other.arrange(), world, nullptr, nullptr);
        other_life.start();
        other_life.step();
        LoadedGraph other_loaded;
        other_loaded.network = other.network();
        other_loaded.blocks.resize(2);
        Overrides other_overrides(other_loaded, other_life);

        EXPECT_EQ(other_overrides.change({{0, {{"x", 7}}}}), throws ? "block 'a': no" : "");
        EXPECT_TRUE(other_life.has_work());
        other_life.step();

        EXPECT_EQ(reader.runs, 1) << throws;
    }
}

TEST_F(OverridesTest, SaveWhatWasChangedInTheRunningGraphAndWhatWasSavedBefore)
{
    const quorval_test::TemporaryDirectory directory;
    const std::string state = directory.path() / "state";
    for (const auto& [path, key] : {std::pair("a", "x"), std::pair("b", "old")}) {
        Assignment& one = loaded.saved.emplace_back();
        one.path = path;
        one.setting.key = key;
        one.setting.value = 1;
    }
    overrides.change({{0, {{"x", 7}, {"y", 8}}}});
    overrides.reload({{1, {{"x", 9}}}});

    overrides.save(state);

    std::vector<std::string> saved;
    for (const Assignment& one : read_saved(state)) {
        saved.push_back(one.path + "." + one.setting.key + " " +
                        std::to_string(std::get<int>(one.setting.value)));
    }
    EXPECT_THAT(saved, ElementsAre("a.x 7", "a.y 8", "b.old 1"));
}

// --- several threads ---

/// Keeps the thread of the graph busy, so that other threads take what they may.
FakeBlock& add_busy(FakeGraph& graph)
{
    FakeBlock& busy = graph.add("0");
    busy.on_start = [&busy] {
        busy.get_tools().loop();
        busy.get_tools().request_run();
    };
    busy.on_run = [&busy] {
        for (int turn = 0; turn < 1000; ++turn) {
            std::this_thread::yield();
        }
        busy.get_tools().request_run();
        return true;
    };
    return busy;
}

TEST(LifeThreads, RunBlocksSideBySide)
{
    FakeGraph graph;
    FakeWorld world;
    std::atomic<int> begun{0};
    for (const char* name : {"a", "b"}) {
        FakeBlock& block = graph.add(name);
        block.on_start = [&block] { block.get_tools().request_run(); };
        block.on_run = [&begun] {
            ++begun;
            while (Workers::are_there() && begun < 2) {
                std::this_thread::yield();
            }
            return false;
        };
    }
    graph.arrange();
    Life life(graph.network(), world, nullptr, nullptr);
    life.use_threads({2, std::chrono::nanoseconds(0), true});

    life.start();
    life.step();

    EXPECT_EQ(begun, 2);
}

/// What a life tells and does in some waves, with threads or without. A block fails in the third.
std::vector<std::string> live(bool has_threads, bool skips_failures)
{
    const Messages messages(LOGLEVEL_DEBUG);
    testing::internal::CaptureStderr();
    FakeGraph graph;
    FakeWorld world;
    std::vector<FakeBlock*> blocks;
    for (const char* name : {"a", "b", "c", "d", "e"}) {
        FakeBlock& block = graph.add(name, skips_failures);
        block.on_start = [&block] { block.get_tools().request_run(); };
        block.on_run = [&block] {
            RuntimeTools& tools = block.get_tools();
            const auto runs = static_cast<std::uint64_t>(block.runs);
            ilog(LOGLEVEL_INFO) << tools.path() << " runs at " << tools.now().count();
            tools.progress(runs, 9);
            tools.run_at(tools.now() + std::chrono::seconds(block.runs % 3));
            if (block.runs % 4 == 0) {
                tools.request_run();
            }
            if (tools.path() == "c" && runs == 3) {
                throw std::runtime_error("no third time");
            }
            if (tools.path() == "d" && runs == 7) {
                tools.stop("enough");
            }
            return tools.path() != "b" || runs < 4;
        };
        blocks.push_back(&block);
    }
    graph.arrange();
    Life life(graph.network(), world, nullptr, nullptr);
    if (has_threads && Workers::are_there()) {
        life.use_threads({4, std::chrono::nanoseconds(0), true});
    }
    life.start();
    while (!life.is_over()) {
        life.step();
        world.time += 1s;
    }
    life.stop();
    std::vector<std::string> all;
    std::istringstream written(testing::internal::GetCapturedStderr());
    for (std::string line; std::getline(written, line);) {
        all.push_back(line);
    }
    all.insert(all.end(), world.progresses.begin(), world.progresses.end());
    for (const FakeBlock* block : blocks) {
        // One behind the block that failed may have run, which does not count.
        all.push_back(std::to_string(life.wave().runs(graph.number_of(*block))));
    }
    all.push_back(std::to_string(life.wave().waves()) + (life.has_failed() ? " failed" : ""));
    return all;
}

TEST(LifeThreads, DoWhatOneThreadDoes)
{
    for (const bool skips_failures : {true, false}) {
        const std::vector<std::string> alone = live(false, skips_failures);

        ASSERT_GT(alone.size(), skips_failures ? 50U : 30U);
        for (int turn = 0; turn < 20; ++turn) {
            ASSERT_EQ(live(true, skips_failures), alone);
        }
    }
}

TEST(LifeThreads, LeaveBlocksThatUseTheLoopOrKeepTheirPlaceToTheThreadOfTheGraph)
{
    FakeGraph graph;
    FakeWorld world;
    add_busy(graph);
    std::vector<std::string> order;  // of the tied ones, so only the present thread writes it
    const std::thread::id mine = std::this_thread::get_id();
    for (const char* name : {"a", "b", "c", "d", "e", "f", "g", "h"}) {
        FakeBlock& block = graph.add(name);
        if (block.get_name() == "g") {
            block.add_dbus("/g", "x.y", &kTable, nullptr);
        }
        block.on_start = [&block, name = block.get_name()] {
            RuntimeTools& tools = block.get_tools();
            tools.request_run();
            if (name == "b") {
                tools.loop();
            } else if (name == "c") {
                tools.bus();
            } else if (name == "e") {
                tools.keep_place();
            } else if (name == "h") {
                block.make_eventport("event");
            }
        };
        const bool is_tied = std::string("bcegh").find(name) != std::string::npos;
        block.on_run = [&, name = block.get_name(), is_tied] {
            if (is_tied) {
                EXPECT_EQ(std::this_thread::get_id(), mine);
                order.push_back(name);
            }
            return false;
        };
    }
    graph.arrange();
    Life life(graph.network(), world, nullptr, nullptr);
    life.use_threads({4, std::chrono::nanoseconds(0), true});

    life.start();
    life.step();
    life.stop();

    EXPECT_THAT(order, ElementsAre("b", "c", "e", "g", "h"));
}

TEST(LifeThreads, TieABlockThatAsksForTheLoopInARunFromTheNextOneOn)
{
    FakeGraph graph;
    FakeWorld world;
    add_busy(graph);
    const std::thread::id mine = std::this_thread::get_id();
    for (const char* name : {"a", "b", "c", "d"}) {
        FakeBlock& block = graph.add(name);
        block.on_start = [&block] { block.get_tools().request_run(); };
        block.on_run = [&block, mine] {
            block.get_tools().loop();
            block.get_tools().request_run();
            EXPECT_TRUE(block.runs == 1 || std::this_thread::get_id() == mine);
            return true;
        };
    }
    graph.arrange();
    Life life(graph.network(), world, nullptr, nullptr);
    life.use_threads({4, std::chrono::nanoseconds(0), true});

    life.start();
    for (int wave = 0; wave < 20; ++wave) {
        life.step();
    }
    life.stop();
}

int do_nothing(sd_event_source* /*source*/, void* /*data*/)
{
    return 0;
}

TEST(LifeThreads, LetOneBlockAtATimeUseTheLoopThatManyAskForFirstInTheirRun)
{
    constexpr int kLives = 300;
    for (int turn = 0; turn < kLives; ++turn) {
        FakeGraph graph;
        FakeWorld world;
        Loop loop;
        world.events = &loop;
        std::atomic<int> users{0};
        for (const char* name : {"a", "b", "c", "d"}) {
            FakeBlock& block = graph.add(name);
            block.on_start = [&block] {
                block.get_tools().request_run();
                if (block.get_name() == "d") {
                    block.get_tools().loop();
                }
            };
            block.on_run = [&] {
                sd_event* const event = block.get_tools().loop();
                EXPECT_EQ(++users, 1);
                EXPECT_GE(sd_event_add_defer(event, nullptr, do_nothing, nullptr), 0);
                std::this_thread::yield();
                --users;
                return false;
            };
        }
        graph.arrange();
        Life life(graph.network(), world, &loop.poller(), loop.waker());
        life.use_threads({4, std::chrono::nanoseconds(0), true});

        life.start();
        life.step();
        life.stop();

        ASSERT_FALSE(life.has_failed() || HasFailure()) << turn;
    }
}

TEST(LifeThreads, LetOneBlockAtATimeUseTheBusThatManyAskForFirstInTheirRun)
{
    constexpr int kLives = 300;
    for (int turn = 0; turn < kLives; ++turn) {
        FakeGraph graph;
        FakeWorld world;
        std::atomic<int> users{0};
        for (const char* name : {"a", "b", "c", "d"}) {
            FakeBlock& block = graph.add(name);
            block.on_start = [&block] { block.get_tools().request_run(); };
            block.on_run = [&] {
                block.get_tools().bus();
                EXPECT_EQ(++users, 1);
                for (int yields = 0; yields < 20; ++yields) {
                    std::this_thread::yield();
                }
                --users;
                return false;
            };
        }
        graph.arrange();
        Life life(graph.network(), world, nullptr, nullptr);
        life.use_threads({4, std::chrono::nanoseconds(0), true});

        life.start();
        life.step();

        ASSERT_FALSE(life.has_failed() || HasFailure()) << turn;
    }
}

TEST(LifeThreads, BearRequestsAtAnyTime)
{
    FakeGraph graph;
    FakeWorld world;
    std::atomic<int> runs{0};
    std::vector<FakeBlock*> blocks;
    for (const char* name : {"a", "b", "c", "d"}) {
        FakeBlock& block = graph.add(name);
        block.on_start = [&block] { block.get_tools().request_run(); };
        block.on_run = [&runs] {
            ++runs;
            return true;
        };
        blocks.push_back(&block);
    }
    graph.arrange();
    Life life(graph.network(), world, nullptr, nullptr);
    life.use_threads({4, std::chrono::nanoseconds(0), true});
    life.start();

    std::thread asker([&] {
        for (std::size_t request = 0; runs < 100; ++request) {
            blocks[request % blocks.size()]->get_tools().request_run();
        }
    });
    while (runs < 100) {
        life.step();
    }
    asker.join();
    life.stop();

    EXPECT_FALSE(life.has_failed());
}

}  // namespace
