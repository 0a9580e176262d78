// How well the storage finds elements, which changes nothing but the time that it takes.

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <set>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "config/elements.h"

namespace {

using Quorval::hash_of;

using MakeKey = std::string (*)(int);

struct Family {
    const char* name;
    MakeKey make_key;
};

class HashOf : public ::testing::TestWithParam<Family> {};

// As many keys as slots leave 1/e of the slots free if they are spread as by chance, which is 37 %.
// The limit is far beyond what chance does to 4,096 of them.
TEST_P(HashOf, SpreadsKeysOverTheSlots)
{
    constexpr std::size_t kSlots = 4096;
    std::vector<bool> is_taken(kSlots);
    std::set<std::uint32_t> upper_bits;
    for (std::size_t number = 0; number < kSlots; ++number) {
        const std::uint32_t hash = hash_of(GetParam().make_key(static_cast<int>(number)));
        is_taken[hash % kSlots] = true;
        upper_bits.insert(hash >> 25U);
    }
    std::size_t taken = 0;
    for (const bool is : is_taken) {
        taken += is ? 1 : 0;
    }
    EXPECT_GT(taken, kSlots * 55 / 100);
    EXPECT_EQ(upper_bits.size(), 128U);
}

INSTANTIATE_TEST_SUITE_P(
    Keys, HashOf,
    ::testing::Values(
        Family{"Short", [](int number) { return std::to_string(number); }},
        Family{"OfThreeLevels",
               [](int number) {
                   return "n" + std::to_string(number % 16) + ".p" +
                          std::to_string(number / 16 % 16) + ".v" + std::to_string(number / 256);
               }},
        Family{"ThatDifferAtTheStart",
               [](int number) { return std::to_string(number) + ".filter.channel.threshold"; }},
        Family{"ThatDifferInTheMiddle",
               [](int number) {
                   return "filter.channel." + std::to_string(10000 + number) + ".threshold.low";
               }},
        Family{"ThatDifferInTheLastCharacters",
               [](int number) {
                   const std::string letters = "abcdefghijklmnop";
                   std::string key = "filter.channel.thresh";
                   for (const int shift : {0, 4, 8}) {
                       key += letters[static_cast<std::size_t>(number >> shift & 15)];
                   }
                   return key;
               }},
        Family{"OfOneCharacterAndAllLengths",
               [](int number) { return std::string(static_cast<std::size_t>(number), 'a'); }}),
    [](const auto& family) { return family.param.name; });

TEST(HashOf, DependsOnTheKeyAlone)
{
    const std::string key = "a key that is too long for the object of a string";
    EXPECT_EQ(hash_of(key), hash_of(std::string(key)));
    EXPECT_EQ(hash_of(""), hash_of(std::string()));
}

#ifdef QUORVAL_PRINT_HASH
std::string printed_hash()
{
    FILE* const output = ::popen("'" QUORVAL_PRINT_HASH "'", "r");
    if (output == nullptr) {
        return "";
    }
    std::array<char, 64> line{};
    const bool is_read = std::fgets(line.data(), static_cast<int>(line.size()), output) != nullptr;
    return ::pclose(output) == 0 && is_read ? line.data() : "";
}

TEST(HashOf, DiffersFromProcessToProcess)
{
    std::set<std::string> hashes;
    for (int process = 0; process < 3; ++process) {
        const std::string hash = printed_hash();
        ASSERT_FALSE(hash.empty());
        hashes.insert(hash);
    }
    EXPECT_EQ(hashes.size(), 3U);
}
#endif

}  // namespace
