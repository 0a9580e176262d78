#include "schedule/crew.h"

#include <quorval/log.h>
#include <quorval/runtime/crash.h>
#include <quorval/runtime/messages.h>
#include "loop/loop.h"
#include "messages/context.h"
#include "runtime/support/fakes.h"
#include "support/support.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <pthread.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <functional>
#include <memory>
#include <new>
#include <random>
#include <set>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

using namespace Quorval;
using namespace Quorval::runtime;
using quorval_test::FailingInput;
using quorval_test::FakeBlock;
using quorval_test::FakeGraph;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

namespace {

constexpr unsigned kThreads = 4;

Crew::Setting always()
{
    // Every task goes to the threads, however short it is.
    return {kThreads, Crew::Time(0), true};
}

/// What a wave tells and asks, as lines.
class Watcher final : public IDescriptorPorts,
                      public IWaveEvents,
                      public IRunProbe,
                      public ITriggerWatcher {
public:
    bool is_triggered(std::uint32_t block) override { return ready.count(block) > 0; }
    void before_run(std::uint32_t block) override { add(port_lines, "before", block); }
    void after_run(std::uint32_t block) override { add(port_lines, "after", block); }
    void reset(std::uint32_t block) override { ready.erase(block); }
    void block_failed(std::uint32_t block, const std::string& text) override
    {
        add(lines, "failed " + text, block);
    }
    void block_is_done(std::uint32_t block) override { add(lines, "done", block); }
    void wave_begins() override {}
    void wave_ends() override {}
    void run_begins(std::uint32_t /*block*/) override {}
    void run_ends(std::uint32_t block, bool has_failed) override
    {
        add(lines, has_failed ? "fails" : "runs", block);
    }
    void ran(const TimedRun& run) override { run_ends(run.block, run.has_failed); }
    void has_value(std::uint32_t tag) override { add(lines, "value", tag); }

    std::set<std::uint32_t> ready;
    std::vector<std::string> lines;
    std::vector<std::string> port_lines;

private:
    static void add(std::vector<std::string>& list, const std::string& what, std::uint32_t number)
    {
        list.push_back(what + " " + std::to_string(number));
    }
};

/// A block that does at random, by a seed of its own, whatever blocks do.
class Actor {
public:
    Actor(FakeBlock& block, std::uint32_t seed) : block_(block), random_(seed)
    {
        for (std::uint32_t count = random_() % 3 + 1; count > 0; --count) {
            outputs_.push_back(&block.output("out" + std::to_string(count)));
        }
        block.on_run = [this] { return act(); };
    }

    InPort<int>& add_input()
    {
        inputs_.push_back(&block_.input("in" + std::to_string(inputs_.size()), random_() % 4 > 0));
        return *inputs_.back();
    }

    OutPort<int>& output(std::uint32_t number) { return *outputs_[number % outputs_.size()]; }
    FakeBlock& block() { return block_; }
    std::vector<std::string> seen;

private:
    bool act()
    {
        std::string all;
        for (const InPort<int>* input : inputs_) {
            all += " " + (input->get() == nullptr ? "-" : std::to_string(input->value())) +
                   (input->is_triggered() ? "!" : "");
        }
        seen.push_back(all);
        if (random_() % 4 == 0) {
            ilog(LOGLEVEL_INFO) << context().path << all;
        }
        int sum = 1;
        for (const InPort<int>* input : inputs_) {
            sum = (sum * 31 + (input->get() == nullptr ? 0 : input->value())) % 10007;
        }
        for (OutPort<int>* output : outputs_) {
            output->value() = sum;  // seen by a delayed reader that has run before
            if (random_() % 3 > 0) {
                output->trigger();
            }
        }
        if (random_() % 40 == 0) {
            throw std::runtime_error("no" + all);
        }
        return random_() % 200 > 0;
    }

    FakeBlock& block_;
    std::mt19937 random_;
    std::vector<InPort<int>*> inputs_;
    std::vector<OutPort<int>*> outputs_;
};

/// A random graph, the same one for a seed, in whose waves everything is written down.
class World {
public:
    World(std::uint32_t seed, bool has_crew) : random_(seed)
    {
        const std::uint32_t count = random_() % 24 + 2;
        for (std::uint32_t at = 0; at < count; ++at) {
            actors_.push_back(std::make_unique<Actor>(
                graph_.add("b" + std::to_string(random_() % 1000) + "x" + std::to_string(at),
                           random_() % 8 > 0),
                seed * 1000 + at));
        }
        connect();
        graph_.arrange();
        wave_ = std::make_unique<Wave>(graph_.network(), watcher_, watcher_);
        wave_->set_probe(&watcher_);
        tie();
        watch();
        if (has_crew) {
            crew_ = std::make_unique<Crew>(*wave_, graph_.network(), ties_, always(), Loop::now);
        }
    }

