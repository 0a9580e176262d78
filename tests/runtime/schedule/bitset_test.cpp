#include "schedule/bitset.h"

#include <gtest/gtest.h>

#include <random>
#include <set>

using Quorval::runtime::Bitset;

namespace {

constexpr std::uint32_t kNothing = UINT32_MAX;

std::uint32_t take_lowest(Bitset& bits)
{
    std::uint32_t number = 0;
    return bits.take_lowest(number) ? number : kNothing;
}

TEST(Bitset, GivesItsNumbersFromTheLowestOn)
{
    Bitset bits(300000);
    for (const std::uint32_t number : {299999U, 0U, 63U, 64U, 4096U, 64U}) {
        bits.insert(number);
    }

    for (const std::uint32_t number : {0U, 63U, 64U, 4096U, 299999U, kNothing}) {
        EXPECT_EQ(take_lowest(bits), number);
    }
    EXPECT_TRUE(bits.is_empty());
}

TEST(Bitset, IsEmptyWhenItHoldsNothing)
{
    for (const std::size_t size : {0, 1, 64, 65, 100000}) {
        Bitset bits(size);
        EXPECT_TRUE(bits.is_empty()) << size;
        EXPECT_EQ(take_lowest(bits), kNothing) << size;
    }
}

TEST(Bitset, FindsWhatIsPutInBehindTheLastNumber)
{
    Bitset bits(300000);
    bits.insert(100000);
    take_lowest(bits);

    bits.insert(5);
    bits.insert(100001);
    bits.insert(200000);

    EXPECT_FALSE(bits.is_empty());
    for (const std::uint32_t number : {5U, 100001U, 200000U, kNothing}) {
        EXPECT_EQ(take_lowest(bits), number);
    }
}

TEST(Bitset, DoesWhatASetDoes)
{
    std::mt19937 random(1);
    for (const std::uint32_t size : {1U, 64U, 65U, 4096U, 4097U, 300000U}) {
        Bitset bits(size);
        std::set<std::uint32_t> expected;
        for (int step = 0; step < 3000; ++step) {
            if (random() % 2 != 0) {
                const auto number = static_cast<std::uint32_t>(random() % size);
                bits.insert(number);
                expected.insert(number);
                ASSERT_FALSE(bits.is_empty()) << "of " << size;
                continue;
            }
            ASSERT_EQ(take_lowest(bits), expected.empty() ? kNothing : *expected.begin())
                << "of " << size;
            if (expected.empty()) {
                ASSERT_TRUE(bits.is_empty()) << "of " << size;
            } else {
                expected.erase(expected.begin());
            }
        }
    }
}

}  // namespace
