#include "schedule/workers.h"

#include "support/support.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

using Quorval::runtime::Workers;
using quorval_test::expect_throw;

namespace {

constexpr std::size_t kCount = 20;

/// Three threads, one of which is that of the test.
class WorkersTest : public testing::Test {
protected:
    /// Does work that counts itself, and throws in the one that is said.
    void run(std::size_t throwing, const std::function<void()>& own)
    {
        workers_.run(
            kCount,
            [this, throwing](std::size_t at) {
                if (at == throwing) {
                    throw std::runtime_error("work " + std::to_string(at));
                }
                ++done_;
            },
            own);
    }

    Workers workers_{3};
    std::atomic<std::size_t> done_{0};
};

TEST_F(WorkersTest, AreWaitedFor)
{
    bool has_worked_along = false;

    run(kCount, [&] { has_worked_along = true; });

    EXPECT_EQ(done_, kCount);
    EXPECT_TRUE(has_worked_along);
}

TEST_F(WorkersTest, HandOverWhatTheCallerThrowsAndWorkOn)
{
    expect_throw<std::logic_error>([&] { run(kCount, [] { throw std::logic_error("own work"); }); },
                                   "own work");

    done_ = 0;
    run(kCount, [] {});
    EXPECT_EQ(done_, kCount);
}

TEST_F(WorkersTest, HandOverWhatWorkThrowsAndWorkOn)
{
    expect_throw<std::runtime_error>([&] { run(7, [] {}); }, "work 7");

    done_ = 0;
    run(kCount, [] {});
    EXPECT_EQ(done_, kCount);
}

TEST(Workers, LeaveOutWhatWasNotBegunWhenTheCallerThrows)
{
    Workers alone(1);
    int done = 0;

    if (Workers::are_there()) {
        expect_throw<std::logic_error>(
            [&] {
                alone.run(
                    kCount, [&done](std::size_t) { ++done; },
                    [] { throw std::logic_error("own work"); });
            },
            "own work");
    }

    EXPECT_EQ(done, 0);
}

TEST(Workers, WorkOnAsManyThreadsAsTheyWereMadeWith)
{
    EXPECT_EQ(Workers::present(), 0U);
    if (!Workers::are_there()) {
        return;
    }
    // More than there are processors, too.
    for (const unsigned threads : {2U, Workers::processors() + 2}) {
        Workers workers(threads);
        std::atomic<unsigned> arrived{0};
        std::vector<std::uint32_t> numbers(threads);
        const auto meet = [&](std::size_t at) {
            numbers[at] = Workers::present();
            for (++arrived; arrived < threads;) {
                std::this_thread::yield();
            }
        };

        workers.run(
            threads - 1, [&](std::size_t at) { meet(at + 1); }, [&] { meet(0); });

        EXPECT_EQ(numbers[0], 0U);
        std::sort(numbers.begin(), numbers.end());
        for (std::uint32_t thread = 0; thread < threads; ++thread) {
            EXPECT_EQ(numbers[thread], thread);
        }
    }
}

TEST(Workers, CountTheThreadsThatThereMayBe)
{
    EXPECT_EQ(Workers::count_available(1), 1U);
    EXPECT_EQ(Workers::count_available(3), Workers::are_there() ? 3U : 1U);
}

}  // namespace
