#include "loop/loop.h"

#include "runtime/loop/descriptors.h"
#include "support/support.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/eventfd.h>
#include <sys/resource.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <system_error>
#include <thread>
#include <vector>

using namespace Quorval;
using namespace Quorval::runtime;
using namespace std::chrono_literals;
using quorval_test::expect_throw;
using quorval_test::is_readable;
using ::testing::IsEmpty;

namespace {

TEST(Waker, IsNotWrittenWhileNobodySleeps)
{
    Waker waker;

    waker.wake();

    EXPECT_FALSE(is_readable(waker.fd()));
    EXPECT_FALSE(waker.begin_sleep());
    waker.end_sleep();
    EXPECT_TRUE(waker.begin_sleep());
}

TEST(Waker, IsWrittenOnceForManyCalls)
{
    Waker waker;
    ASSERT_TRUE(waker.begin_sleep());

    waker.wake();
    waker.wake();
    waker.wake();

    std::uint64_t count = 0;
    ASSERT_EQ(::read(waker.fd(), &count, sizeof count), static_cast<ssize_t>(sizeof count));
    EXPECT_EQ(count, 1U);
}

TEST(Waker, KeepsErrnoWhereTheDescriptorTakesNoMore)
{
    Waker waker;
    const std::uint64_t most = UINT64_MAX - 1;
    ASSERT_EQ(::write(waker.fd(), &most, sizeof most), static_cast<ssize_t>(sizeof most));
    ASSERT_TRUE(waker.begin_sleep());
    errno = ENOENT;

    waker.wake();

    EXPECT_EQ(errno, ENOENT);
}

/// The timer of the one loop that there is.
int find_timer()
{
    return quorval_test::find_descriptor("[timerfd]");
}

itimerspec time_left(int timer)
{
    itimerspec left = {};
    EXPECT_EQ(::timerfd_gettime(timer, &left), 0);
    return left;
}

TEST(Loop, WaitsForATime)
{
    Loop loop;
    const Loop::Time until = Loop::now() + 2ms;

    while (Loop::now() < until) {
        for (const Ready& ready : loop.wait(until)) {
            EXPECT_GE(ready.tag, kFirstReservedTag);
        }
    }

    EXPECT_GE(Loop::now(), until);
    EXPECT_FALSE(is_readable(find_timer()));
}

TEST(Loop, HasNothingReadyOfItsOwn)
{
    Loop loop;
    loop.event();

    EXPECT_THAT(loop.wait(0ns), IsEmpty());
}

TEST(Loop, SetsItsTimerAgainToATimeThatItForgot)
{
    Loop loop;
    const int timer = find_timer();
    const Loop::Time until = Loop::now() + 1h;
    const auto set = [&](std::optional<Loop::Time> time) {
        loop.waker()->wake();
        loop.wait(time);
        return time_left(timer);
    };

    for (int round = 0; round < 2; ++round) {
        const itimerspec left = set(until);
        EXPECT_GT(left.it_value.tv_sec, 0);
        EXPECT_EQ(left.it_interval.tv_sec, 0);
        EXPECT_EQ(left.it_interval.tv_nsec, 0);
        const itimerspec none = set(std::nullopt);
        EXPECT_EQ(none.it_value.tv_sec, 0);
        EXPECT_EQ(none.it_value.tv_nsec, 0);
    }
}

TEST(Loop, SaysThatItsTimerCannotBeSet)
{
    Loop loop;
    const int other = ::eventfd(0, EFD_CLOEXEC);
    ::dup3(other, find_timer(), O_CLOEXEC);

    expect_throw<std::system_error>([&] { loop.wait(Loop::now() + 1h); },
                                    "cannot set the timer: Invalid argument");

    ::close(other);
}

// Not under the sanitizers: that of undefined behaviour needs descriptors to look at the types of
// objects, and takes every object for a broken one where there are none.
#ifndef __SANITIZE_ADDRESS__

/// Lets no more than so many descriptors be opened, for as long as it lives.
class FewDescriptors {
public:
    explicit FewDescriptors(std::size_t count)
    {
        std::vector<int> taken(count + 1);
        for (int& fd : taken) {
            fd = ::eventfd(0, EFD_CLOEXEC);
        }
        ::getrlimit(RLIMIT_NOFILE, &before_);
        const rlimit limit = {static_cast<rlim_t>(taken.back()), before_.rlim_max};
        for (const int fd : taken) {
            ::close(fd);
        }
        ::setrlimit(RLIMIT_NOFILE, &limit);
    }
    FewDescriptors(const FewDescriptors&) = delete;
    FewDescriptors& operator=(const FewDescriptors&) = delete;
    ~FewDescriptors() { ::setrlimit(RLIMIT_NOFILE, &before_); }

private:
    rlimit before_ = {};
};

TEST(Loop, SaysWhatItCannotMakeWithoutDescriptors)
{
    const std::vector<std::string> texts = {
        "cannot make an event descriptor", "cannot make a timer",
        "cannot make a set of descriptors", "cannot make an event loop"};
    for (std::size_t count = 0; count < texts.size(); ++count) {
        const FewDescriptors few(count);
        expect_throw<std::system_error>([] { Loop().event(); },
                                        texts[count] + ": Too many open files");
    }
}

#endif

TEST(Loop, SaysThatItCannotWaitForEvents)
{
    Loop loop;
    ASSERT_GE(sd_event_prepare(loop.event()), 0);

    expect_throw<std::system_error>([&] { loop.wait(0ns); },
                                    "cannot wait for events: Device or resource busy");
}

TEST(Loop, DoesNotWaitForATimeThatHasCome)
{
    Loop loop;

    loop.wait(Loop::now());
    loop.wait(0ns);
}

TEST(Loop, ForgetsATime)
{
    Loop loop;
    loop.wait(Loop::now() - 1ns);
    loop.waker()->wake();
    loop.wait(Loop::now() + 1h);
    loop.waker()->wake();

    loop.wait(std::nullopt);
}

TEST(Loop, WaitsUntilAnotherThreadWakesIt)
{
    for (const std::optional<Loop::Time> until :
         {std::optional<Loop::Time>(), std::optional<Loop::Time>(Loop::now() + 1h)}) {
        Loop loop;
        std::atomic<bool> is_woken{false};
        std::thread thread([&] {
            is_woken = true;
            loop.waker()->wake();
        });

        loop.wait(until);

        EXPECT_TRUE(is_woken);
        thread.join();
    }
}

TEST(Loop, DrainsItsWaker)
{
    Loop loop;
    ASSERT_TRUE(loop.waker()->begin_sleep());
    loop.waker()->wake();
    ASSERT_TRUE(is_readable(loop.waker()->fd()));

    loop.wait(std::nullopt);
    EXPECT_FALSE(is_readable(loop.waker()->fd()));

    ASSERT_TRUE(loop.waker()->begin_sleep());
    loop.waker()->wake();
    loop.waker()->end_sleep();
    loop.sleep(Loop::now() + 1h);
    EXPECT_FALSE(is_readable(loop.waker()->fd()));
}

TEST(Loop, IsAwakeBehindAWait)
{
    Loop loop;

    loop.wait(0ns);
    loop.waker()->wake();

    EXPECT_FALSE(is_readable(loop.waker()->fd()));
}

TEST(Loop, DoesNotSleepWhenSomebodyWokeItBefore)
{
    Loop loop;
    loop.waker()->wake();

    loop.sleep(Loop::now() + 1h);

    EXPECT_TRUE(loop.waker()->begin_sleep());
}

TEST(Loop, SleepsUntilSomebodyWakesIt)
{
    Loop loop;
    std::atomic<bool> is_woken{false};
    std::thread thread([&] {
        is_woken = true;
        loop.waker()->wake();
    });

    loop.sleep(Loop::now() + 1h);

    EXPECT_TRUE(is_woken);
    thread.join();
}

TEST(Loop, IsAwakeBehindATimeThatHadCome)
{
    Loop loop;

    loop.sleep(Loop::now());
    loop.waker()->wake();

    EXPECT_FALSE(is_readable(loop.waker()->fd()));
}

TEST(Loop, DispatchesTheSourcesOfItsEvent)
{
    Loop loop;
    int calls = 0;
    const auto count = [](sd_event_source* /*source*/, void* data) {
        ++*static_cast<int*>(data);
        return 0;
    };
    sd_event_add_defer(loop.event(), nullptr, count, &calls);

    loop.wait(std::nullopt);

    EXPECT_EQ(calls, 1);
}

TEST(Loop, DispatchesNothingBehindASourceThatHoldsIt)
{
    struct State {
        Loop loop;
        int calls = 0;
    } state;
    const auto hold = [](sd_event_source* /*source*/, void* data) {
        auto& present = *static_cast<State*>(data);
        ++present.calls;
        present.loop.hold();
        return 0;
    };
    sd_event_add_defer(state.loop.event(), nullptr, hold, &state);
    sd_event_add_defer(state.loop.event(), nullptr, hold, &state);

    state.loop.wait(std::nullopt);
    const int calls = state.calls;
    state.loop.wait(std::nullopt);

    EXPECT_EQ(calls, 1);
    EXPECT_EQ(state.calls, 2);
}

TEST(Loop, DispatchesNoMoreThanSoMuchInOneWait)
{
    struct State {
        Loop loop;
        int calls = 0;
        bool holds = true;
    } state;
    const auto call = [](sd_event_source* source, void* data) {
        auto& present = *static_cast<State*>(data);
        ++present.calls;
        if (present.holds) {
            present.loop.hold();
        }
        return sd_event_source_set_enabled(source, SD_EVENT_ON);
    };
    sd_event_add_defer(state.loop.event(), nullptr, call, &state);

    state.loop.wait(std::nullopt);
    EXPECT_EQ(state.calls, 1);
    state.holds = false;
    state.loop.wait(std::nullopt);
    EXPECT_EQ(state.calls, 1 + 64);
}

TEST(Loop, DispatchesWhatASourceOfItsEventHasMadeReady)
{
    struct State {
        int first = ::eventfd(1, EFD_CLOEXEC);
        int second = ::eventfd(0, EFD_CLOEXEC);
        int calls = 0;
    } state;
    const auto hand_on = [](sd_event_source* /*source*/, int /*fd*/, std::uint32_t /*events*/,
                            void* data) {
        auto& present = *static_cast<State*>(data);
        std::uint64_t count = 0;
        EXPECT_EQ(::read(present.first, &count, sizeof count), 8);
        EXPECT_EQ(::write(present.second, &count, sizeof count), 8);
        return 0;
    };
    const auto count = [](sd_event_source* /*source*/, int fd, std::uint32_t /*events*/,
                          void* data) {
        ++static_cast<State*>(data)->calls;
        std::uint64_t value = 0;
        return ::read(fd, &value, sizeof value) == 8 ? 0 : -1;
    };
    Loop loop;
    sd_event_add_io(loop.event(), nullptr, state.first, EPOLLIN, hand_on, &state);
    sd_event_add_io(loop.event(), nullptr, state.second, EPOLLIN, count, &state);

    loop.wait(0ns);

    EXPECT_EQ(state.calls, 1);
    loop.wait(0ns);
    ::close(state.first);
    ::close(state.second);
}

TEST(Loop, WakesForASourceOfItsEvent)
{
    Loop loop;
    int calls = 0;
    const auto count = [](sd_event_source* source, int fd, std::uint32_t /*events*/, void* data) {
        ++*static_cast<int*>(data);
        std::uint64_t value = 0;
        EXPECT_EQ(::read(fd, &value, sizeof value), static_cast<ssize_t>(sizeof value));
        return sd_event_source_set_enabled(source, SD_EVENT_ON);
    };
    const int fd = ::eventfd(1, EFD_CLOEXEC);
    sd_event_source* source = nullptr;
    sd_event_add_io(loop.event(), &source, fd, EPOLLIN, count, &calls);

    loop.wait(std::nullopt);

    EXPECT_EQ(calls, 1);
    sd_event_source_unref(source);
    ::close(fd);
}

TEST(Loop, WakesForATimeOfItsEvent)
{
    Loop loop;
    int calls = 0;
    const auto count = [](sd_event_source* /*source*/, std::uint64_t /*time*/, void* data) {
        ++*static_cast<int*>(data);
        return 0;
    };
    sd_event_add_time_relative(loop.event(), nullptr, CLOCK_MONOTONIC, 1000, 1, count, &calls);

    while (calls == 0) {
        loop.wait(std::nullopt);
    }

    EXPECT_EQ(calls, 1);
}

TEST(Loop, DispatchesNothingWhenItsEventIsClosed)
{
    Loop loop;
    int calls = 0;
    const auto count = [](sd_event_source* /*source*/, void* data) {
        ++*static_cast<int*>(data);
        return 0;
    };
    sd_event_add_defer(loop.event(), nullptr, count, &calls);

    loop.close_event();
    loop.wait(Loop::now() + 1ms);

    EXPECT_EQ(calls, 0);
}

TEST(Loop, WakesForNoSourceWhenItsEventIsClosed)
{
    const auto ignore = [](sd_event_source*, int, std::uint32_t, void*) { return 0; };
    const int ready = ::eventfd(1, EFD_CLOEXEC);
    Loop loop;
    sd_event_add_io(loop.event(), nullptr, ready, EPOLLIN, ignore, nullptr);

    loop.close_event();
    loop.event();

    EXPECT_THAT(loop.wait(0ns), IsEmpty());
    ::close(ready);
}

TEST(Loop, ClosesItsEvent)
{
    const auto before = quorval_test::open_descriptors();
    {
        Loop loop;
        ASSERT_NE(loop.event(), nullptr);
    }

    EXPECT_EQ(quorval_test::open_descriptors(), before);
}

/// A loop whose set of descriptors can be taken away for a while.
class LoopWithoutSet : public testing::Test {
protected:
    LoopWithoutSet()
    {
        const auto now = quorval_test::open_descriptors();
        const auto is_new = [&](int fd) {
            return !std::binary_search(before_.begin(), before_.end(), fd);
        };
        set_ = *std::find_if(now.rbegin(), now.rend(), is_new);  // the last one that it opened
        kept_ = ::fcntl(set_, F_DUPFD_CLOEXEC, 0);
    }
    LoopWithoutSet(const LoopWithoutSet&) = delete;
    LoopWithoutSet& operator=(const LoopWithoutSet&) = delete;
    ~LoopWithoutSet() override
    {
        ::close(kept_);
        ::close(ready_);
    }