    bool run_waves(std::uint32_t count)
    {
        bool is_well = true;
        for (std::uint32_t wave = 0; is_well && wave < count; ++wave) {
            prepare();
            is_well = wave_->run();
            wave_->for_triggered([this, is_well](const OutPortInternal& output) {
                // Where the wave ends early, a block behind its end may have run, and so changed a
                // value that it had published before the wave.
                const auto& port = static_cast<const OutPort<int>&>(output);
                watcher_.lines.push_back("triggered " + port.get_name() +
                                         (is_well ? " " + std::to_string(port.value()) : ""));
            });
            is_well = wave_->reset() && is_well;
            watcher_.lines.push_back(wave_->is_idle() ? "idle" : "not idle");
        }
        return is_well;
    }

    /// What every block has seen, without those behind the last one that failed: these may or may
    /// not have run in the wave that ended there.
    std::vector<std::string> seen()
    {
        std::vector<std::string> all;
        for (std::uint32_t block = 0; block < actors_.size(); ++block) {
            Actor& actor = actor_at(block);
            const auto runs = std::min<std::size_t>(wave_->runs(block), actor.seen.size());
            all.insert(all.end(), actor.seen.begin(),
                       actor.seen.begin() + static_cast<std::ptrdiff_t>(runs));
            all.push_back(std::to_string(wave_->runs(block)) + " runs " +
                          std::to_string(wave_->failures(block)) + " failures " +
                          (wave_->is_done(block) ? "done" : ""));
        }
        return all;
    }

    /// Whether blocks have run more often than is counted.
    bool has_run_ahead()
    {
        for (std::uint32_t block = 0; block < actors_.size(); ++block) {
            if (actor_at(block).seen.size() > wave_->runs(block)) {
                return true;
            }
        }
        return false;
    }

    /// Whether one that keeps its place has.
    bool has_run_out_of_place()
    {
        for (std::uint32_t block = 0; block < actors_.size(); ++block) {
            if (ties_[block] == Tie::Place && actor_at(block).seen.size() > wave_->runs(block)) {
                return true;
            }
        }
        return false;
    }

    const Watcher& watcher() const { return watcher_; }

private:
    void connect()
    {
        const auto count = static_cast<std::uint32_t>(actors_.size());
        for (std::uint32_t wire = random_() % (2 * count); wire > 0; --wire) {
            const std::uint32_t from = random_() % count;
            const std::uint32_t to = random_() % count;
            // A delayed one runs its reader first, so both kinds go the way of the numbers.
            const bool is_delayed = from >= to;
            InPort<int>& input = actors_[to]->add_input();
            const OutPort<int>& output = actors_[from]->output(random_());
            graph_.connect(actors_[from]->block(), output.get_name(), actors_[to]->block(),
                           input.get_name(), is_delayed);
        }
        actors_[random_() % count]->add_input();  // that nothing feeds
    }

    void tie()
    {
        for (std::uint32_t block = 0; block < actors_.size(); ++block) {
            const std::uint32_t kind = random_() % 8;
            ties_.push_back(kind == 0 ? Tie::Place : kind <= 2 ? Tie::Thread : Tie::None);
            if (ties_.back() == Tie::Thread) {
                wave_->has_descriptors(block);
            }
        }
    }

    void watch()
    {
        for (std::uint32_t block = 0; block < actors_.size(); ++block) {
            if (random_() % 2 == 0) {
                wave_->watch(block, actor_at(block).output(0), watcher_, block);
            }
        }
    }

    /// Makes blocks due in all the ways that there are.
    void prepare()
    {
        for (std::uint32_t block = 0; block < actors_.size(); ++block) {
            switch (random_() % 6) {
                case 0:
                    wave_->ask(block);
                    break;
                case 1:
                    actor_at(block).output(0).write(static_cast<int>(random_() % 1000));
                    wave_->look_at_outputs(block);
                    break;
                case 2:
                    if (ties_[block] == Tie::Thread) {
                        watcher_.ready.insert(block);
                        wave_->visit(block);
                    }
                    break;
                default:
                    break;
            }
        }
    }

    Actor& actor_at(std::uint32_t block)
    {
        return **std::find_if(actors_.begin(), actors_.end(), [&](const auto& actor) {
            return graph_.number_of(actor->block()) == block;
        });
    }

