#include "host/event_loop.h"

#include <quorval/block.h>
#include <quorval/port.h>
#include "support/support.h"

#include <fcntl.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <csignal>
#include <cstdint>
#include <memory>
#include <stdexcept>
#include <string>
#include <system_error>
#include <utility>
#include <vector>

namespace {

using host::EventLoop;
using Quorval::FDEvent;
using quorval_test::expect_throw;
using Readiness = std::pair<bool, bool>;

constexpr FDEvent::EventMask kReadable{true, false};
constexpr FDEvent::EventMask kWritable{false, true};
constexpr FDEvent::EventMask kNothing{false, false};

class EventLoopTest : public testing::Test {
protected:
    EventLoopTest() : first_(::eventfd(0, EFD_NONBLOCK)), second_(::eventfd(0, EFD_NONBLOCK)) {}
    ~EventLoopTest() override
    {
        ::close(first_);
        ::close(second_);
    }

    static void fire(int fd)
    {
        const std::uint64_t one = 1;
        ASSERT_EQ(::write(fd, &one, sizeof one), static_cast<ssize_t>(sizeof one));
    }
    static void drain(int fd)
    {
        std::uint64_t count = 0;
        ASSERT_EQ(::read(fd, &count, sizeof count), static_cast<ssize_t>(sizeof count));
    }

    /// Notes `name` and takes the readiness of the descriptor away.
    EventLoop::Callback note(const std::string& name, int fd)
    {
        return [this, name, fd](bool, bool) {
            calls_.push_back(name);
            drain(fd);
        };
    }
    EventLoop::Callback note_readiness()
    {
        return
            [this](bool readable, bool writable) { readiness_.emplace_back(readable, writable); };
    }

