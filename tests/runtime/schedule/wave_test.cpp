#include "schedule/wave.h"

#include "messages/context.h"
#include "runtime/support/fakes.h"
#include "support/allocations.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <map>
#include <random>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

using namespace Quorval;
using namespace Quorval::runtime;
using quorval_test::FailingAllocation;
using quorval_test::FailingInput;
using quorval_test::FakeBlock;
using quorval_test::FakeGraph;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

namespace {

constexpr bool kDelayed = true;
constexpr bool kKept = false;
constexpr bool kSkips = true;

/// Records what a wave asks and tells.
class Recorder final : public IDescriptorPorts, public IWaveEvents, public IRunProbe {
public:
    bool is_triggered(std::uint32_t block) override { return triggered.count(block) > 0; }
    void before_run(std::uint32_t block) override { add("before", block); }
    void after_run(std::uint32_t block) override { add("after", block); }
    void reset(std::uint32_t block) override
    {
        add("reset", block);
        triggered.erase(block);
    }
    void block_failed(std::uint32_t block, const std::string& text) override
    {
        add("failed", block);
        lines.back() += ": " + text;
    }
    void block_is_done(std::uint32_t block) override { add("done", block); }
    void wave_begins() override { lines.emplace_back("wave begins"); }
    void wave_ends() override { lines.emplace_back("wave ends"); }
    void run_begins(std::uint32_t block) override { add("begins", block); }
    void run_ends(std::uint32_t block, bool has_failed) override
    {
        add(has_failed ? "fails" : "ends", block);
    }
    void ran(const TimedRun& run) override
    {
        run_begins(run.block);
        run_ends(run.block, run.has_failed);
    }

    std::set<std::uint32_t> triggered;
    std::vector<std::string> lines;

private:
    void add(const std::string& what, std::uint32_t block)
    {
        lines.push_back(what + " " + std::to_string(block));
    }
};

/// A source, "a", that leads to a reader, "b", with an input of the given policy.
struct Pair {
    explicit Pair(bool auto_reset = true, bool is_delayed = false)
        : a(graph.add("a")), b(graph.add("b")), out(a.output("out")), in(b.input("in", auto_reset))
    {
        graph.connect(a, "out", b, "in", is_delayed);
        a.on_run = [this] {
            out.write(a.runs);
            return true;
        };
        b.on_run = [this] {
            seen.push_back(in.get() == nullptr ? -1 : in.value());
            return true;
        };
    }

    FakeGraph graph;
    FakeBlock& a;
    FakeBlock& b;
    OutPort<int>& out;
    InPort<int>& in;
    std::vector<int> seen;  // by b
};

bool run_wave(Wave& wave)
{
    const bool is_well = wave.run();
    return wave.reset() && is_well;
}

TEST(Wave, RunsABlockThatAskedAndWhatItLeadsTo)
{
    Pair pair;
    Recorder recorder;
    Wave wave(pair.graph.arrange(), recorder, recorder);
    wave.ask(0);

    EXPECT_TRUE(run_wave(wave));

    EXPECT_EQ(pair.a.runs, 1);
    EXPECT_THAT(pair.seen, ElementsAre(1));
}

/// An input of a broken plug-in.
class DeadEnd : public InPortProvider {
public:
    explicit DeadEnd(bool throws) : InPortProvider("dead", Datatype("int"), true), throws_(throws)
    {
    }

