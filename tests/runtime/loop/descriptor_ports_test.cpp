#include "loop/descriptor_ports.h"

#include "runtime/loop/descriptors.h"
#include "runtime/support/fakes.h"
#include "support/support.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/eventfd.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <array>
#include <string>
#include <vector>

using namespace Quorval;
using namespace Quorval::runtime;
using quorval_test::FakeBlock;
using quorval_test::FakeGraph;
using quorval_test::is_readable;
using quorval_test::LogRecorder;

namespace {

class NoEvents final : public IWaveEvents {
public:
    void block_failed(std::uint32_t /*block*/, const std::string& text) override
    {
        ADD_FAILURE() << text;
    }
    void block_is_done(std::uint32_t /*block*/) override {}
};

/// One block, "a", and all that it needs to be run for its descriptors.
class Setting {
public:
    Setting() : block(graph.add("a")), ports_(graph.network()) {}
    Setting(const Setting&) = delete;
    Setting& operator=(const Setting&) = delete;
    ~Setting() { ports_.unwatch(0); }

    void begin()
    {
        wave_ = std::make_unique<Wave>(graph.network(), ports_, events_);
        EXPECT_TRUE(ports_.collect(0));
        wave_->has_descriptors(0);
        ports_.watch(0, poller_);
    }

    /// Waves for what is ready, until nothing is.
    void settle()
    {
        while (play()) {}
    }

    /// One wave for what is ready.
    bool play()
    {
        for (const Ready& ready : poller_.wait(false)) {
            wave_->visit(ports_.make_ready(ready));
        }
        return play_on();
    }

    /// One wave for what the caller made ready.
    bool play_on()
    {
        if (wave_->is_idle()) {
            return false;
        }
        ports_.begin_wave();
        wave_->run();
        wave_->reset();
        return true;
    }

    EventPort& event_port() { return dynamic_cast<EventPort&>(*block.make_eventport("next")); }

    void ask() { wave_->ask(0); }
    DescriptorPorts& ports() { return ports_; }
    const std::vector<Ready>& ready() { return poller_.wait(false); }
    void take(const std::vector<Ready>& all)
    {
        for (const Ready& ready : all) {
            wave_->visit(ports_.make_ready(ready));
        }
    }