    EventLoop loop_;
    int first_;
    int second_;
    std::vector<std::string> calls_;
    std::vector<Readiness> readiness_;
};

TEST_F(EventLoopTest, TellsTheReadinessOfADescriptor)
{
    const std::vector<std::pair<FDEvent::EventMask, Readiness>> table = {
        {kReadable, {true, false}}, {kWritable, {false, true}}, {{true, true}, {true, true}}};
    fire(first_);

    for (const auto& [mask, expected] : table) {
        readiness_.clear();
        const auto event = loop_.watch(first_, mask, note_readiness());
        loop_.run_once();

        EXPECT_EQ(readiness_, std::vector<Readiness>{expected});
    }
}

TEST_F(EventLoopTest, CountsWhatEpollRefusesAsAlwaysReady)
{
    const quorval_test::TemporaryDirectory directory;
    const std::string regular = directory.path() / "file";
    quorval_test::write_file(regular, "x");

    for (const std::string& file : {regular, std::string("/dev/null"), directory.path().string()}) {
        readiness_.clear();
        const int fd = ::open(file.c_str(), O_RDONLY);
        const auto event = loop_.watch(fd, kReadable, note_readiness());
        loop_.run_once();
        loop_.run_once();

        EXPECT_EQ(readiness_, (std::vector<Readiness>{{true, false}, {true, false}})) << file;
        ::close(fd);
    }
}

TEST_F(EventLoopTest, CallsTheUrgentOneFirst)
{
    const auto normal = loop_.watch(first_, kReadable, note("normal", first_));
    const auto urgent =
        loop_.watch(second_, kReadable, note("urgent", second_), EventLoop::Priority::Urgent);
    fire(first_);
    fire(second_);

    loop_.run_once();
    loop_.run_once();

    EXPECT_EQ(calls_, (std::vector<std::string>{"urgent", "normal"}));
}

TEST_F(EventLoopTest, FollowsAChangeOfTheDescriptor)
{
    const auto event = loop_.watch(first_, kReadable, note("moved", second_));
    fire(first_);
    fire(second_);

    event->change_fd(second_);
    loop_.run_once();

    EXPECT_EQ(calls_, std::vector<std::string>{"moved"});
    const auto again = loop_.watch(first_, kReadable, note("first", first_));
    loop_.run_once();
    EXPECT_EQ(calls_, (std::vector<std::string>{"moved", "first"}));
}

TEST_F(EventLoopTest, FollowsAChangeToARegularFile)
{
    const auto event = loop_.watch(first_, kReadable, note_readiness());
    const int null = ::open("/dev/null", O_RDONLY);

    event->change_fd(null);
    loop_.run_once();

    EXPECT_EQ(readiness_, (std::vector<Readiness>{{true, false}}));
    ::close(null);
}

TEST_F(EventLoopTest, FollowsAChangeOfTheMask)
{
    const auto event = loop_.watch(first_, kReadable, note_readiness());
    const auto other = loop_.watch(second_, kReadable, note("other", second_));
    fire(first_);
    fire(second_);

    event->change_mask(kNothing);
    loop_.run_once();
    EXPECT_EQ(calls_, std::vector<std::string>{"other"});
    EXPECT_TRUE(readiness_.empty());
    event->change_mask(kWritable);
    loop_.run_once();

    EXPECT_EQ(readiness_, (std::vector<Readiness>{{false, true}}));
}

TEST_F(EventLoopTest, FollowsAChangeOfTheMaskOfARegularFile)
{
    const int null = ::open("/dev/null", O_RDWR);
    const auto event = loop_.watch(null, kReadable, note_readiness());
    const auto other = loop_.watch(first_, kReadable, note("other", first_));

    event->change_mask(kNothing);
    fire(first_);
    loop_.run_once();
    EXPECT_EQ(calls_, std::vector<std::string>{"other"});
    EXPECT_TRUE(readiness_.empty());
    event->change_mask(kWritable);
    loop_.run_once();

    EXPECT_EQ(readiness_, (std::vector<Readiness>{{false, true}}));
    ::close(null);
}

TEST_F(EventLoopTest, CallsNothingAfterTheEndOfARegistration)
{
    auto event = loop_.watch(first_, kReadable, note("ended", first_));
    const auto other = loop_.watch(second_, kReadable, note("other", second_));
    fire(first_);
    fire(second_);

    event.reset();
    loop_.run_once();

    EXPECT_EQ(calls_, std::vector<std::string>{"other"});
}

TEST_F(EventLoopTest, LetsACallbackEndItsOwnRegistration)
{
    std::unique_ptr<FDEvent> event;
    event = loop_.watch(first_, kReadable, [&](bool, bool) {
        event.reset();
        calls_.push_back("ended");
    });
    fire(first_);

    loop_.run_once();

    EXPECT_EQ(calls_, std::vector<std::string>{"ended"});
    EXPECT_EQ(event, nullptr);
    EXPECT_NE(loop_.watch(first_, kReadable, note("again", first_)), nullptr);
}

TEST_F(EventLoopTest, RefusesToWatchADescriptorTwice)
{
    const auto event = loop_.watch(first_, kReadable, note("first", first_));

    expect_throw<std::system_error>([&] { loop_.watch(first_, kReadable, note("second", first_)); },
                                    "cannot watch a descriptor twice: File exists");
    const auto other = loop_.watch(second_, kReadable, note("other", second_));
    expect_throw<std::system_error>([&] { other->change_fd(first_); },
                                    "cannot watch a descriptor twice: File exists");

    EXPECT_EQ(other->get_fd(), second_);
    fire(first_);
    loop_.run_once();
    EXPECT_EQ(calls_, std::vector<std::string>{"first"});
}

TEST_F(EventLoopTest, RefusesWhatIsNoDescriptor)
{
    const int closed = ::dup(first_);
    ::close(closed);

    expect_throw<std::system_error>([&] { loop_.watch(closed, kReadable, note_readiness()); },
                                    "cannot watch a descriptor: Bad file descriptor");
    expect_throw<std::system_error>([&] { loop_.watch(-1, kReadable, note_readiness()); },
                                    "cannot watch a descriptor: Bad file descriptor");
}

TEST_F(EventLoopTest, PassesTheExceptionOfACallbackOnOnce)
{
    const auto event = loop_.watch(first_, kReadable, [&](bool, bool) {
        drain(first_);
        throw std::runtime_error("from the callback");
    });
    const auto other = loop_.watch(second_, kReadable, note("other", second_));
    fire(first_);

    expect_throw<std::runtime_error>([&] { loop_.run_once(); }, "from the callback");

    fire(second_);
    loop_.run_once();
    EXPECT_EQ(calls_, std::vector<std::string>{"other"});
}

TEST_F(EventLoopTest, TriggersAnEventPortAndLetsItGoWithItsBlock)
{
    auto block = std::make_unique<Quorval::Block>("block");
    Quorval::FdPort* port = block->make_eventport("event");
    port->set_event(
        loop_.watch(port->get_fd(), port->get_eventmask(),
                    [port](bool readable, bool writable) { port->trigger(readable, writable); }));
    static_cast<Quorval::EventPort*>(port)->fire();

    loop_.run_once();

    EXPECT_TRUE(port->is_triggered());
    EXPECT_TRUE(port->is_readable());
    block.reset();  // closes the descriptor before the registration ends
    const auto event = loop_.watch(first_, kReadable, note("first", first_));
    fire(first_);
    loop_.run_once();
    EXPECT_EQ(calls_, std::vector<std::string>{"first"});
}

TEST_F(EventLoopTest, CallsBackForASignal)
{
    sigset_t before;
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGUSR1);
    pthread_sigmask(SIG_BLOCK, &signals, &before);
    loop_.watch_signal(SIGUSR1, [this] { calls_.push_back("signal"); });
    const auto event = loop_.watch(first_, kReadable, note("first", first_));
    fire(first_);

    ::kill(::getpid(), SIGUSR1);
    loop_.run_once();
    loop_.run_once();

    EXPECT_EQ(calls_, (std::vector<std::string>{"signal", "first"}));
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

}  // namespace