    InPortInternal* get_connectable() override
    {
        if (throws_) {
            throw std::runtime_error("no luck");
        }
        return nullptr;
    }

private:
    bool throws_;
};

TEST(Wave, RunsABlockOfWhichAnInputLeadsNowhere)
{
    for (const bool throws : {false, true}) {
        FakeGraph graph;
        FakeBlock& a = graph.add("a");
        a.add_inport(std::make_unique<DeadEnd>(throws));
        Recorder recorder;
        Wave wave(graph.arrange(), recorder, recorder);
        wave.ask(0);

        EXPECT_TRUE(run_wave(wave)) << throws;

        EXPECT_EQ(a.runs, 1) << throws;
    }
}

TEST(Wave, ResetsWhatItTriggered)
{
    Pair pair;
    Recorder recorder;
    Wave wave(pair.graph.arrange(), recorder, recorder);
    wave.ask(0);

    wave.run();
    EXPECT_TRUE(pair.out.is_triggered());
    EXPECT_TRUE(pair.in.is_triggered());
    wave.reset();

    EXPECT_FALSE(pair.out.is_triggered());
    EXPECT_FALSE(pair.in.is_triggered());
    EXPECT_TRUE(wave.is_idle());
}

TEST(Wave, DoesNotRunWhatNothingLeadsTo)
{
    Pair pair;
    pair.a.on_run = [] { return true; };
    Recorder recorder;
    Wave wave(pair.graph.arrange(), recorder, recorder);
    wave.ask(0);

    run_wave(wave);

    EXPECT_EQ(pair.b.runs, 0);
}

TEST(Wave, MeetsARequestOnce)
{
    Pair pair;
    Recorder recorder;
    Wave wave(pair.graph.arrange(), recorder, recorder);
    wave.ask(0);
    wave.ask(0);

    run_wave(wave);
    run_wave(wave);

    EXPECT_EQ(pair.a.runs, 1);
}

TEST(Wave, RunsABlockOnceHoweverManyInputsAreTriggered)
{
    Pair pair;
    pair.a.output("more").trigger();
    pair.b.input("other");
    pair.graph.connect(pair.a, "more", pair.b, "other");
    Recorder recorder;
    Wave wave(pair.graph.arrange(), recorder, recorder);
    wave.look_at_outputs(0);
    wave.ask(0);
    wave.ask(1);

    run_wave(wave);

    EXPECT_EQ(pair.b.runs, 1);
}

TEST(Wave, TakesOverWhatWasTriggeredOutsideOfAWave)
{
    Pair pair;
    Recorder recorder;
    Wave wave(pair.graph.arrange(), recorder, recorder);
    pair.out.write(7);
    EXPECT_TRUE(wave.is_idle());

    wave.look_at_outputs(0);

    EXPECT_FALSE(wave.is_idle());
    run_wave(wave);
    EXPECT_EQ(pair.a.runs, 0);
    EXPECT_THAT(pair.seen, ElementsAre(7));
    EXPECT_FALSE(pair.out.is_triggered());
    EXPECT_TRUE(wave.is_idle());
}

TEST(Wave, IsNotIdleWhileThereIsSomethingToVisitOrToReset)
{
    Pair pair;
    Recorder recorder;
    Wave wave(pair.graph.arrange(), recorder, recorder);
    EXPECT_EQ(wave.waves(), 0U);

    wave.ask(0);
    EXPECT_FALSE(wave.is_idle());
    wave.run();
    EXPECT_FALSE(wave.is_idle());
    wave.reset();

    EXPECT_TRUE(wave.is_idle());
    EXPECT_EQ(wave.waves(), 1U);
}

TEST(Wave, DoesNotRunABlockThatItVisitsOnceMoreForTheSameRequest)
{
    Pair pair;
    Recorder recorder;
    Wave wave(pair.graph.arrange(), recorder, recorder);
    wave.ask(0);
    run_wave(wave);

    wave.visit(0);
    run_wave(wave);

    EXPECT_EQ(pair.a.runs, 1);
}

/// Lists with which force it was reset.
class ResetOutput : public OutPort<int> {
public:
    ResetOutput(const std::string& name, std::vector<std::string>& lines)
        : OutPort(name, Datatype("int")), lines_(lines)
    {
    }
    void reset(bool force) override
    {
        lines_.push_back(get_name() + (force ? " by force" : ""));
        OutPort::reset(force);
    }

private:
    std::vector<std::string>& lines_;
};

TEST(Wave, ShowsAndResetsOutputsInTheOrderOfTheirNamesAndEachOnce)
{
    FakeGraph graph;
    FakeBlock& a = graph.add("a");
    std::vector<std::string> resets;
    std::vector<OutPort<int>*> outputs;
    for (const char* name : {"5", "3", "1", "4", "2", "6"}) {
        auto output = std::make_unique<ResetOutput>(name, resets);
        outputs.push_back(output.get());
        a.add_outport(std::move(output));
    }
    Recorder recorder;
    Wave wave(graph.arrange(), recorder, recorder);
    for (OutPort<int>* output : outputs) {
        output->write(1);
    }
    outputs[0]->Port::reset(true);
    wave.look_at_outputs(0);
    wave.look_at_outputs(0);
    outputs[1]->Port::reset(true);

    wave.run();
    std::vector<std::string> shown;
    wave.for_triggered(
        [&shown](const OutPortInternal& output) { shown.push_back(output.get_name()); });
    wave.reset();

    EXPECT_THAT(shown, ElementsAre("1", "2", "4", "6"));
    EXPECT_THAT(resets, ElementsAre("1", "2", "3", "4", "6"));
    EXPECT_TRUE(wave.is_idle());
}

TEST(WaveFailure, ResetsOutputsByForce)
{
    FakeGraph graph;
    FakeBlock& a = graph.add("a", kSkips);
    std::vector<std::string> resets;
    a.add_outport(std::make_unique<ResetOutput>("out", resets));
    a.on_run = []() -> bool { throw std::runtime_error("no"); };
    Recorder recorder;
    Wave wave(graph.arrange(), recorder, recorder);
    wave.ask(0);

    EXPECT_TRUE(run_wave(wave));

    EXPECT_THAT(resets, ElementsAre("out by force"));
}

TEST(Wave, ResetsAnOutputThatNobodyReads)
{
    FakeGraph graph;
    OutPort<int>& out = graph.add("a").output("out");
    Recorder recorder;
    Wave wave(graph.arrange(), recorder, recorder);
    out.trigger();
    wave.look_at_outputs(0);

    run_wave(wave);

    EXPECT_FALSE(out.is_triggered());
    EXPECT_TRUE(wave.is_idle());
}

TEST(Wave, UpdatesAllInputsOfABlockThatItVisits)
{
    Pair pair;
    OutPort<int>& quiet = pair.graph.add("c").output("out");
    InPort<int>& other = pair.b.input("other");
    pair.graph.connect(static_cast<FakeBlock&>(*pair.graph.network().nodes[2].block), "out", pair.b,
                       "other");
    quiet.write(5);
    quiet.reset(true);
    Recorder recorder;
    Wave wave(pair.graph.arrange(), recorder, recorder);
    wave.ask(pair.graph.number_of(pair.a));

    wave.run();

    EXPECT_EQ(other.value(), 5);
    EXPECT_FALSE(other.is_triggered());
}

TEST(Wave, StartsNothingForATriggerThatAnInputKeeps)
{
    Pair pair(kKept);
    Recorder recorder;
    Wave wave(pair.graph.arrange(), recorder, recorder);
    wave.ask(0);
    run_wave(wave);

    EXPECT_TRUE(pair.in.is_triggered());
    EXPECT_TRUE(wave.is_idle());
    run_wave(wave);
    EXPECT_EQ(pair.b.runs, 1);
}

TEST(Wave, RunsABlockThatItVisitsForATriggerThatAnInputKept)
{
    Pair pair(kKept);
    Recorder recorder;
    Wave wave(pair.graph.arrange(), recorder, recorder);
    wave.ask(0);
    run_wave(wave);

    wave.visit(1);
    run_wave(wave);

    EXPECT_EQ(pair.b.runs, 2);
}

TEST(Wave, AsksAnInputThatNothingFeedsToo)
{
    FakeGraph graph;
    FakeBlock& block = graph.add("a");
    InPort<int>& in = block.input("in", kKept);
    OutPort<int> out("out", Datatype("int"));
    Recorder recorder;
    Wave wave(graph.arrange(), recorder, recorder);
    out.trigger();
    in.update(out);

    wave.visit(0);
    run_wave(wave);

    EXPECT_EQ(block.runs, 1);
}

TEST(Wave, AsksEachInputThatNothingFeeds)
{
    FakeGraph graph;
    FakeBlock& block = graph.add("a");
    block.input("first", kKept);
    InPort<int>& second = block.input("second", kKept);
    OutPort<int> out("out", Datatype("int"));
    Recorder recorder;
    Wave wave(graph.arrange(), recorder, recorder);
    out.trigger();
    second.update(out);

    wave.visit(0);
    run_wave(wave);

    EXPECT_EQ(block.runs, 1);
}

TEST(WaveDelayed, RunsABlockForATriggerThatAnInputKept)
{
    Pair pair(kKept, kDelayed);
    OutPort<int> out("out", Datatype("int"));
    Recorder recorder;
    Wave wave(pair.graph.arrange(), recorder, recorder);
    out.trigger();
    pair.in.update(out);

    wave.visit(pair.graph.number_of(pair.b));
    run_wave(wave);

    EXPECT_EQ(pair.b.runs, 1);
    EXPECT_EQ(pair.a.runs, 0);
}

TEST(WaveDelayed, GivesTheValueOfTheWaveBefore)
{
    Pair pair(true, kDelayed);
    std::vector<int> seen;
    pair.b.on_run = [&] {
        seen.push_back(pair.in.get() == nullptr ? -1 : pair.in.value());
        return true;
    };
    Recorder recorder;
    Wave wave(pair.graph.arrange(), recorder, recorder);
    for (int round = 0; round < 3; ++round) {
        wave.ask(0);
        wave.ask(1);
        run_wave(wave);
    }

    EXPECT_THAT(seen, ElementsAre(-1, 1, 2));
}

TEST(WaveDelayed, TriggersNothing)
{
    Pair pair(true, kDelayed);
    Recorder recorder;
    Wave wave(pair.graph.arrange(), recorder, recorder);
    wave.ask(pair.graph.number_of(pair.a));
    run_wave(wave);
    run_wave(wave);

    EXPECT_EQ(pair.b.runs, 0);
    EXPECT_TRUE(wave.is_idle());
}

TEST(WaveDelayed, GivesWhatWasTriggeredOutsideOfAWaveWithoutItsTrigger)
{
    Pair pair(true, kDelayed);
    Recorder recorder;
    Wave wave(pair.graph.arrange(), recorder, recorder);
    pair.out.write(7);
    wave.look_at_outputs(pair.graph.number_of(pair.a));
    wave.ask(pair.graph.number_of(pair.b));

    wave.run();

    EXPECT_THAT(pair.seen, ElementsAre(7));
    EXPECT_FALSE(pair.in.is_triggered());
}

TEST(WaveDelayed, FeedsABlockFromItself)
{
    FakeGraph graph;
    FakeBlock& block = graph.add("a");
    OutPort<int>& out = block.output("out");
    InPort<int>& in = block.input("in");
    graph.connect(block, "out", block, "in", kDelayed);
    block.on_run = [&] {
        out.write(in.get() == nullptr ? 1 : in.value() * 2);
        return true;
    };
    Recorder recorder;
    Wave wave(graph.arrange(), recorder, recorder);
    for (int round = 0; round < 4; ++round) {
        wave.ask(0);
        run_wave(wave);
    }

    EXPECT_EQ(out.value(), 8);
}

TEST(WaveDescriptors, AreLookedAfterAroundARun)
{
    Pair pair;
    Recorder recorder;
    Wave wave(pair.graph.arrange(), recorder, recorder);
    wave.has_descriptors(1);
    recorder.triggered.insert(1);
    wave.visit(1);

    run_wave(wave);

    EXPECT_EQ(pair.b.runs, 1);
    EXPECT_THAT(recorder.lines, ElementsAre("before 1", "after 1", "reset 1"));
}

TEST(WaveDescriptors, AreResetThoughTheBlockWasNotDue)
{
    Pair pair;
    Recorder recorder;
    Wave wave(pair.graph.arrange(), recorder, recorder);
    wave.has_descriptors(0);
    wave.visit(0);

    run_wave(wave);

    EXPECT_EQ(pair.a.runs, 0);
    EXPECT_THAT(recorder.lines, ElementsAre("reset 0"));
}

TEST(WaveDone, EndsTheRunsOfABlockBehindItsLastValue)
{
    Pair pair;
    pair.a.on_run = [&] {
        pair.out.write(9);
        return false;
    };
    Recorder recorder;
    Wave wave(pair.graph.arrange(), recorder, recorder);
    wave.ask(0);
    run_wave(wave);
    wave.ask(0);
    run_wave(wave);

    EXPECT_EQ(pair.a.runs, 1);
    EXPECT_TRUE(wave.is_done(0));
    EXPECT_THAT(pair.seen, ElementsAre(9));
    EXPECT_THAT(recorder.lines, ElementsAre("done 0"));
}

TEST(WaveFailure, EndsTheWave)
{
    Pair pair;
    pair.a.on_run = [&]() -> bool {
        pair.out.write(1);
        throw std::runtime_error("no disk");
    };
    Recorder recorder;
    Wave wave(pair.graph.arrange(), recorder, recorder);
    wave.ask(0);
    wave.ask(1);

    EXPECT_FALSE(run_wave(wave));

    EXPECT_EQ(pair.b.runs, 0);
    EXPECT_THAT(recorder.lines, ElementsAre("failed 0: no disk"));
    EXPECT_FALSE(pair.out.is_triggered());
    EXPECT_TRUE(wave.is_idle());
}

TEST(WaveFailure, DropsTheRequestsOfTheBlocksBehind)
{
    Pair pair;
    pair.a.on_run = []() -> bool { throw std::runtime_error("no disk"); };
    Recorder recorder;
    Wave wave(pair.graph.arrange(), recorder, recorder);
    wave.ask(0);
    wave.ask(1);
    EXPECT_FALSE(run_wave(wave));

    wave.visit(1);
    EXPECT_TRUE(run_wave(wave));

    EXPECT_EQ(pair.b.runs, 0);
}

TEST(WaveFailure, OfAnInputDropsTheRequestOfItsBlock)
{
    bool fails = true;
    FakeGraph graph;
    FakeBlock& a = graph.add("a", kSkips);
    a.add_inport(std::make_unique<FailingInput>(fails));
    Recorder recorder;
    Wave wave(graph.arrange(), recorder, recorder);
    wave.ask(0);
    EXPECT_TRUE(run_wave(wave));
    EXPECT_THAT(recorder.lines, ElementsAre("failed 0: no input"));

    fails = false;
    wave.visit(0);
    EXPECT_TRUE(run_wave(wave));

    EXPECT_EQ(a.runs, 0);
    EXPECT_EQ(wave.runs(0), 0U);
}

TEST(WaveFailure, ThatIsNoStandardExceptionIsUnknown)
{
    Pair pair;
    pair.a.on_run = []() -> bool { throw 5; };
    Recorder recorder;
    Wave wave(pair.graph.arrange(), recorder, recorder);
    wave.ask(0);

    EXPECT_FALSE(run_wave(wave));

    EXPECT_THAT(recorder.lines, ElementsAre("failed 0: an unknown exception"));
}

TEST(WaveFailure, ThatSaysNothingHasATextAllTheSame)
{
    Pair pair;
    pair.a.on_run = []() -> bool { throw std::runtime_error(""); };
    Recorder recorder;
    Wave wave(pair.graph.arrange(), recorder, recorder);
    wave.ask(0);

    EXPECT_FALSE(run_wave(wave));

    EXPECT_THAT(recorder.lines, ElementsAre("failed 0: an exception without a text"));
}

TEST(WaveFailure, ThatIsSkippedTakesTheTriggersOfTheBlockAndTheWaveGoesOn)
{
    FakeGraph graph;
    FakeBlock& a = graph.add("a", kSkips);
    FakeBlock& b = graph.add("b");
    FakeBlock& c = graph.add("c");
    OutPort<int>& out = a.output("out");
    b.input("in");
    graph.connect(a, "out", b, "in");
    a.on_run = [&]() -> bool {
        out.write(2);
        throw std::runtime_error("this time");
    };
    Recorder recorder;
    Wave wave(graph.arrange(), recorder, recorder);
    out.write(1);
    wave.look_at_outputs(0);
    wave.ask(0);
    wave.ask(2);

    EXPECT_TRUE(run_wave(wave));

    EXPECT_EQ(b.runs, 0);
    EXPECT_EQ(c.runs, 1);
    EXPECT_THAT(recorder.lines, ElementsAre("failed 0: this time"));
}

TEST(WaveFailure, ThatIsSkippedLeavesTheBlockToRunWhenItIsNextDue)
{
    FakeGraph graph;
    FakeBlock& a = graph.add("a", kSkips);
    a.on_run = []() -> bool { throw std::runtime_error("always"); };
    Recorder recorder;
    Wave wave(graph.arrange(), recorder, recorder);
    wave.ask(0);
    run_wave(wave);

    EXPECT_TRUE(wave.is_idle());
    wave.ask(0);
    run_wave(wave);

    EXPECT_EQ(a.runs, 2);
    EXPECT_EQ(wave.runs(0), 2U);
    EXPECT_EQ(wave.failures(0), 2U);
}

/// An input that refuses one of its operations.
class BrokenInput : public InPort<int> {
public:
    explicit BrokenInput(const std::string& name) : InPort(name, Datatype("int")) {}
    void reset(bool /*force*/) override { throw std::runtime_error("reset"); }
};

TEST(WaveFailure, InAPortIsOneOfTheBlock)
{
    Pair pair;
    pair.b.add_inport(std::make_unique<BrokenInput>("broken"));
    Recorder recorder;
    Wave wave(pair.graph.arrange(), recorder, recorder);
    wave.ask(0);

    EXPECT_TRUE(wave.run());
    EXPECT_FALSE(wave.reset());

    EXPECT_THAT(recorder.lines, ElementsAre("failed 1: reset"));
    EXPECT_FALSE(pair.out.is_triggered());
}

TEST(WaveFailure, InAPortOfABlockThatSkipsThemIsSkipped)
{
    FakeGraph graph;
    FakeBlock& a = graph.add("a", kSkips);
    FakeBlock& b = graph.add("b");
    a.add_inport(std::make_unique<BrokenInput>("broken"));
    b.add_inport(std::make_unique<BrokenInput>("broken"));
    Recorder recorder;
    Wave wave(graph.arrange(), recorder, recorder);

    wave.ask(0);
    EXPECT_TRUE(run_wave(wave));
    wave.ask(1);
    wave.ask(0);
    EXPECT_FALSE(run_wave(wave));

    EXPECT_THAT(recorder.lines,
                ElementsAre("failed 0: reset", "failed 0: reset", "failed 1: reset"));
}

TEST(WaveContext, NamesTheBlockThatRuns)
{
    Pair pair;
    std::vector<std::string> contexts;
    const auto note = [&contexts] {
        contexts.push_back(std::string(context().path) + " " + context().operation);
        return true;
    };
    pair.a.on_run = note;
    pair.b.on_run = note;
    Recorder recorder;
    Wave wave(pair.graph.arrange(), recorder, recorder);
    wave.ask(0);
    wave.ask(1);

    run_wave(wave);

    EXPECT_THAT(contexts, ElementsAre("a run", "b run"));
    EXPECT_EQ(context().path, nullptr);
}

/// An input that notes for whom it is reset.
class NotingInput : public InPort<int> {
public:
    explicit NotingInput(std::vector<std::string>& notes)
        : InPort("in", Datatype("int")), notes_(notes)
    {
    }
    void reset(bool force) override
    {
        notes_.push_back(std::string(context().path) + " " + context().operation);
        InPort::reset(force);
    }

private:
    std::vector<std::string>& notes_;
};

TEST(WaveContext, NamesTheBlockWhosePortsAreReset)
{
    FakeGraph graph;
    std::vector<std::string> notes;
    for (const char* name : {"a", "b"}) {
        graph.add(name).add_inport(std::make_unique<NotingInput>(notes));
    }
    Recorder recorder;
    Wave wave(graph.arrange(), recorder, recorder);
    wave.ask(0);
    wave.ask(1);

    run_wave(wave);

    EXPECT_THAT(notes, ElementsAre("a run", "b run"));
}

TEST(WaveProbe, SeesTheWaveAndEachRun)
{
    FakeGraph graph;
    graph.add("a");
    graph.add("b", kSkips).on_run = []() -> bool { throw 1; };
    Recorder recorder;
    Wave wave(graph.arrange(), recorder, recorder);
    wave.set_probe(&recorder);
    wave.ask(0);
    wave.ask(1);

    run_wave(wave);

    EXPECT_THAT(recorder.lines,
                ElementsAre("wave begins", "begins 0", "ends 0", "begins 1", "fails 1",
                            "failed 1: an unknown exception", "wave ends"));
}

TEST(WaveAllocations, AreNone)
{
    FakeGraph graph;
    graph.add_chain(1000);
    Recorder recorder;
    Wave wave(graph.arrange(), recorder, recorder);
    bool has_failed = false;
    {
        const FailingAllocation allocation(1, FailingAllocation::Mode::Once);
        for (int round = 0; round < 3; ++round) {
            wave.ask(0);
            wave.ask(500);
            run_wave(wave);
        }
        has_failed = FailingAllocation::has_failed();
    }

    EXPECT_FALSE(has_failed);
    EXPECT_EQ(wave.runs(999), 3U);
}

// ---- random graphs, compared with a small model -------------------------------------------------

/// What a block does in its `run`-th run: the same in the graph and in the model.
struct Deed {
    bool throws;
    bool is_last;
    bool drops_kept;           // resets its inputs with force
    std::vector<bool> writes;  // by output