    FakeGraph graph;
    FakeBlock& block;

private:
    Poller poller_;
    NoEvents events_;
    DescriptorPorts ports_;
    std::unique_ptr<Wave> wave_;
};

TEST(EventPorts, RunTheirBlockOnceForOneFire)
{
    Setting setting;
    EventPort& port = setting.event_port();
    setting.begin();

    port.fire();
    setting.settle();

    EXPECT_EQ(setting.block.runs, 1);
    EXPECT_FALSE(port.is_triggered());
}

TEST(EventPorts, MeetSeveralFiresByOneRun)
{
    Setting setting;
    EventPort& port = setting.event_port();
    setting.begin();

    port.fire();
    port.fire();
    setting.settle();

    EXPECT_EQ(setting.block.runs, 1);
}

TEST(EventPorts, MeetAFireBetweenTriggerAndRunByThatRun)
{
    Setting setting;
    EventPort& port = setting.event_port();
    setting.begin();
    port.fire();
    setting.take(setting.ready());

    port.fire();
    setting.play_on();
    setting.settle();

    EXPECT_EQ(setting.block.runs, 1);
}

TEST(EventPorts, RunTheirBlockAgainForFiresInTheRun)
{
    for (const int count : {1, 2}) {
        Setting setting;
        EventPort& port = setting.event_port();
        setting.block.on_run = [&] {
            for (int fire = 0; setting.block.runs == 1 && fire < count; ++fire) {
                port.fire();
            }
            return true;
        };
        setting.begin();

        port.fire();
        setting.settle();

        EXPECT_EQ(setting.block.runs, 2) << count;
    }
}

TEST(EventPorts, MayBeResetByTheirBlock)
{
    Setting setting;
    EventPort& port = setting.event_port();
    setting.block.on_run = [&] {
        EXPECT_TRUE(port.is_triggered());
        port.reset(false);
        return true;
    };
    setting.begin();

    port.fire();
    setting.settle();
    port.fire();
    port.fire();
    setting.settle();

    EXPECT_EQ(setting.block.runs, 2);
}

TEST(EventPorts, RunTheirBlockAgainForAFireBehindItsOwnReset)
{
    Setting setting;
    EventPort& port = setting.event_port();
    setting.block.on_run = [&] {
        port.reset(false);
        if (setting.block.runs == 1) {
            port.fire();
        }
        return true;
    };
    setting.begin();

    port.fire();
    setting.settle();

    EXPECT_EQ(setting.block.runs, 2);
}

TEST(EventPorts, HaveMetWhatTheirBlockDrainedItself)
{
    Setting setting;
    EventPort& port = setting.event_port();
    setting.block.on_run = [&] {
        port.fire();
        port.reset(false);
        return true;
    };
    setting.begin();

    port.fire();
    setting.settle();

    EXPECT_EQ(setting.block.runs, 1);
}

TEST(EventPorts, BearABlockThatReadsTheDescriptorItself)
{
    Setting setting;
    EventPort& port = setting.event_port();
    setting.block.on_run = [&] {
        std::uint64_t count = 0;
        EXPECT_EQ(::read(port.get_fd(), &count, sizeof count), 8);
        return true;
    };
    setting.begin();

    port.fire();
    setting.settle();

    EXPECT_EQ(setting.block.runs, 1);
    EXPECT_FALSE(port.is_triggered());
}

TEST(EventPorts, AreResetThoughTheyKeepTheirTrigger)
{
    Setting setting;
    setting.block.add_fdport(std::make_unique<EventPort>("kept", false, ::eventfd(0, EFD_CLOEXEC)));
    auto& port = dynamic_cast<EventPort&>(*setting.block.get_fdport("kept"));
    setting.begin();

    port.fire();
    setting.settle();

    EXPECT_EQ(setting.block.runs, 1);
    EXPECT_FALSE(port.is_triggered());
}

TEST(EventPorts, KeepAFireThatNoRunHasMet)
{
    for (const bool has_run : {false, true}) {
        for (const bool is_reset_by_block : {false, true}) {
            Setting setting;
            EventPort& port = setting.event_port();
            setting.begin();
            if (has_run) {
                port.fire();
                setting.take(setting.ready());
                setting.ports().before_run(0);
                if (is_reset_by_block) {
                    port.reset(false);
                }
                setting.ports().reset(0);
            }

            port.fire();
            setting.take(setting.ready());
            setting.ports().reset(0);

            EXPECT_FALSE(port.is_triggered());
            EXPECT_EQ(setting.ready().size(), 1U) << has_run << is_reset_by_block;
        }
    }
}

TEST(EventPorts, AreNotReported)
{
    const LogRecorder recorder;
    Setting setting;
    EventPort& port = setting.event_port();
    setting.block.on_run = [&] {
        port.fire();
        return true;
    };
    setting.begin();
    port.fire();

    for (int wave = 0; wave < 1001; ++wave) {
        setting.play();
    }

    EXPECT_EQ(setting.block.runs, 1001);
    EXPECT_TRUE(recorder.lines().empty());
}

TEST(EventPorts, BearATriggerWithoutAFire)
{
    Setting setting;
    EventPort& port = setting.event_port();
    setting.block.on_run = [&] {
        EXPECT_FALSE(is_readable(port.get_fd()));
        return true;
    };
    setting.begin();
    setting.take({{0, true, false}});

    setting.play_on();

    EXPECT_EQ(setting.block.runs, 1);
    EXPECT_FALSE(port.is_triggered());
}

TEST(EventPorts, MayBeMadeOnATimer)
{
    Setting setting;
    const int timer = ::timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC);
    const itimerspec soon = {{0, 0}, {0, 1}};
    ::timerfd_settime(timer, 0, &soon, nullptr);
    auto owned = std::make_unique<EventPort>("timer", true, timer);
    setting.block.add_fdport(std::move(owned));
    setting.begin();

    while (!setting.play()) {}
    setting.settle();

    EXPECT_EQ(setting.block.runs, 1);
}

/// A pipe whose read end a block watches.
class Pipe {
public:
    explicit Pipe(FakeBlock& block, const std::string& name = "pipe")
    {
        EXPECT_EQ(::pipe2(ends_.data(), O_CLOEXEC | O_NONBLOCK), 0);
        block.make_fdport(name, ends_[0], {true, false});
    }
    Pipe(const Pipe&) = delete;
    Pipe& operator=(const Pipe&) = delete;
    ~Pipe()
    {
        ::close(ends_[0]);
        ::close(ends_[1]);
    }

    void fill() const { EXPECT_EQ(::write(ends_[1], "x", 1), 1); }
    void drain() const
    {
        char byte = 0;
        EXPECT_EQ(::read(ends_[0], &byte, 1), 1);
    }

private:
    std::array<int, 2> ends_ = {};
};

TEST(PlainPorts, AreNumberedInTheOrderOfTheirNames)
{
    Setting setting;
    const Pipe last(setting.block, "c");
    const Pipe first(setting.block, "a");
    const Pipe second(setting.block, "b");
    setting.begin();

    first.fill();
    ASSERT_EQ(setting.ready().size(), 1U);
    EXPECT_EQ(setting.ready()[0].tag, 0U);
    first.drain();
    last.fill();
    ASSERT_EQ(setting.ready().size(), 1U);
    EXPECT_EQ(setting.ready()[0].tag, 2U);
}

