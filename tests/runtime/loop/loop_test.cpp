#include "loop/loop.h"

#include "support/support.h"

#include <gtest/gtest.h>

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <optional>
#include <thread>
#include <vector>

using namespace Quorval;
using namespace Quorval::runtime;
using namespace std::chrono_literals;

namespace {

bool is_readable(int fd)
{
    pollfd one = {fd, POLLIN, 0};
    return ::poll(&one, 1, 0) > 0;
}

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

TEST(Loop, WaitsForATime)
{
    Loop loop;
    const Loop::Time until = Loop::now() + 2ms;

    while (Loop::now() < until) {
        loop.wait(until);
    }

    EXPECT_GE(Loop::now(), until);
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

TEST(Loop, WakesForAnotherThread)
{
    Loop loop;
    std::thread thread([&] { loop.waker()->wake(); });

    loop.wait(std::nullopt);

    thread.join();
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

TEST(Loop, ClosesItsEvent)
{
    const auto before = quorval_test::open_descriptors();
    {
        Loop loop;
        ASSERT_NE(loop.event(), nullptr);
    }

    EXPECT_EQ(quorval_test::open_descriptors(), before);
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