    Deed(std::uint32_t seed, int block, int run, std::size_t outputs)
    {
        std::mt19937 random(seed * 7919U + static_cast<std::uint32_t>(block) * 104729U +
                            static_cast<std::uint32_t>(run));
        throws = random() % 12 == 0;
        is_last = random() % 40 == 0;
        drops_kept = random() % 3 == 0;
        for (std::size_t output = 0; output < outputs; ++output) {
            writes.push_back(random() % 2 == 0);
        }
    }
};

/// A block as the model sees it; ports by number.
struct ModelBlock {
    struct Input {
        int from = -1;  // block, or nobody
        int output = 0;
        bool is_delayed = false;
        bool is_kept = false;
        bool is_triggered = false;
        bool has_value = false;
    };
    struct Output {
        bool is_triggered = false;
        bool has_value = false;
        int value = 0;
    };
    std::vector<Input> inputs;
    std::vector<Output> outputs;
    bool skips = false;
    bool is_done = false;
    bool asks = false;
    bool is_ready = false;  // a descriptor
    bool is_led_to = false;
    int runs = 0;
};

/// The wave, as plainly as it can be said: a look at every block.
class Model {
public:
    explicit Model(std::uint32_t seed) : seed_(seed) {}

    std::vector<ModelBlock> blocks;  // in the order of the run
    std::vector<std::string> log;