TEST(PlainPorts, RunTheirBlockForAsLongAsTheyAreReady)
{
    Setting setting;
    const Pipe pipe(setting.block);
    setting.block.on_run = [&] {
        pipe.drain();
        return true;
    };
    setting.begin();

    pipe.fill();
    pipe.fill();
    setting.settle();

    EXPECT_EQ(setting.block.runs, 2);
}

TEST(PlainPorts, AreTriggeredUntilTheirBlockHasRun)
{
    Setting setting;
    const Pipe pipe(setting.block);
    const Port& port = *setting.block.get_fdport("pipe");
    bool was_triggered = false;
    setting.block.on_run = [&] {
        was_triggered = port.is_triggered();
        pipe.drain();
        return true;
    };
    setting.begin();

    pipe.fill();
    setting.settle();

    EXPECT_TRUE(was_triggered);
    EXPECT_FALSE(port.is_triggered());
}

TEST(PlainPorts, AreReportedOnceWhenNobodyDrainsThem)
{
    const LogRecorder recorder;
    Setting setting;
    const Pipe pipe(setting.block);
    setting.begin();
    pipe.fill();

    for (int wave = 0; wave < 999; ++wave) {
        setting.play();
    }
    EXPECT_TRUE(recorder.lines().empty());
    for (int wave = 0; wave < 3000; ++wave) {
        setting.play();
    }

    EXPECT_EQ(recorder.texts(),
              std::vector<std::string>{"descriptor port 'pipe' was still readable after its "
                                       "block's run in 1000 waves in a row: the block may not "
                                       "drain it"});
}

TEST(PlainPorts, AreReportedEachWhereTheirBlockHasSeveral)
{
    const LogRecorder recorder;
    Setting setting;
    const Pipe first(setting.block, "a");
    const Pipe second(setting.block, "b");
    setting.begin();
    first.fill();
    second.fill();

    for (int wave = 0; wave < 1001; ++wave) {
        setting.play();
    }

    const std::string rest =
        "' was still readable after its block's run in 1000 waves in a row: the block may not "
        "drain it";
    EXPECT_EQ(recorder.texts(),
              (std::vector<std::string>{"descriptor port 'a" + rest, "descriptor port 'b" + rest}));
}

TEST(PlainPorts, AreReportedWhereTheyWereNotDrainedInTheLastHundredOfThoseWaves)
{
    struct Case {
        int drained;  // runs
        int reported;
    };
    for (const auto& [drained, reported] : {Case{900, 1000}, Case{901, 1901}, Case{950, 1901}}) {
        const LogRecorder recorder;
        Setting setting;
        const Pipe pipe(setting.block);
        setting.block.on_run = [&, drained = drained] {
            if (setting.block.runs <= drained) {
                pipe.drain();
            }
            return true;
        };
        setting.begin();

        for (int wave = 1; wave < reported; ++wave) {
            pipe.fill();
            setting.play();
        }
        EXPECT_TRUE(recorder.lines().empty()) << drained;
        setting.play();

        EXPECT_EQ(recorder.lines().size(), 1U) << drained;
    }
}

TEST(PlainPorts, AreReportedBehindSoManyWavesSinceOneInWhichTheyWereNotReadable)
{
    const LogRecorder recorder;
    Setting setting;
    const Pipe pipe(setting.block);
    setting.begin();
    pipe.fill();
    setting.play();
    pipe.drain();
    setting.ask();
    setting.play();
    pipe.fill();

    for (int wave = 0; wave < 999; ++wave) {
        setting.play();
    }
    EXPECT_TRUE(recorder.lines().empty());
    setting.play();

    EXPECT_EQ(recorder.lines().size(), 1U);
}

TEST(PlainPorts, AreNotReportedOnARegularFile)
{
    const LogRecorder recorder;
    const quorval_test::TemporaryDirectory directory;
    const int file =
        ::open((directory.store_path() + "file").c_str(), O_CREAT | O_RDWR | O_CLOEXEC, 0600);
    {
        Setting setting;
        setting.block.make_fdport("file", file, {true, false});
        setting.begin();

        for (int wave = 0; wave < 1001; ++wave) {
            setting.play();
        }

        EXPECT_EQ(setting.block.runs, 1001);
    }
    EXPECT_TRUE(recorder.lines().empty());
    ::close(file);
}

TEST(PlainPorts, LeaveTheCountOfAnEventDescriptorToTheirBlock)
{
    Setting setting;
    const int fd = ::eventfd(3, EFD_CLOEXEC);
    setting.block.make_fdport("count", fd, {true, false});
    std::uint64_t count = 0;
    setting.block.on_run = [&] { return ::read(fd, &count, sizeof count) == 8; };
    setting.begin();

    setting.settle();

    EXPECT_EQ(count, 3U);
    ::close(fd);
}