    std::mt19937 random_;
    FakeGraph graph_;
    std::vector<std::unique_ptr<Actor>> actors_;
    std::vector<Tie> ties_;
    Watcher watcher_;
    std::unique_ptr<Wave> wave_;
    std::unique_ptr<Crew> crew_;
};

/// Shows where two long lists begin to differ.
void expect_same(const std::vector<std::string>& lines, const std::vector<std::string>& expected,
                 std::uint32_t seed)
{
    const auto [line, wanted] =
        std::mismatch(lines.begin(), lines.end(), expected.begin(), expected.end());
    const auto rest = [](auto from, auto end) {
        constexpr std::ptrdiff_t kShown = 8;
        return std::vector<std::string>(from, from + std::min(kShown, end - from));
    };
    EXPECT_EQ(rest(line, lines.end()), rest(wanted, expected.end()))
        << "seed " << seed << ", line " << line - lines.begin();
}

TEST(Crew, DoesOnSeveralThreadsWhatAWaveDoesOnOne)
{
    constexpr std::uint32_t kGraphs = 300;
    constexpr std::uint32_t kWaves = 30;
    std::uint32_t well = 0;
    std::uint32_t ahead = 0;
    for (std::uint32_t seed = 1; seed <= kGraphs; ++seed) {
        World alone(seed, false);
        World crew(seed, true);
        const Messages messages(LOGLEVEL_DEBUG);
        testing::internal::CaptureStderr();
        const bool is_well = alone.run_waves(kWaves);
        const std::string texts = testing::internal::GetCapturedStderr();
        testing::internal::CaptureStderr();

        ASSERT_EQ(crew.run_waves(kWaves), is_well) << seed;

        ASSERT_EQ(testing::internal::GetCapturedStderr(), texts) << seed;
        expect_same(crew.watcher().lines, alone.watcher().lines, seed);
        expect_same(crew.seen(), alone.seen(), seed);
        ASSERT_FALSE(crew.has_run_out_of_place() || HasFailure()) << seed;
        if (is_well) {
            expect_same(crew.watcher().port_lines, alone.watcher().port_lines, seed);
            ASSERT_FALSE(crew.has_run_ahead()) << seed;
        }
        well += is_well ? 1 : 0;
        ahead += crew.has_run_ahead() ? 1 : 0;
    }
    EXPECT_GT(well, 20U);
    EXPECT_LT(well, kGraphs - 20);
    EXPECT_GT(ahead, 0U);
}

/// Blocks without connections, all due.
class Row {
public:
    explicit Row(std::size_t count)
    {
        for (std::size_t at = 0; at < count; ++at) {
            blocks.push_back(&graph.add(std::string(1, static_cast<char>('a' + at))));
        }
    }

    void prepare(const Crew::Setting& setting = always())
    {
        graph.arrange();
        wave = std::make_unique<Wave>(graph.network(), watcher, watcher);
        ties.resize(blocks.size());
        crew = std::make_unique<Crew>(*wave, graph.network(), ties, setting, Loop::now);
    }

    bool run()
    {
        for (std::uint32_t block = 0; block < blocks.size(); ++block) {
            wave->ask(block);
        }
        const bool is_well = wave->run();
        return wave->reset() && is_well;
    }

