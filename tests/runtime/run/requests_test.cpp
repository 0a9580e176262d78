#include "run/requests.h"

#include "loop/loop.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <memory>
#include <thread>
#include <vector>

using namespace Quorval::runtime;
using ::testing::IsEmpty;
using ::testing::UnorderedElementsAre;

namespace {

std::vector<std::uint32_t> all_in(Requests& requests)
{
    std::vector<std::uint32_t> blocks;
    requests.take_all([&blocks](std::uint32_t block) { blocks.push_back(block); });
    return blocks;
}

TEST(Requests, HoldEachBlockOnce)
{
    Requests requests(3, nullptr);
    requests.add(2);
    requests.add(0);
    requests.add(2);

    EXPECT_THAT(all_in(requests), UnorderedElementsAre(0U, 2U));
    EXPECT_THAT(all_in(requests), IsEmpty());
    EXPECT_TRUE(requests.is_empty());
}

TEST(Requests, KeepWhatIsAddedWhileTheyAreTaken)
{
    Requests requests(2, nullptr);
    requests.add(0);

    requests.take_all([&requests](std::uint32_t block) { requests.add(block); });

    EXPECT_THAT(all_in(requests), UnorderedElementsAre(0U));
}

/// Each thread asks for a run and waits until it has had one, again and again.
TEST(Requests, OfManyThreadsAreAllMet)
{
    constexpr std::uint32_t kThreads = 4;
    constexpr int kRounds = 500;
    Loop loop;
    Requests requests(kThreads, loop.waker());
    std::vector<std::atomic<int>> met(kThreads);
    std::atomic<std::uint32_t> finished{0};
    std::vector<std::thread> threads;
    for (std::uint32_t block = 0; block < kThreads; ++block) {
        threads.emplace_back([&, block] {
            for (int round = 0; round < kRounds; ++round) {
                requests.add(block);
                while (met[block] <= round) {
                    std::this_thread::yield();
                }
            }
            ++finished;
            loop.waker()->wake();
        });
    }

    while (finished < kThreads) {
        loop.wait(std::nullopt);
        requests.take_all([&met](std::uint32_t block) { ++met[block]; });
    }

    for (std::thread& thread : threads) {
        thread.join();
    }
    for (const std::atomic<int>& count : met) {
        EXPECT_EQ(count, kRounds);
    }
}

}  // namespace