    void trigger_outside(int block, int output, int value)
    {
        blocks[block].outputs[output] = {true, true, value};
        lead_on(block);
    }

    bool run_wave()
    {
        std::vector<bool> visited(blocks.size());
        bool is_well = true;
        for (std::size_t at = 0; at < blocks.size() && is_well; ++at) {
            ModelBlock& block = blocks[at];
            visited[at] = !block.is_done && (block.asks || block.is_ready || block.is_led_to);
            if (visited[at]) {
                is_well = visit(static_cast<int>(at));
            }
        }
        for (std::size_t at = 0; at < blocks.size(); ++at) {
            end(blocks[at], visited[at]);
        }
        return is_well;
    }

private:
    bool visit(int at)
    {
        ModelBlock& block = blocks[at];
        bool is_due = block.asks || block.is_ready;
        for (ModelBlock::Input& input : block.inputs) {
            if (input.from >= 0) {
                const ModelBlock::Output& source = blocks[input.from].outputs[input.output];
                input.is_triggered |= source.is_triggered && !input.is_delayed;
                input.has_value = source.has_value;
            }
            is_due |= input.is_triggered;
        }
        return !is_due || run(at);
    }

    bool run(int at)
    {
        ModelBlock& block = blocks[at];
        const Deed deed(seed_, at, ++block.runs, block.outputs.size());
        std::string line = std::to_string(at) + ":";
        int sum = block.runs;
        for (ModelBlock::Input& input : block.inputs) {
            const int value = input.has_value ? blocks[input.from].outputs[input.output].value : -1;
            line += " " + std::to_string(value) + (input.is_triggered ? "!" : "");
            sum = (sum * 31 + value) % 1000;
            input.is_triggered &= !deed.drops_kept;
        }
        log.push_back(line);
        for (std::size_t output = 0; output < block.outputs.size(); ++output) {
            if (deed.writes[output]) {
                block.outputs[output] = {true, true, sum};
            }
        }
        if (deed.throws) {
            for (ModelBlock::Output& output : block.outputs) {
                output.is_triggered = false;
            }
            return block.skips;
        }
        block.is_done = deed.is_last;
        lead_on(at);
        return true;
    }

