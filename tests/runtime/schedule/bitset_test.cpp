#include "schedule/bitset.h"

#include <random>
#include <set>

#include <gtest/gtest.h>

using Quorval::runtime::Bitset;

namespace {

TEST(Bitset, GivesItsNumbersFromTheLowestOn)
{
    Bitset bits(300000);
    for (const std::uint32_t number : {299999U, 0U, 63U, 64U, 4096U, 64U}) {
        bits.insert(number);
    }

    for (const std::uint32_t number : {0U, 63U, 64U, 4096U, 299999U}) {
        EXPECT_EQ(bits.take_lowest(), number);
    }
    EXPECT_TRUE(bits.is_empty());
}

TEST(Bitset, IsEmptyWhenItHoldsNothing)
{
    EXPECT_TRUE(Bitset(0).is_empty());
    EXPECT_TRUE(Bitset(1).is_empty());
    EXPECT_TRUE(Bitset(100000).is_empty());
}

TEST(Bitset, DoesWhatASetDoes)
{
    std::mt19937 random(1);
    for (const std::uint32_t size : {1U, 64U, 65U, 4096U, 4097U, 300000U}) {
        Bitset bits(size);
        std::set<std::uint32_t> expected;
        for (int step = 0; step < 3000; ++step) {
            if (random() % 3 != 0) {
                const auto number = static_cast<std::uint32_t>(random() % size);
                bits.insert(number);
                expected.insert(number);
            } else if (!expected.empty()) {
                ASSERT_EQ(bits.take_lowest(), *expected.begin()) << "of " << size;
                expected.erase(expected.begin());
            }
            ASSERT_EQ(bits.is_empty(), expected.empty()) << "of " << size;
        }
    }
}

}  // namespace