    FakeGraph graph;
    std::vector<FakeBlock*> blocks;
    Watcher watcher;
    std::vector<Tie> ties;
    std::unique_ptr<Wave> wave;
    std::unique_ptr<Crew> crew;
};

TEST(Crew, RunsBlocksAtTheSameTime)
{
    if (!Workers::are_there()) {
        EXPECT_EQ(Workers::present(), 0U);
        return;
    }
    Row row(2);
    std::atomic<int> arrived{0};
    for (FakeBlock* block : row.blocks) {
        block->on_run = [&arrived] {
            for (++arrived; arrived < 2;) {  // each waits for the other one
                std::this_thread::yield();
            }
            return true;
        };
    }
    row.prepare();

    EXPECT_TRUE(row.run());

    EXPECT_EQ(arrived, 2);
}

TEST(Crew, RunsTiedBlocksOnTheThreadOfTheGraphInTheirOrder)
{
    Row row(6);
    std::vector<std::string> order;
    const std::thread::id mine = std::this_thread::get_id();
    for (FakeBlock* block : row.blocks) {
        block->on_run = [&, block] {
            EXPECT_EQ(std::this_thread::get_id(), mine);
            order.push_back(block->get_name());
            return true;
        };
    }
    row.blocks[0]->on_run = [] { return true; };
    row.blocks[3]->on_run = [] { return true; };
    row.ties = {Tie::None, Tie::Thread, Tie::Place, Tie::None, Tie::Thread, Tie::Place};
    row.prepare();

    for (int wave = 0; wave < 50; ++wave) {
        order.clear();
        ASSERT_TRUE(row.run());
        ASSERT_THAT(order, ElementsAre("b", "c", "e", "f"));
    }
}

TEST(Crew, CarriesWhatIsNoFailureOfABlockBackToTheWave)
{
    class Broken final : public IWaveEvents {
        void block_failed(std::uint32_t /*block*/, const std::string& /*text*/) override
        {
            throw std::bad_alloc();
        }
        void block_is_done(std::uint32_t /*block*/) override {}
    };
    FakeGraph graph;
    graph.add("a").on_run = []() -> bool { throw std::runtime_error("no"); };
    Watcher watcher;
    Broken events;
    Wave wave(graph.arrange(), watcher, events);
    const Crew crew(wave, graph.network(), {Tie::None}, always(), Loop::now);
    wave.ask(0);

    EXPECT_THROW(wave.run(), std::bad_alloc);
}

TEST(Crew, NamesTheBlockOnWhateverThreadItRuns)
{
    Row row(8);
    for (FakeBlock* block : row.blocks) {
        block->on_run = [block] {
            EXPECT_EQ(context().path, block->get_name());
            EXPECT_STREQ(context().operation, "run");
            return true;
        };
    }
    row.prepare();

    EXPECT_TRUE(row.run());

    EXPECT_EQ(context().path, nullptr);
}

/// Does it in a block that runs beside another one, on a thread that is not that of the graph where
/// the build has more.
void do_in_a_block(const std::function<void()>& deed)
{
    report_crashes();
    const Messages shown(LOGLEVEL_INFO);
    Row row(2);
    std::atomic<int> arrived{0};
    const std::thread::id mine = std::this_thread::get_id();
    for (FakeBlock* block : row.blocks) {
        block->on_run = [&, mine] {
            for (++arrived; Workers::are_there() && arrived < 2;) {
                std::this_thread::yield();
            }
            if (!Workers::are_there() || std::this_thread::get_id() != mine) {
                deed();
            }
            return true;
        };
    }
    row.prepare();
    row.run();
}

// Without the end of the text: an emulator writes a line of its own behind it.
TEST(CrewDeathTest, NamesTheBlockThatCrashesOnAnyThread)
{
    EXPECT_EXIT(do_in_a_block([] { ::raise(SIGSEGV); }), testing::KilledBySignal(SIGSEGV),
                "^quorval: fatal: block '[ab]' crashed in run: signal 11 \\(SIGSEGV\\)\n");
    EXPECT_EXIT(do_in_a_block([] { std::abort(); }), testing::KilledBySignal(SIGABRT),
                "^quorval: fatal: block '[ab]' crashed in run: signal 6 \\(SIGABRT\\)\n");
}

/// Takes a stack of any size.
[[gnu::noinline]] int overflow(int depth)
{
    volatile char room[4096] = {};
    room[static_cast<std::size_t>(depth) % sizeof room] = 1;
    return depth < 0 ? 0 : overflow(depth + 1) + room[0];
}

TEST(CrewDeathTest, NamesTheBlockWhoseStackRanOverOnAnyThread)
{
    EXPECT_EXIT(do_in_a_block([] { overflow(0); }), testing::KilledBySignal(SIGSEGV),
                "quorval: fatal: block '[ab]' crashed in run: signal 11 \\(SIGSEGV\\)\n");
}

TEST(CrewDeathTest, SaysWhatABlockSaidThatEndsTheProcessOnAnyThread)
{
    // Two threads that are in exit() at once are more than the C library bears.
    std::atomic<bool> is_first{true};
    const auto say_and_exit = [&is_first] {
        if (!is_first.exchange(false)) {
            return;
        }
        ilog(LOGLEVEL_WARNING) << "enough";
        std::exit(0);
    };

    EXPECT_EXIT(do_in_a_block(say_and_exit), testing::ExitedWithCode(1),
                "^quorval: warning: ([ab]): enough\n"
                "quorval: fatal: block '[ab]' called exit in run\n$");
}

/// The bytes of the stack that threads have if nothing else is said.
std::size_t stack_size()
{
    pthread_attr_t attributes;
    std::size_t size = 0;
    EXPECT_EQ(::pthread_getattr_default_np(&attributes), 0);
    EXPECT_EQ(::pthread_attr_getstacksize(&attributes, &size), 0);
    ::pthread_attr_destroy(&attributes);
    return size;
}

/// Takes as much of the stack.
[[gnu::noinline]] int take_stack(std::size_t size)
{
    volatile char room[16384] = {};
    room[size % sizeof room] = 1;
    return size < sizeof room ? 0 : take_stack(size - sizeof room) + room[0];
}

TEST(CrewDeathTest, LeavesABlockAsMuchStackOnAnyThread)
{
    const auto take_and_exit = [] {
        take_stack(stack_size() / 4 * 3);
        ::_exit(7);
    };

    EXPECT_EXIT(do_in_a_block(take_and_exit), testing::ExitedWithCode(7), "^$");
}

// A clock by which each run takes as long as the test wants, and how often it was read.
std::chrono::nanoseconds present{0};
int readings = 0;

std::chrono::nanoseconds read_clock()
{
    ++readings;
    return present;
}

TEST(Crew, GivesNoThreadToBlocksThatDoNextToNothing)
{
    Row row(3);
    const std::thread::id mine = std::this_thread::get_id();
    for (FakeBlock* block : row.blocks) {
        block->on_run = [&] {
            EXPECT_EQ(std::this_thread::get_id(), mine);
            EXPECT_EQ(present_deeds(), nullptr);
            present += Crew::Time(900);
            return true;
        };
    }
    row.graph.arrange();
    row.wave = std::make_unique<Wave>(row.graph.network(), row.watcher, row.watcher);
    row.ties.resize(3);
    const Crew crew(*row.wave, row.graph.network(), row.ties, {kThreads, Crew::Time(1000), false},
                    read_clock);

    readings = 0;
    for (int wave = 0; wave < 300; ++wave) {
        ASSERT_TRUE(row.run());
    }

    // Around the first four runs of each block, and the 64th, 128th, 192nd and 256th behind them.
    EXPECT_EQ(readings, 3 * 8 * 2);
}

/// A row that runs side by side only where that is faster.
class ChoosingRow : public Row {
public:
    /// @param least  from which time on a block is worth a thread
    ChoosingRow(std::size_t count, int least) : Row(count), least_(least) {}