    void lead_on(int from)
    {
        for (ModelBlock& block : blocks) {
            for (const ModelBlock::Input& input : block.inputs) {
                block.is_led_to |= input.from == from && !input.is_delayed &&
                                   blocks[from].outputs[input.output].is_triggered;
            }
        }
    }

    static void end(ModelBlock& block, bool was_visited)
    {
        for (ModelBlock::Input& input : block.inputs) {
            input.is_triggered &= !was_visited || input.is_kept;
        }
        for (ModelBlock::Output& output : block.outputs) {
            output.is_triggered = false;
        }
        block.asks = block.is_ready = block.is_led_to = false;
    }

    std::uint32_t seed_;
};

/// The same graph twice, with the same things happening to both.
class Comparison {
public:
    explicit Comparison(std::uint32_t seed) : random_(seed), model_(seed), seed_(seed)
    {
        const int count = 1 + pick(12);
        for (int at = 0; at < count; ++at) {
            add_block(at);
        }
        for (int at = 0; at < count; ++at) {
            connect_inputs(at);
        }
        wave_ = std::make_unique<Wave>(graph_.arrange(), recorder_, recorder_);
        for (int at = 0; at < count; ++at) {
            wave_->has_descriptors(at);
        }
    }

    void play_wave()
    {
        for (std::size_t at = 0; at < model_.blocks.size(); ++at) {
            disturb(static_cast<int>(at));
        }
        const bool is_well = model_.run_wave();
        ASSERT_EQ(run_wave(*wave_), is_well);
        ASSERT_EQ(log_, model_.log);
        ASSERT_TRUE(wave_->is_idle());
        recorder_.triggered.clear();
        compare_ports();
    }

private:
    int pick(int below) { return static_cast<int>(random_() % static_cast<unsigned>(below)); }

