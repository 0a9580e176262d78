// What no user sees of the storage: how well it finds elements, and the memory that it takes.
// Replaces the allocation functions, so it is a program of its own.

#include "config/elements.h"

#include "support/allocations.h"

#include <gtest/gtest.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <set>
#include <string>
#include <unordered_map>
#include <vector>

namespace {

using Quorval::content_if;
using Quorval::Elements;
using Quorval::Entry;
using Quorval::hash_of;
using Quorval::make_value;
using quorval_test::live_bytes;

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
    for (std::size_t number = 0; number < kSlots; ++number) {
        const std::uint32_t hash = hash_of(GetParam().make_key(static_cast<int>(number)));
        is_taken[hash % kSlots] = true;
    }
    std::size_t taken = 0;
    for (const bool is : is_taken) {
        taken += is ? 1 : 0;
    }
    EXPECT_GT(taken, kSlots * 55 / 100);
}

INSTANTIATE_TEST_SUITE_P(
    Keys, HashOf,
    ::testing::Values(
        Family{"Short", [](int number) { return std::to_string(number); }},
        Family{"OfThreeLevels",
               [](int number) {
                   return std::string("n") + std::to_string(number % 16) + ".p" +
                          std::to_string(number / 16 % 16) + ".v" + std::to_string(number / 256);
               }},
        Family{"ThatDifferAtTheStart",
               [](int number) { return std::to_string(number) + ".filter.channel.threshold"; }},
        Family{"ThatDifferInTheMiddle",
               [](int number) {
                   return std::string("filter.channel.") + std::to_string(10000 + number) +
                          ".threshold.low";
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

/// `count` ints under short keys, in the order of their keys.
Elements make_elements(int count)
{
    Elements elements;
    for (int number = 0; number < count; ++number) {
        elements.put(std::to_string(1'000'000 + number), make_value(0));
    }
    return elements;
}

// Among so many keys there are two of one hash: were there none among 77,000 of them, as on
// average, there would be at twenty times that.
TEST(ElementsFind, TellsKeysOfOneHashApart)
{
    constexpr int kEnough = 1'500'000;
    std::unordered_map<std::uint32_t, std::string> met;
    std::string first;
    std::string second;
    for (int number = 0; number < kEnough && first.empty(); ++number) {
        const std::string key = std::to_string(number);
        const auto [other, is_new] = met.emplace(hash_of(key), key);
        if (!is_new) {
            first = other->second;
            second = key;
        }
    }
    ASSERT_FALSE(first.empty());
    // So many that they are looked up in the table.
    Elements elements = make_elements(100);
    elements.put(first, make_value(1));
    EXPECT_EQ(elements.find(second), nullptr);
    elements.put(second, make_value(2));
    ASSERT_NE(elements.find(first), nullptr);
    ASSERT_NE(elements.find(second), nullptr);
    EXPECT_EQ(elements.find(first)->key, first);
    EXPECT_EQ(elements.find(second)->key, second);
}

/// The memory that `make` leaves in use, what it returns being alive.
template <class Make>
std::size_t bytes_of(Make make)
{
    const std::size_t before = live_bytes();
    const auto made = make();
    return live_bytes() - before;
}

constexpr int kMany = 10'000;

TEST(ElementsMemory, OfOneIsThatOfItsEntryAndLittleMore)
{
    const std::size_t bytes = bytes_of([] { return make_elements(1); });
    EXPECT_GE(bytes, sizeof(Entry));
    EXPECT_LE(bytes, sizeof(Entry) + 96);
}

TEST(ElementsMemory, IsLittleMoreThanThatOfTheEntries)
{
    const std::size_t bytes = bytes_of([] { return make_elements(kMany); });
    EXPECT_GE(bytes, kMany * sizeof(Entry));
    EXPECT_LE(bytes, kMany * (sizeof(Entry) + 9));
    EXPECT_EQ(sizeof(Entry), sizeof(std::string) + 40);
}

TEST(ElementsMemory, OfTheTableIsTakenByTheFirstLookUp)
{
    const Elements elements = make_elements(kMany);
    const std::size_t before = live_bytes();
    EXPECT_NE(elements.find("1000007"), nullptr);
    const std::size_t taken = live_bytes() - before;
    EXPECT_GE(taken, kMany * sizeof(Entry*) * 4 / 3);
    EXPECT_LE(taken, kMany * sizeof(Entry*) * 4);
    EXPECT_EQ(elements.find("1000007x"), nullptr);
    EXPECT_EQ(live_bytes() - before, taken);
}

TEST(ElementsMemory, OfACopyHasNoRoomForMore)
{
    const Elements elements = make_elements(kMany + 1);
    const std::size_t copied = bytes_of([&] { return Elements(elements); });
    EXPECT_LT(copied, bytes_of([] { return make_elements(kMany + 1); }));
}

TEST(ElementsMemory, OfErasedOnesIsGivenBack)
{
    constexpr std::size_t kSize = 1'000;
    const std::size_t before = live_bytes();
    Elements elements = make_elements(1);
    for (int number = 0; number < 100; ++number) {
        elements.put(std::string("text") + std::to_string(number),
                     make_value(std::string(kSize, 'x')));
    }
    ASSERT_GT(live_bytes() - before, 100 * kSize);
    elements.erase_if([](const std::string& key) { return key.rfind("text", 0) == 0; });
    EXPECT_LT(live_bytes() - before, kSize);
    elements.erase_if([](const std::string& /*key*/) { return true; });
    EXPECT_EQ(live_bytes(), before);
}

TEST(ElementsMemory, OfErasedKeysIsGivenBack)
{
    const std::size_t before = live_bytes();
    Elements elements = make_elements(1);
    elements.put(std::string(100'000, 'x'), make_value(0));
    elements.erase_if([](const std::string& key) { return key.front() == 'x'; });
    EXPECT_LT(live_bytes() - before, 1'000U);
}

TEST(ElementsMemory, OfACopyHasNothingOfTheErased)
{
    Elements elements = make_elements(kMany);
    elements.erase_if([](const std::string& key) { return key != "1000007"; });
    ASSERT_EQ(elements.size(), 1U);
    EXPECT_LT(bytes_of([&] { return Elements(elements); }), 1'000U);
}

/// Every count of entries in a block, filled from the front, from behind and from both sides.
TEST(ElementsOrder, HoldsWhereverTheNewOnesLie)
{
    using Rank = int (*)(int);
    for (const Rank rank :
         {Rank([](int number) { return number; }), Rank([](int number) { return -number; }),
          Rank([](int number) { return number % 2 == 0 ? number : -number; }),
          Rank([](int number) { return number * 7919 % 1009; })}) {
        Elements elements;
        std::set<std::string> keys;
        for (int number = 0; number < 1'000; ++number) {
            const std::string key = std::to_string(100'000 + rank(number));
            elements.put(key, make_value(number));
            keys.insert(key);
            ASSERT_EQ(elements.size(), keys.size());
        }
        auto expected = keys.begin();
        for (const Entry& entry : elements) {
            ASSERT_EQ(entry.key, *expected++);
        }
        EXPECT_EQ(expected, keys.end());
    }
}

/// Keys that share starts of every length, end inside of each other, and hold bytes of any sign.
TEST(ElementsOrder, IsThatOfBytes)
{
    Elements elements;
    std::set<std::string> keys;
    for (const char last : {'\0', 'a', '\x7f', '\x80', '\xff'}) {
        for (std::size_t size = 0; size < 30; ++size) {
            for (std::size_t at = 0; at <= size; ++at) {
                std::string key(size, 'm');
                key.insert(at, 1, last);
                keys.insert(key);
                keys.insert(key.substr(0, at));
            }
        }
    }
    for (auto key = keys.rbegin(); key != keys.rend(); ++key) {
        elements.put(*key, make_value(0));
    }
    std::vector<std::string> found;
    for (const Entry& entry : elements) {
        found.push_back(entry.key);
    }
    EXPECT_EQ(found, std::vector<std::string>(keys.begin(), keys.end()));
}

}  // namespace