    void prepare()
    {
        graph.arrange();
        wave = std::make_unique<Wave>(graph.network(), watcher, watcher);
        ties.resize(blocks.size(), Tie::Thread);
        crew =
            std::make_unique<Crew>(*wave, graph.network(), ties,
                                   Crew::Setting{kThreads, Crew::Time(least_), false}, read_clock);
    }

private:
    int least_;
};

/// The ways of so many waves: "." in order, "s" side by side. Both blocks of the row run, each in
/// the time of the way.
std::string ways_of(int waves, int in_order, int side_by_side)
{
    ChoosingRow row(2, 1000);
    char way = '?';
    for (FakeBlock* block : row.blocks) {
        block->on_run = [&, in_order, side_by_side] {
            way = present_deeds() == nullptr ? '.' : 's';
            present += Crew::Time(way == '.' ? in_order : side_by_side);
            return true;
        };
    }
    row.prepare();
    std::string ways;
    for (int wave = 1; wave <= waves; ++wave) {
        EXPECT_TRUE(row.run());
        EXPECT_EQ(row.blocks[0]->runs, wave);
        EXPECT_EQ(row.blocks[1]->runs, wave);
        ways += way;
        present += Crew::Time(1'000'000);  // between waves
    }
    return ways;
}

TEST(Crew, RunsBlocksSideBySideWhereThatIsFaster)
{
    // In the first wave nothing is known. Then four waves are measured, and four of the other way.
    EXPECT_EQ(ways_of(25, 5000, 4000), ".....ssssssss....ssssssss");
    EXPECT_EQ(ways_of(25, 5000, 6000), ".....ssss........ssss....");
    EXPECT_EQ(ways_of(25, 999, 1), ".........................");
    EXPECT_EQ(ways_of(25, 1000, 999), ".....ssssssss....ssssssss");
}

TEST(Crew, LearnsNothingFromWavesInWhichNothingThatIsWorthAThreadRuns)
{
    ChoosingRow row(2, 1000);
    std::string ways;
    row.blocks[0]->on_run = [&] {
        ways += present_deeds() == nullptr ? '.' : 's';
        present += Crew::Time(5000);
        return true;
    };
    row.prepare();
    for (int wave = 0; wave < 10; ++wave) {
        ASSERT_TRUE(row.run());
        row.wave->visit(0);
        row.wave->ask(1);
        ASSERT_TRUE(row.wave->run());
        ASSERT_TRUE(row.wave->reset());
    }

    EXPECT_EQ(ways, ".....ssss.");
}

/// Whether a block that takes these times in its first runs is worth a thread in the one behind.
bool is_worth_a_thread(const std::vector<int>& times, int least)
{
    ChoosingRow row(1, least);
    row.blocks[0]->on_run = [&] {
        const auto run = static_cast<std::size_t>(row.blocks[0]->runs) - 1;
        present += Crew::Time(run < times.size() ? times[run] : 0);
        return true;
    };
    row.prepare();
    for (std::size_t wave = 0; wave < times.size(); ++wave) {
        EXPECT_TRUE(row.run());
    }
    row.wave->visit(0);  // it will not be due
    readings = 0;
    EXPECT_TRUE(row.wave->run());
    EXPECT_TRUE(row.wave->reset());
    return readings >= 2;  // of the wave; it may be sampled too
}

TEST(Crew, CountsLittleThatABlockTookLongOnce)
{
    EXPECT_TRUE(is_worth_a_thread({1000}, 1000));
    EXPECT_FALSE(is_worth_a_thread({999}, 1000));
    EXPECT_TRUE(is_worth_a_thread({800, 1600}, 1000));
    EXPECT_FALSE(is_worth_a_thread({800, 1599}, 1000));
    EXPECT_TRUE(is_worth_a_thread({800, 100'000}, 1400));
    EXPECT_FALSE(is_worth_a_thread({800, 100'000}, 1401));
    EXPECT_TRUE(is_worth_a_thread({1000, 1000, 0, 1000}, 750));
    EXPECT_FALSE(is_worth_a_thread({0, 0}, 2));
    EXPECT_TRUE(is_worth_a_thread({0, 0}, 1));
}

TEST(Crew, GoesOnBehindABlockThatIsDone)
{
    ChoosingRow row(2, 1000);
    row.blocks[0]->on_run = [] { return false; };
    row.prepare();

    EXPECT_TRUE(row.run());
    EXPECT_TRUE(row.run());

    EXPECT_EQ(row.blocks[0]->runs, 1);
    EXPECT_EQ(row.blocks[1]->runs, 2);
}

// A clock for several threads, by which a run takes as long as the block says.
std::atomic<std::int64_t> shared_present{0};

std::chrono::nanoseconds read_shared_clock()
{
    return std::chrono::nanoseconds(shared_present);
}

/// A row of which each block takes so many nanoseconds in a run; one that takes 1000 is worth a
/// thread.
class TimedRow : public Row {
public:
    explicit TimedRow(const std::vector<int>& times) : Row(times.size())
    {
        for (std::size_t at = 0; at < times.size(); ++at) {
            blocks[at]->on_run = [this, at, time = times[at]] {
                shared_present += time;
                on_run(at);
                return true;
            };
        }
        ties.resize(times.size());
    }

    void prepare()
    {
        graph.arrange();
        wave = std::make_unique<Wave>(graph.network(), watcher, watcher);
        crew = std::make_unique<Crew>(*wave, graph.network(), ties,
                                      Crew::Setting{kThreads, Crew::Time(1000), true},
                                      read_shared_clock);
    }

    std::function<void(std::size_t)> on_run = [](std::size_t) {};
};

TEST(Crew, RunsEachBlockOnceInAWaveWhateverItTakes)
{
    constexpr int kWaves = 10;
    for (const std::vector<int>& times : std::vector<std::vector<int>>{
             {5000, 5000, 5000}, {10, 10, 10}, {5000, 10, 10}, {10, 5000, 5000}, {10, 5000, 999}}) {
        TimedRow row(times);
        row.prepare();

        for (int wave = 0; wave < kWaves; ++wave) {
            ASSERT_TRUE(row.run());
        }

        for (const FakeBlock* block : row.blocks) {
            EXPECT_EQ(block->runs, kWaves) << block->get_name() << testing::PrintToString(times);
        }
    }
}

TEST(Crew, KeepsAnExpensiveBlockWithNothingBesideItOnTheThreadOfTheGraph)
{
    TimedRow row({10, 5000, 10});
    const std::thread::id mine = std::this_thread::get_id();
    std::string order;
    row.on_run = [&](std::size_t at) {
        EXPECT_EQ(std::this_thread::get_id(), mine);
        order += std::to_string(at);
    };
    row.prepare();

    for (int wave = 0; wave < 100; ++wave) {
        order.clear();
        ASSERT_TRUE(row.run());
        ASSERT_EQ(order, "012");
    }
}

TEST(Crew, RunsAnExpensiveBlockBesideExpensiveOnesThatAreTied)
{
    TimedRow row({1000, 1000});
    row.ties = {Tie::Thread, Tie::None};
    std::atomic<int> arrived{0};
    row.on_run = [&arrived](std::size_t) {
        const int wanted = ++arrived <= 2 ? 0 : 4;  // from the second wave on the times are known
        while (Workers::are_there() && arrived < wanted) {
            std::this_thread::yield();
        }
    };
    row.prepare();

    EXPECT_TRUE(row.run());
    EXPECT_TRUE(row.run());

    EXPECT_EQ(arrived, 4);
}

TEST(Crew, RunsWhatIsNotWorthAThreadBehindWhatIsTied)
{
    // Neither is given away where one of them takes too little.
    for (const std::vector<int>& times : {std::vector<int>{999, 1000}, {1000, 999}}) {
        TimedRow row(times);
        row.ties = {Tie::Thread, Tie::None};
        std::atomic<bool> has_come{false};
        row.on_run = [&has_come](std::size_t at) {
            has_come = at == 1;
            for (int turn = 0; at == 0 && turn < 1000; ++turn) {
                std::this_thread::yield();
                EXPECT_FALSE(has_come);
            }
        };
        row.prepare();

        for (int wave = 0; wave < 10; ++wave) {
            EXPECT_TRUE(row.run());
        }
    }
}

TEST(Crew, TellsAProbeWhenAndOnWhichThreadABlockRan)
{
    struct Probe final : public IRunProbe {
        void wave_begins() override {}
        void wave_ends() override {}
        void run_begins(std::uint32_t /*block*/) override {}
        void run_ends(std::uint32_t /*block*/, bool /*has_failed*/) override {}
        void ran(const TimedRun& run) override { runs.push_back(run); }
        std::vector<TimedRun> runs;
    } probe;
    shared_present = 1;
    TimedRow row({10});
    row.on_run = [&row](std::size_t) {
        if (row.blocks[0]->runs == 7) {
            throw std::runtime_error("no");
        }
    };
    row.prepare();
    row.wave->set_probe(&probe);
    for (int wave = 0; wave < 6; ++wave) {
        ASSERT_TRUE(row.run());
    }
    ASSERT_FALSE(row.run());

    ASSERT_EQ(probe.runs.size(), 7U);
    for (int run = 0; run < 7; ++run) {
        const TimedRun& seen = probe.runs[static_cast<std::size_t>(run)];
        EXPECT_EQ(seen.block, 0U);
        EXPECT_EQ(seen.thread, 0U);
        EXPECT_EQ(seen.begin, Crew::Time(1 + 10 * run));
        EXPECT_EQ(seen.end, Crew::Time(11 + 10 * run));
        EXPECT_EQ(seen.has_failed, run == 6);
    }
}

TEST(Crew, TellsAProbeTheThreadsOfBlocksThatRanAtTheSameTime)
{
    struct Probe final : public IRunProbe {
        void wave_begins() override {}
        void wave_ends() override {}
        void run_begins(std::uint32_t /*block*/) override {}
        void run_ends(std::uint32_t /*block*/, bool /*has_failed*/) override {}
        void ran(const TimedRun& run) override { threads.insert(run.thread); }
        std::set<std::uint32_t> threads;
    } probe;
    Row row(kThreads);
    std::atomic<unsigned> arrived{0};
    for (FakeBlock* block : row.blocks) {
        block->on_run = [&arrived] {
            for (++arrived; Workers::are_there() && arrived < kThreads;) {
                std::this_thread::yield();
            }
            return true;
        };
    }
    row.prepare();
    row.wave->set_probe(&probe);

    EXPECT_TRUE(row.run());

    EXPECT_EQ(probe.threads, Workers::are_there() ? std::set<std::uint32_t>({0, 1, 2, 3})
                                                  : std::set<std::uint32_t>({0}));
}

TEST(Crew, ReadsTheClockForFewRunsWithoutAProbe)
{
    Row row(1);
    row.graph.arrange();
    row.wave = std::make_unique<Wave>(row.graph.network(), row.watcher, row.watcher);
    const Crew crew(*row.wave, row.graph.network(), {Tie::Thread}, always(), read_clock);
    readings = 0;

    for (int wave = 0; wave < 65; ++wave) {
        ASSERT_TRUE(row.run());
    }

    EXPECT_EQ(readings, 5 * 2);
}

TEST(Crew, HasTheLoopUsedByOneBlockAtATime)
{
    // A tied block has the loop from the beginning of its run.
    for (const Tie tie : {Tie::None, Tie::Thread}) {
        Row row(2);
        std::atomic<bool> has_taken{false};
        std::atomic<bool> has_come{false};
        std::atomic<bool> has_ended{false};
        row.blocks[0]->on_run = [&, tie] {
            if (tie == Tie::None) {
                row.crew->take_loop(0);
            }
            has_taken = true;
            while (Workers::are_there() && !has_come) {
                std::this_thread::yield();
            }
            for (int turn = 0; turn < 1000; ++turn) {
                std::this_thread::yield();
            }
            row.crew->take_loop(0);  // once more changes nothing
            has_ended = true;
            return true;
        };
        row.blocks[1]->on_run = [&] {
            while (!has_taken) {
                std::this_thread::yield();
            }
            has_come = true;
            row.crew->take_loop(1);
            EXPECT_TRUE(has_ended);
            return true;
        };
        row.ties = {tie, Tie::None};
        row.prepare();

        EXPECT_TRUE(row.run());

        EXPECT_THAT(row.watcher.lines, IsEmpty());
        EXPECT_EQ(row.blocks[1]->runs, 1);
    }
}

TEST(Crew, LetsABlockInItsTurnUseTheLoopAnyway)
{
    ChoosingRow row(1, 1000);
    row.blocks[0]->on_run = [&row] {
        row.crew->take_loop(0);
        return true;
    };
    row.prepare();

    EXPECT_TRUE(row.run());
    EXPECT_THAT(row.watcher.lines, IsEmpty());
}

TEST(Crew, LeavesNothingToBeSeenOfABlockBehindTheEndOfTheWave)
{
    for (const Tie tie : {Tie::None, Tie::Place}) {
        const bool runs_ahead = tie == Tie::None && Workers::are_there();
        Row row(2);
        OutPort<int>& out = row.blocks[1]->output("out");
        std::atomic<bool> has_run{false};
        row.blocks[0]->on_run = [&, runs_ahead]() -> bool {
            while (runs_ahead && !has_run) {
                std::this_thread::yield();
            }
            throw std::runtime_error("no");
        };
        row.blocks[1]->on_run = [&] {
            out.write(1);
            has_run = true;
            return true;
        };
        row.ties = {Tie::None, tie};
        row.prepare();

        EXPECT_FALSE(row.run());
        EXPECT_EQ(row.blocks[1]->runs, runs_ahead ? 1 : 0);
        EXPECT_FALSE(out.is_triggered());
        row.wave->visit(1);  // it is not due any more
        EXPECT_TRUE(row.wave->run());
        EXPECT_TRUE(row.wave->reset());

        EXPECT_EQ(row.blocks[1]->runs, runs_ahead ? 1 : 0);
        EXPECT_THAT(row.watcher.lines, ElementsAre("failed no 0"));
    }
}

TEST(Crew, TakesOtherTies)
{
    Row row(2);
    const std::thread::id mine = std::this_thread::get_id();
    std::string order;
    for (FakeBlock* block : row.blocks) {
        block->on_run = [&, block] {
            EXPECT_EQ(std::this_thread::get_id(), mine);
            order += block->get_name();
            return true;
        };
    }
    row.prepare();

    row.crew->plan(row.graph.network(), {Tie::Thread, Tie::Thread});
    for (int wave = 0; wave < 50; ++wave) {
        order.clear();
        ASSERT_TRUE(row.run());
        ASSERT_EQ(order, "ab");
    }
}

TEST(Crew, CountsNoRunOfABlockWhoseInputFails)
{
    bool fails = false;
    FakeGraph graph;
    FakeBlock& block = graph.add("a", true);
    block.add_inport(std::make_unique<FailingInput>(fails));
    Watcher watcher;
    Wave wave(graph.arrange(), watcher, watcher);
    const Crew crew(wave, graph.network(), {Tie::None}, always(), Loop::now);
    for (const bool fails_now : {false, true}) {
        fails = fails_now;
        wave.ask(0);
        EXPECT_TRUE(wave.run());
        EXPECT_TRUE(wave.reset());
    }

    EXPECT_THAT(watcher.lines, ElementsAre("failed no input 0"));
    EXPECT_EQ(block.runs, 1);
    EXPECT_EQ(wave.runs(0), 1U);
}

}  // namespace