    static std::string name_of(int at) { return std::to_string(1000 + at); }

    FakeBlock& block(int at) { return *blocks_[static_cast<std::size_t>(at)]; }

    void add_block(int at)
    {
        ModelBlock model;
        model.skips = pick(4) != 0;
        FakeBlock& fake = graph_.add(name_of(at), model.skips);
        blocks_.push_back(&fake);
        ins_.emplace_back();
        outs_.emplace_back();
        for (int input = pick(4); input > 0; --input) {
            ModelBlock::Input port;
            port.is_kept = pick(4) == 0;
            ins_.back().push_back(
                &fake.input(name_of(static_cast<int>(ins_.back().size())), !port.is_kept));
            model.inputs.push_back(port);
        }
        for (int output = pick(3); output > 0; --output) {
            outs_.back().push_back(&fake.output(name_of(static_cast<int>(outs_.back().size()))));
            model.outputs.emplace_back();
        }
        fake.on_run = [this, at] { return act(at); };
        model_.blocks.push_back(model);
    }

    /// Forwards as it is, backwards or to the block itself with a delay, so that the order of the
    /// names is the order of the run.
    void connect_inputs(int at)
    {
        for (std::size_t input = 0; input < ins_[at].size(); ++input) {
            const int from = pick(static_cast<int>(blocks_.size()));
            if (outs_[from].empty() || pick(6) == 0) {
                continue;
            }
            const int output = pick(static_cast<int>(outs_[from].size()));
            const bool is_delayed = from >= at;
            graph_.connect(block(from), name_of(output), block(at),
                           name_of(static_cast<int>(input)), is_delayed);
            ModelBlock::Input& port = model_.blocks[at].inputs[input];
            port.from = from;
            port.output = output;
            port.is_delayed = is_delayed;
        }
    }