    void take_set() const { ASSERT_EQ(::dup3(ready_, set_, O_CLOEXEC), set_); }
    void give_set() const { ASSERT_EQ(::dup3(kept_, set_, O_CLOEXEC), set_); }

    int ready_ = ::eventfd(1, EFD_CLOEXEC);  // readable
    std::vector<int> before_ = quorval_test::open_descriptors();
    Loop loop_;
    int set_ = -1;
    int kept_ = -1;
};

TEST_F(LoopWithoutSet, WatchesAnEventThatCouldNotBeWatchedBefore)
{
    const auto ignore = [](sd_event_source*, int, std::uint32_t, void*) { return 0; };
    const int next = ::fcntl(ready_, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
    ::close(next);
    take_set();
    expect_throw<std::system_error>(
        [&] { loop_.event(); },
        "cannot watch descriptor " + std::to_string(next) + ": Invalid argument");
    give_set();

    sd_event_add_io(loop_.event(), nullptr, ready_, EPOLLIN, ignore, nullptr);

    const std::vector<Ready>& ready = loop_.wait(0ns);
    ASSERT_EQ(ready.size(), 1U);
    EXPECT_GE(ready[0].tag, kFirstReservedTag);
}

TEST(Loop, KnowsThatItsEventHasEnded)
{
    Loop loop;
    EXPECT_FALSE(loop.has_exited());
    EXPECT_FALSE(loop.has_event());

    sd_event_exit(loop.event(), 0);

    EXPECT_TRUE(loop.has_exited());
    loop.wait(0ns);
}

}  // namespace
