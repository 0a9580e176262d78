// How many instructions a wave takes, beside a loop by hand. Counts are the same on a busy machine.

#include <quorval/block.h>
#include "loop/loop.h"
#include "observe/observer.h"
#include "schedule/crew.h"
#include "schedule/network.h"
#include "schedule/wave.h"

#include <gtest/gtest.h>

#include <sys/ptrace.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <memory>
#include <string>
#include <vector>

using namespace Quorval;
using namespace Quorval::runtime;

namespace {

/// Takes steps through a child that stops itself, up to its next stop.
long count_steps(pid_t child)
{
    int status = 0;
    for (long steps = 0;; ++steps) {
        if (::ptrace(PTRACE_SINGLESTEP, child, nullptr, nullptr) != 0 ||
            ::waitpid(child, &status, 0) != child || !WIFSTOPPED(status)) {
            return -1;
        }
        if (WSTOPSIG(status) == SIGSTOP) {
            return steps;
        }
    }
}

/// The instructions of an action when it is done for the second time; negative: not to be counted.
template <class Action>
long count_instructions(const Action& action)
{
    const pid_t child = ::fork();
    if (child == 0) {
        action();
        ::ptrace(PTRACE_TRACEME, 0, nullptr, nullptr);
        ::raise(SIGSTOP);
        action();
        ::raise(SIGSTOP);
        ::_exit(0);
    }
    int status = 0;
    ::waitpid(child, &status, 0);
    const long steps = WIFSTOPPED(status) ? count_steps(child) : -1;
    ::kill(child, SIGKILL);
    ::waitpid(child, &status, 0);
    return steps;
}

/// Adds one to what it gets.
class Add final : public Block {
public:
    using Block::Block;

    bool run() override
    {
        out->write(in->get() == nullptr ? 1 : in->value() + 1);
        return true;
    }

    InPort<double>* in = static_cast<InPort<double>*>(
        add_inport(std::make_unique<InPort<double>>("in", Datatype("double"))));
    OutPort<double>* out = static_cast<OutPort<double>*>(
        add_outport(std::make_unique<OutPort<double>>("out", Datatype("double"))));
};

class NoDescriptors final : public IDescriptorPorts {
    bool is_triggered(std::uint32_t /*block*/) override { return false; }
    void before_run(std::uint32_t /*block*/) override {}
    void after_run(std::uint32_t /*block*/) override {}
    void reset(std::uint32_t /*block*/) override {}
};

class NoEvents final : public IWaveEvents {
    void block_failed(std::uint32_t /*block*/, const std::string& /*text*/) override {}
    void block_is_done(std::uint32_t /*block*/) override {}
};

/// A chain behind blocks that have nothing to do.
class Chain {
public:
    explicit Chain(std::size_t length, std::uint32_t idle = 0) : first_(idle)
    {
        for (std::size_t at = 0; at < idle + length; ++at) {
            blocks_.push_back(std::make_unique<Add>("add"));
            network_.nodes.push_back({"add" + std::to_string(at), blocks_.back().get(), false});
        }
        for (std::uint32_t at = idle + 1; at < blocks_.size(); ++at) {
            network_.wires.push_back({at - 1, at, blocks_[at - 1]->out, blocks_[at]->in, false});
        }
        wave_ = std::make_unique<Wave>(network_, descriptors_, events_);
    }

    void run_wave()
    {
        wave_->ask(first_);
        wave_->run();
        wave_->reset();
    }

    /// The same calls.
    void run_by_hand()
    {
        run_first();
        for (const Wire& wire : network_.wires) {
            wire.input->update(*wire.output);
            if (wire.input->is_triggered()) {
                network_.nodes[wire.to].block->run();
                triggered_ += blocks_[wire.to]->out->is_triggered() ? 1 : 0;
            }
            network_.nodes[wire.to].block->reset_inports(false);
            wire.output->reset(false);
        }
        blocks_.back()->out->reset(false);
    }