    bool act(int at)
    {
        const Deed deed(seed_, at, block(at).runs, outs_[at].size());
        std::string line = std::to_string(at) + ":";
        int sum = block(at).runs;
        for (InPort<int>* input : ins_[at]) {
            const int value = input->get() == nullptr ? -1 : input->value();
            line += " " + std::to_string(value) + (input->is_triggered() ? "!" : "");
            sum = (sum * 31 + value) % 1000;
        }
        log_.push_back(line);
        if (deed.drops_kept) {
            block(at).reset_inports(true);
        }
        for (std::size_t output = 0; output < outs_[at].size(); ++output) {
            if (deed.writes[output]) {
                outs_[at][output]->write(sum);
            }
        }
        if (deed.throws) {
            throw std::runtime_error("on purpose");
        }
        return !deed.is_last;
    }

    /// Lets things happen to a block from outside, before a wave.
    void disturb(int at)
    {
        if (pick(8) == 0) {
            model_.blocks[at].asks = true;
            wave_->ask(at);
        }
        if (pick(8) == 0) {
            model_.blocks[at].is_ready = true;
            recorder_.triggered.insert(at);
            wave_->visit(at);
        }
        if (!outs_[at].empty() && pick(8) == 0) {
            const int output = pick(static_cast<int>(outs_[at].size()));
            const int value = pick(1000);
            model_.trigger_outside(at, output, value);
            outs_[at][output]->write(value);
            wave_->look_at_outputs(at);
        }
    }

    void compare_ports()
    {
        for (std::size_t at = 0; at < blocks_.size(); ++at) {
            const ModelBlock& model = model_.blocks[at];
            for (std::size_t input = 0; input < ins_[at].size(); ++input) {
                EXPECT_EQ(ins_[at][input]->is_triggered(), model.inputs[input].is_triggered);
            }
            for (OutPort<int>* output : outs_[at]) {
                EXPECT_FALSE(output->is_triggered());
            }
            EXPECT_EQ(wave_->is_done(at), model.is_done);
        }
    }

