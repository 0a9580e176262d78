#include "schedule/workers.h"

#include "support/support.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstddef>
#include <functional>
#include <stdexcept>
#include <string>

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

TEST(Workers, CountTheThreadsThatThereMayBe)
{
    EXPECT_EQ(Workers::count_available(1), 1U);
    EXPECT_EQ(Workers::count_available(3), Workers::are_there() ? 3U : 1U);
}

}  // namespace