TEST(PlainPorts, KeepTheirTriggerWhereTheyAreMadeTo)
{
    Setting setting;
    const int fd = ::eventfd(1, EFD_CLOEXEC);
    setting.block.add_fdport(std::make_unique<FdPort>("kept", Datatype("extfd"), fd,
                                                      FDEvent::EventMask{true, false}, false));
    setting.begin();

    setting.play();

    EXPECT_EQ(setting.block.runs, 1);
    EXPECT_TRUE(setting.block.get_fdport("kept")->is_triggered());
    ::close(fd);
}

TEST(PlainPorts, BelongToTheirBlock)
{
    FakeGraph graph;
    FakeBlock& a = graph.add("a");
    FakeBlock& b = graph.add("b");
    graph.add("c");
    const Pipe first(a);
    const Pipe second(b);
    DescriptorPorts ports(graph.network());
    Poller poller;
    EXPECT_TRUE(ports.collect(0));
    EXPECT_TRUE(ports.collect(1));
    const auto take = [&] {
        std::vector<std::uint32_t> blocks;
        for (const Ready& ready : poller.wait(false)) {
            blocks.push_back(ports.make_ready(ready));
        }
        return blocks;
    };
    first.fill();
    second.fill();

    ports.watch(1, poller);
    EXPECT_EQ(take(), std::vector<std::uint32_t>{1});
    ports.unwatch(1);
    ports.reset(1);
    EXPECT_FALSE(ports.is_triggered(1));
    ports.watch(0, poller);
    EXPECT_EQ(take(), std::vector<std::uint32_t>{0});
    EXPECT_TRUE(ports.is_triggered(0));
    EXPECT_FALSE(ports.is_triggered(1));
    EXPECT_FALSE(ports.is_triggered(2));  // has none
    ports.reset(1);
    EXPECT_TRUE(ports.is_triggered(0));
    ports.watch(1, poller);
    take();
    ports.reset(0);
    EXPECT_FALSE(ports.is_triggered(0));
    EXPECT_TRUE(ports.is_triggered(1));
    ports.unwatch(0);
    EXPECT_EQ(take(), std::vector<std::uint32_t>{1});
    ports.unwatch(1);
}

TEST(PlainPorts, AreLookedAtBehindTheRunOfTheirBlock)
{
    const LogRecorder recorder;
    FakeGraph graph;
    const Pipe first(graph.add("a"));
    const Pipe second(graph.add("b"));
    DescriptorPorts ports(graph.network());
    ports.collect(0);
    ports.collect(1);

    for (int wave = 0; wave < 1001; ++wave) {
        first.fill();
        second.fill();
        ports.make_ready({0, true, false});
        ports.make_ready({1, true, false});
        ports.begin_wave();
        first.drain();
        ports.after_run(0);
        second.drain();
        ports.after_run(1);
    }

    EXPECT_TRUE(recorder.lines().empty());
}

TEST(EventPorts, AreMetByTheRunOfTheirBlockAlone)
{
    FakeGraph graph;
    FakeBlock& a = graph.add("a");
    FakeBlock& b = graph.add("b");
    std::vector<EventPort*> event_ports;
    for (FdPort* port : {a.make_eventport("1"), a.make_eventport("2"), b.make_eventport("1")}) {
        event_ports.push_back(as_event_port(*port));
    }
    DescriptorPorts ports(graph.network());
    ports.collect(0);
    ports.collect(1);
    for (std::uint32_t port = 0; port < event_ports.size(); ++port) {
        event_ports[port]->fire();
        ports.make_ready({port, true, false});
    }

    ports.before_run(0);
    ports.reset(0);
    ports.reset(1);

    EXPECT_FALSE(is_readable(event_ports[0]->get_fd()));
    EXPECT_FALSE(is_readable(event_ports[1]->get_fd()));
    EXPECT_TRUE(is_readable(event_ports[2]->get_fd()));
    EXPECT_FALSE(event_ports[1]->is_triggered());
}

TEST(PlainPorts, AreNotReportedWhenTheirBlockDrainsThem)
{
    const LogRecorder recorder;
    Setting setting;
    const Pipe pipe(setting.block);
    setting.block.on_run = [&] {
        pipe.drain();
        return true;
    };
    setting.begin();

    for (int wave = 0; wave < 3000; ++wave) {
        pipe.fill();
        setting.play();
    }

    EXPECT_EQ(setting.block.runs, 3000);
    EXPECT_TRUE(recorder.lines().empty());
}

}  // namespace