    std::mt19937 random_;
    Model model_;
    std::uint32_t seed_;
    FakeGraph graph_;
    std::vector<FakeBlock*> blocks_;
    std::vector<std::vector<InPort<int>*>> ins_;
    std::vector<std::vector<OutPort<int>*>> outs_;
    Recorder recorder_;
    std::unique_ptr<Wave> wave_;
    std::vector<std::string> log_;
};

// --- other machines ---

TEST(Wave, TakesOverWhatComesFromElsewhere)
{
    Pair pair;
    FakeBlock& c = pair.graph.add("c");
    InPort<int>& in = c.input("in");
    RemoteOutput& far = pair.graph.connect_remote(c, "in");
    Recorder recorder;
    Wave wave(pair.graph.arrange(), recorder, recorder);
    int value = 7;

    far.publish(&value);
    wave.note_entry(0);
    EXPECT_FALSE(wave.is_idle());
    EXPECT_TRUE(run_wave(wave));

    EXPECT_EQ(c.runs, 1);
    EXPECT_EQ(in.value(), 7);
    EXPECT_EQ(pair.a.runs, 0);
    EXPECT_FALSE(far.is_triggered());
    EXPECT_TRUE(wave.is_idle());
}

TEST(Wave, TakesOverAllThatComesFromElsewhere)
{
    FakeGraph graph;
    FakeBlock& block = graph.add("a");
    block.input("x");
    InPort<int>& second = block.input("y");
    graph.connect_remote(block, "x");
    RemoteOutput& far = graph.connect_remote(block, "y");
    Recorder recorder;
    Wave wave(graph.arrange(), recorder, recorder);
    int value = 7;

    far.publish(&value);
    wave.note_entry(1);
    EXPECT_TRUE(run_wave(wave));

    EXPECT_EQ(block.runs, 1);
    EXPECT_EQ(second.value(), 7);
}

TEST(Wave, IsNotTriggeredByWhatComesFromElsewhereWithADelay)
{
    FakeGraph graph;
    FakeBlock& block = graph.add("a");
    InPort<int>& in = block.input("in");
    RemoteOutput& far = graph.connect_remote(block, "in", kDelayed);
    Recorder recorder;
    Wave wave(graph.arrange(), recorder, recorder);
    int value = 7;

    far.publish(&value);
    wave.note_entry(0);
    EXPECT_TRUE(run_wave(wave));
    EXPECT_EQ(block.runs, 0);
    wave.ask(0);
    EXPECT_TRUE(run_wave(wave));

    EXPECT_EQ(block.runs, 1);
    EXPECT_EQ(in.value(), 7);
}

/// Records the tags of the outputs that had a value.
class Watcher final : public ITriggerWatcher {
public:
    void has_value(std::uint32_t tag) override { tags.push_back(tag); }

    std::vector<std::uint32_t> tags;
};

TEST(Wave, TellsWatchersOfValues)
{
    Pair pair;
    Recorder recorder;
    Wave wave(pair.graph.arrange(), recorder, recorder);
    Watcher first;
    Watcher second;
    wave.watch(0, pair.out, first, 3);
    wave.watch(0, pair.out, second, 4);

    wave.ask(1);
    EXPECT_TRUE(run_wave(wave));
    EXPECT_THAT(first.tags, IsEmpty());
    wave.ask(0);
    EXPECT_TRUE(run_wave(wave));

    EXPECT_THAT(first.tags, ElementsAre(3));
    EXPECT_THAT(second.tags, ElementsAre(4));
}

TEST(Wave, TellsTheWatchersOfEachOutputInTheOrderInWhichTheyCame)
{
    FakeGraph graph;
    FakeBlock& a = graph.add("a");
    FakeBlock& b = graph.add("b");
    std::vector<OutPort<int>*> outputs;
    for (FakeBlock* block : {&a, &b}) {
        for (const char* name : {"1", "2", "3"}) {
            outputs.push_back(&block->output(name));
        }
    }
    Recorder recorder;
    Wave wave(graph.arrange(), recorder, recorder);
    Watcher watcher;
    for (const std::uint32_t tag : {50U, 0U, 30U, 1U, 10U, 51U, 31U, 11U, 2U}) {
        const std::uint32_t output = tag / 10;
        wave.watch(output / 3, *outputs[output], watcher, tag);
    }
    for (OutPort<int>* output : outputs) {
        output->write(1);
    }
    wave.look_at_outputs(0);
    wave.look_at_outputs(1);

    run_wave(wave);

    EXPECT_THAT(watcher.tags, ElementsAre(0, 1, 2, 10, 11, 30, 31, 50, 51));
}

TEST(Wave, TellsWatchersNothingOfAnOutputThatIsNotTriggeredAnyMore)
{
    FakeGraph graph;
    FakeBlock& a = graph.add("a", kSkips);
    OutPort<int>& out = a.output("out");
    a.on_run = []() -> bool { throw std::runtime_error("no"); };
    Recorder recorder;
    Wave wave(graph.arrange(), recorder, recorder);
    Watcher watcher;
    wave.watch(0, out, watcher, 3);
    out.write(1);
    wave.look_at_outputs(0);
    wave.ask(0);

    EXPECT_TRUE(run_wave(wave));

    EXPECT_THAT(watcher.tags, IsEmpty());
}

TEST(Wave, TellsWatchersNothingOfBlocksThatFail)
{
    Pair pair;
    Recorder recorder;
    Wave wave(pair.graph.arrange(), recorder, recorder);
    Watcher watcher;
    wave.watch(0, pair.out, watcher, 3);
    pair.a.on_run = [&]() -> bool {
        pair.out.write(1);
        throw std::runtime_error("no");
    };

    wave.ask(0);
    EXPECT_FALSE(run_wave(wave));

    EXPECT_THAT(watcher.tags, IsEmpty());
}

TEST(WaveProperty, DoesWhatTheModelDoes)
{
    for (std::uint32_t seed = 1; seed <= 1000; ++seed) {
        Comparison comparison(seed);
        for (int wave = 0; wave < 12; ++wave) {
            comparison.play_wave();
            ASSERT_FALSE(HasFailure()) << "seed " << seed << ", wave " << wave;
        }
    }
}

}  // namespace
