// Configurations of thousands of elements, in which the storage grows, shrinks and is put in order
// many times, held against a map.

#include <quorval/config.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cstddef>
#include <iterator>
#include <map>
#include <numeric>
#include <random>
#include <string>
#include <utility>
#include <vector>

namespace {

using Quorval::BlockConfiguration;
using Model = std::map<std::string, int>;

constexpr int kMany = 3'000;

/// Short keys and such as do not fit into the object of a string.
std::string key_of(int number)
{
    const std::string name = number % 2 == 0 ? "n" : "a-component-with-a-long-name";
    return "g" + std::to_string(number % 17) + "." + name + std::to_string(number) + ".value";
}

std::vector<int> shuffled(int count)
{
    std::vector<int> numbers(static_cast<std::size_t>(count));
    std::iota(numbers.begin(), numbers.end(), 0);
    std::shuffle(numbers.begin(), numbers.end(), std::mt19937(4711));
    return numbers;
}

Model walk(const BlockConfiguration& config)
{
    Model found;
    std::string before;
    for (const auto at = config.iterate(""); !at->is_end(); at->advance()) {
        EXPECT_TRUE(found.empty() || before < at->key());
        before = at->key();
        found.emplace(at->key(), at->getInt());
    }
    return found;
}

/// Looks at everything in two ways.
void expect_same(const BlockConfiguration& config, const Model& model)
{
    EXPECT_EQ(walk(config), model);
    for (const auto& [key, value] : model) {
        EXPECT_EQ(config.getInt(key), value);
        EXPECT_EQ(config.getInt(key + "x", -1), -1);
    }
}

void set(BlockConfiguration& config, Model& model, int number, int value)
{
    config.set(key_of(number), value);
    model[key_of(number)] = value;
}

void erase_group(BlockConfiguration& config, Model& model, const std::string& group)
{
    config.delete_element(group);
    for (auto at = model.begin(); at != model.end();) {
        at = at->first.rfind(group + ".", 0) == 0 ? model.erase(at) : std::next(at);
    }
}

TEST(ManyElements, AreFoundAndWalkedInOrderWhateverTheOrderInWhichTheyCame)
{
    BlockConfiguration config;
    Model model;
    for (const int number : shuffled(kMany)) {
        set(config, model, number, number);
        if (number % 500 == 0) {
            expect_same(config, model);
        }
    }
    expect_same(config, model);
}

TEST(ManyElements, AreInOrderWhenEachIsFollowedByAWalk)
{
    BlockConfiguration config;
    Model model;
    for (const int number : shuffled(200)) {
        set(config, model, number, number);
        EXPECT_EQ(walk(config), model);
    }
}

TEST(ManyElements, GoAndComeAgain)
{
    BlockConfiguration config;
    Model model;
    for (int round = 0; round < 3; ++round) {
        for (const int number : shuffled(kMany)) {
            set(config, model, number, number + round);
        }
        for (const char* group : {"g3", "g16", "g0"}) {
            erase_group(config, model, group);
            expect_same(config, model);
        }
    }
    config.delete_element("");
    expect_same(config, {});
    set(config, model = {}, 5, 50);
    expect_same(config, model);
}

TEST(ManyElements, AreCopiedWithAndWithoutGaps)
{
    BlockConfiguration config;
    Model model;
    for (const int number : shuffled(kMany)) {
        set(config, model, number, number);
    }
    const BlockConfiguration whole(config);
    const Model whole_model = model;

    erase_group(config, model, "g7");
    BlockConfiguration copy(config);
    Model copy_model = model;
    for (const int number : shuffled(kMany)) {
        set(copy, copy_model, number, -number);
    }

    expect_same(config, model);
    expect_same(copy, copy_model);
    expect_same(whole, whole_model);
}

TEST(ManyElements, AreComparedMergedAndSubtractedWhateverTheirHistory)
{
    BlockConfiguration sorted;
    BlockConfiguration jumbled;
    Model model;
    for (int number = 0; number < kMany; ++number) {
        model[key_of(number)] = number;
    }
    for (const auto& [key, value] : model) {
        sorted.set(key, value);
    }
    for (const int number : shuffled(kMany)) {
        jumbled.set(key_of(number), number);
    }
    EXPECT_TRUE(sorted == jumbled);
    EXPECT_TRUE(sorted.diff(jumbled) == BlockConfiguration());

    BlockConfiguration more;
    Model more_model;
    for (const int number : shuffled(kMany)) {
        if (number % 3 == 0) {
            set(more, more_model, number + kMany / 2, -1);
        }
    }
    Model different;
    for (const auto& [key, value] : more_model) {
        if (model.count(key) == 0 || model[key] != value) {
            different.emplace(key, value);
        }
    }
    expect_same(more.diff(sorted), different);
    for (const auto& [key, value] : more_model) {
        model[key] = value;
    }
    jumbled += more;
    expect_same(jumbled, model);
    expect_same(sorted + more, model);
    EXPECT_TRUE(jumbled != sorted);
}

TEST(ManyElements, MoveUnderAPrefix)
{
    BlockConfiguration config;
    Model model;
    for (const int number : shuffled(kMany)) {
        config.set(key_of(number), number);
        model["top." + key_of(number)] = number;
    }
    config.rebase("top");
    expect_same(config, model);
    config.set(key_of(1), 7);
    EXPECT_EQ(config.getInt(key_of(1)), 7);
    EXPECT_EQ(config.getInt("top." + key_of(1)), 1);
}

TEST(ManyElements, MayBeAddedDuringAWalkAndAreMetWhenTheyLieAhead)
{
    BlockConfiguration config;
    Model met;
    for (const int number : shuffled(100)) {
        config.set("m" + std::to_string(1000 + number), number);
    }
    for (const auto at = config.iterate(""); !at->is_end(); at->advance()) {
        const std::string key = at->key();
        met.emplace(key, at->getInt());
        if (key.size() == 5) {
            for (int more = 20; more > 0; --more) {
                config.set("a" + key + std::to_string(more), -1);       // behind
                config.set(key + "-" + std::to_string(10 + more), -2);  // ahead
            }
            EXPECT_EQ(at->key(), key);
        }
    }
    Model expected;
    for (const auto at = config.iterate("m"); !at->is_end(); at->advance()) {
        expected.emplace(at->key(), at->getInt());
    }
    EXPECT_EQ(met, expected);
    EXPECT_EQ(met.size(), 100U * 21U);
}

TEST(ManyElements, ReferencesStayWhileTheStorageGrowsAndOthersGo)
{
    BlockConfiguration config;
    config.set("kept", "a text that is far too long for the object of a string");
    const auto at = config.iterate("kept");
    const std::string& key = at->key();
    const std::string& text = at->getString();
    Model model;
    for (const int number : shuffled(kMany)) {
        set(config, model, number, number);
    }
    erase_group(config, model, "g5");

    EXPECT_EQ(&at->key(), &key);
    EXPECT_EQ(&at->getString(), &text);
    EXPECT_EQ(key, "kept");
    EXPECT_EQ(text, "a text that is far too long for the object of a string");
    at->advance();
    EXPECT_TRUE(at->is_end());
}

TEST(ManyElements, AreSteppedOverAsChildrenOfEverySize)
{
    BlockConfiguration config;
    std::vector<std::string> expected;
    for (int child = 0; child < 60; ++child) {
        const std::string name = std::to_string(100 + child);
        expected.push_back(name);
        // Sizes that repeat, grow, and are smaller than the last one.
        const int fields = child % 3 == 0 ? 10 : child * 7 % 41 + 1;
        for (const int field : shuffled(fields)) {
            config.set("list." + name + ".f" + std::to_string(field), child);
        }
    }
    std::vector<std::string> names;
    for (const auto& child : config.iterate_subtree("list")) {
        names.push_back(child.key());
        EXPECT_EQ(child.getInt("f0"), std::stoi(child.key()) - 100);
    }
    EXPECT_EQ(names, expected);
}

}  // namespace
