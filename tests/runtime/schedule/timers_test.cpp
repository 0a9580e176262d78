#include "schedule/timers.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <map>
#include <numeric>
#include <random>
#include <vector>

using Quorval::runtime::Timers;
using namespace std::chrono_literals;

namespace {

TEST(Timers, GiveTheEarliestFirst)
{
    Timers timers(4);
    timers.set(0, 30ns);
    timers.set(1, 10ns);
    timers.set(2, 20ns);

    EXPECT_EQ(timers.earliest(), 10ns);
    EXPECT_EQ(timers.take_earliest(), 1U);
    EXPECT_EQ(timers.take_earliest(), 2U);
    EXPECT_EQ(timers.take_earliest(), 0U);
    EXPECT_TRUE(timers.is_empty());
}

TEST(Timers, GiveAllInTheirOrder)
{
    std::mt19937 random(1);
    for (std::uint32_t count = 1; count <= 40; ++count) {
        std::vector<int> times(count);
        std::iota(times.begin(), times.end(), 0);
        std::shuffle(times.begin(), times.end(), random);
        Timers timers(count);
        for (std::uint32_t block = 0; block < count; ++block) {
            timers.set(block, Timers::Time(times[block]));
        }

        for (std::uint32_t next = 0; next < count; ++next) {
            ASSERT_EQ(times[timers.take_earliest()], static_cast<int>(next)) << "of " << count;
        }
    }
}

TEST(Timers, HoldOneTimeForEachBlock)
{
    Timers timers(2);
    timers.set(0, 10ns);
    timers.set(0, 30ns);

    EXPECT_EQ(timers.earliest(), 30ns);
    timers.take_earliest();
    EXPECT_TRUE(timers.is_empty());
}

TEST(Timers, ForgetWhatIsCancelled)
{
    Timers timers(2);
    timers.set(0, 10ns);

    timers.cancel(0);
    timers.cancel(1);

    EXPECT_TRUE(timers.is_empty());
    EXPECT_FALSE(timers.is_set(0));
}

TEST(Timers, DoWhatAListDoes)
{
    std::mt19937 random(1);
    Timers timers(50);
    std::map<std::uint32_t, Timers::Time> expected;
    for (int step = 0; step < 20000; ++step) {
        const auto block = static_cast<std::uint32_t>(random() % 50);
        if (random() % 3 != 0) {
            const Timers::Time time(static_cast<int>(random() % 1000));
            timers.set(block, time);
            expected[block] = time;
        } else if (random() % 2 == 0) {
            timers.cancel(block);
            expected.erase(block);
        } else if (!expected.empty()) {
            auto first = expected.begin();
            for (auto at = expected.begin(); at != expected.end(); ++at) {
                first = at->second < first->second ? at : first;
            }
            ASSERT_EQ(timers.earliest(), first->second);
            ASSERT_EQ(timers.take_earliest(), first->first);
            expected.erase(first);
        }
        ASSERT_EQ(timers.is_empty(), expected.empty());
        ASSERT_EQ(timers.is_set(block), expected.count(block) > 0);
    }
}

}  // namespace