    void set_probe(IRunProbe* probe) { wave_->set_probe(probe); }

    /// Several threads from now on, none of which gets anything to do.
    void use_crew(Crew::Time (*now)())
    {
        crew_ = std::make_unique<Crew>(*wave_, network_, std::vector<Tie>(blocks_.size()),
                                       Crew::Setting(), now);
    }

    double last() const { return blocks_.back()->out->value(); }

private:
    void run_first()
    {
        network_.nodes[first_].block->run();
        network_.nodes[first_].block->reset_inports(false);
    }

    std::uint32_t first_;
    std::vector<std::unique_ptr<Add>> blocks_;
    Network network_;
    NoDescriptors descriptors_;
    NoEvents events_;
    std::unique_ptr<Wave> wave_;
    std::unique_ptr<Crew> crew_;
    long triggered_ = 0;
};

double instructions_of_wave(Chain& chain)
{
    return static_cast<double>(count_instructions([&chain] { chain.run_wave(); }));
}

double instructions_by_hand(Chain& chain)
{
    return static_cast<double>(count_instructions([&chain] { chain.run_by_hand(); }));
}

TEST(WaveSpeed, TakesFewMoreInstructionsThanALoopByHand)
{
    struct Case {
        std::size_t length;
        double limit;  // what was reached, and a tenth
    };
    for (const Case& one : {Case{10, 2.15}, Case{100, 2.0}}) {
        Chain chain(one.length);

        const double wave = instructions_of_wave(chain);
        const double by_hand = instructions_by_hand(chain);

        ASSERT_GT(by_hand, 50 * static_cast<double>(one.length));
        EXPECT_GT(wave, by_hand) << one.length;
        EXPECT_LT(wave / by_hand, one.limit) << one.length;
    }
}

// To read the clock is the system's affair, and takes more or fewer instructions.
long readings = 0;

Loop::Time read_no_clock()
{
    return Loop::Time(100 * ++readings);
}

TEST(WaveSpeed, ReadsTheClockOnceForATimedRunAndDoesLittleMore)
{
    constexpr std::size_t kLength = 300;
    constexpr double kMost = 97;  // what was reached, and a tenth
    Chain chain(kLength);
    const double untimed = instructions_of_wave(chain);
    Observer observer(kLength, read_no_clock);
    chain.set_probe(&observer);

    const double timed = instructions_of_wave(chain);
    chain.run_wave();

    EXPECT_GT(timed, untimed);
    EXPECT_LT(timed - untimed, kMost * kLength);
    EXPECT_EQ(readings, kLength + 1);
}

TEST(WaveSpeed, TakesLittleMoreWithThreadsThatHaveNothingToDo)
{
    constexpr int kWaves = 10;  // the first runs are timed
    for (const std::size_t length : {10, 100}) {
        Chain chain(length);
        const double without = instructions_of_wave(chain);
        chain.use_crew(read_no_clock);
        for (int wave = 0; wave < kWaves; ++wave) {
            chain.run_wave();
        }

        const double with = instructions_of_wave(chain);

        EXPECT_GT(with, without) << length;
        EXPECT_LT(with / without, 1.1) << length;
    }
}

TEST(WaveSpeed, DoesNotDependOnBlocksThatHaveNothingToDo)
{
    Chain alone(10);
    Chain among_many(10, 100'000);

    const double few = instructions_of_wave(alone);

    ASSERT_GT(few, 500);
    EXPECT_LT(instructions_of_wave(among_many) / few, 1.1);
}

TEST(WaveSpeed, ComparesWhatGivesTheSame)
{
    Chain chain(10);

    chain.run_wave();
    EXPECT_EQ(chain.last(), 10);
    chain.run_by_hand();
    EXPECT_EQ(chain.last(), 10);
    chain.run_wave();

    EXPECT_EQ(chain.last(), 10);
}

}  // namespace
