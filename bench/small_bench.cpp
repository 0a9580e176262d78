// Configurations of the size that they have: some dozen to some hundred elements of all types.

#include <quorval/config.h>
#include "harness.h"
#include "plain_config.h"
#include "workload.h"

#include <algorithm>
#include <cstddef>
#include <iterator>
#include <memory>
#include <random>
#include <string>
#include <utility>
#include <variant>
#include <vector>

namespace quorval_bench {

namespace {

using Quorval::BlockConfiguration;
using Elements = std::vector<std::pair<std::string, PlainValue>>;

// Ten fields under keys of 9 to 23 characters.
#define QUORVAL_BENCH_FIELDS(path)                                                                \
    {path ".gain_db", 12}, {path ".enabled", true}, {path ".cutoff_hz", 0.25},                    \
        {path ".name", std::string("left front")}, {path ".taps", std::vector<int>{1, 2, 3, 4}},  \
        {path ".weights.low", std::vector<double>{0.5, 1.5, 2.5, 3.5}},                           \
        {path ".labels", std::vector<std::string>{"one", "two", "three", "four"}},                \
        {path ".mask.channels", std::vector<bool>{true, false, true, true}}, {path ".size", 480}, \
    {                                                                                             \
        path ".unit", std::string("a text that is not short")                                     \
    }

#define QUORVAL_BENCH_100(digit)                                                          \
    QUORVAL_BENCH_FIELDS("in." digit "0"), QUORVAL_BENCH_FIELDS("filter." digit "1"),     \
        QUORVAL_BENCH_FIELDS("out." digit "2"), QUORVAL_BENCH_FIELDS("in." digit "3"),    \
        QUORVAL_BENCH_FIELDS("ports." digit "4"), QUORVAL_BENCH_FIELDS("in." digit "5"),  \
        QUORVAL_BENCH_FIELDS("filter." digit "6"), QUORVAL_BENCH_FIELDS("in." digit "7"), \
        QUORVAL_BENCH_FIELDS("output." digit "8"), QUORVAL_BENCH_FIELDS("in." digit "9")

template <class Config>
Config make_literal(std::size_t count)
{
    switch (count) {
        case 30:
            return {QUORVAL_BENCH_FIELDS("in.0"), QUORVAL_BENCH_FIELDS("filter.1"),
                    QUORVAL_BENCH_FIELDS("output.2")};
        case 100:
            return {QUORVAL_BENCH_100("")};
        default:
            return {QUORVAL_BENCH_100("0"), QUORVAL_BENCH_100("1"), QUORVAL_BENCH_100("2"),
                    QUORVAL_BENCH_100("3"), QUORVAL_BENCH_100("4")};
    }
}

template <class Function>
auto with_type(const PlainValue& value, Function function)
{
    return std::visit(function, value);
}

// The getters by type, of a configuration and of a walk.
#define QUORVAL_BENCH_GETTER(Type, name)                                        \
    template <class Config, class... Key>                                       \
    decltype(auto) get(Config& config, const Type& /*type*/, const Key&... key) \
    {                                                                           \
        return config.name(key...);                                             \
    }
QUORVAL_BENCH_GETTER(int, getInt)
QUORVAL_BENCH_GETTER(bool, getBool)
QUORVAL_BENCH_GETTER(double, getDouble)
QUORVAL_BENCH_GETTER(std::string, getString)
QUORVAL_BENCH_GETTER(std::vector<int>, getIntVector)
QUORVAL_BENCH_GETTER(std::vector<double>, getDoubleVector)
QUORVAL_BENCH_GETTER(std::vector<std::string>, getStringVector)
QUORVAL_BENCH_GETTER(std::vector<bool>, getBoolVector)

template <class Number>
std::size_t weight(const Number& number)
{
    return static_cast<std::size_t>(number);
}
std::size_t weight(const std::string& text)
{
    return text.size();
}
template <class Item>
std::size_t weight(const std::vector<Item>& items)
{
    return items.size();
}

/// The elements of the literal, in the order of their keys.
Elements elements_of(std::size_t count)
{
    Elements elements;
    const auto literal = make_literal<std::vector<PlainConfig::KeyValue>>(count);
    for (const auto& [key, value] : literal) {
        elements.emplace_back(key, value);
    }
    std::sort(elements.begin(), elements.end());
    return elements;
}

Elements shuffled_elements(std::size_t count)
{
    Elements elements = elements_of(count);
    std::shuffle(elements.begin(), elements.end(), std::mt19937(4711));
    return elements;
}

std::size_t weight_of(const Elements& elements)
{
    std::size_t sum = 0;
    for (const auto& element : elements) {
        sum += std::visit([](const auto& content) { return weight(content); }, element.second);
    }
    return sum;
}

template <class Config>
Config build(const Elements& elements)
{
    Config config;
    for (const auto& element : elements) {
        std::visit([&](const auto& content) { config.set(element.first, content); },
                   element.second);
    }
    return config;
}

template <class Config>
std::size_t read(const Config& config, const Elements& elements)
{
    std::size_t sum = 0;
    for (const auto& element : elements) {
        sum += std::visit(
            [&](const auto& content) { return weight(get(config, content, element.first)); },
            element.second);
    }
    return sum;
}

/// @param elements  those of the configuration, in the order of their keys
template <class Config>
std::size_t walk(const Config& config, const Elements& elements)
{
    std::size_t sum = 0;
    auto element = elements.begin();
    for (const auto at = config.iterate(""); !at->is_end(); at->advance(), ++element) {
        sum += at->key().size() == element->first.size() ? 0 : 1;
        sum += std::visit([&](const auto& content) { return weight(get(*at, content)); },
                          element->second);
    }
    return sum;
}

/// A run does its work on so many configurations that it takes some time.
constexpr std::size_t kElements = 3'000;

template <class Config>
struct State {
    explicit State(std::size_t size)
        : sorted(elements_of(size)),
          mixed(shuffled_elements(size)),
          source(build<Config>(mixed)),
          rounds(kElements / size),
          right(weight_of(sorted) * rounds)
    {
        walk(source, sorted);
    }

    void clear()
    {
        made.clear();
        made.reserve(rounds);
        sum = 0;
    }
    void fill(const Elements& elements)
    {
        clear();
        for (std::size_t round = 0; round < rounds; ++round) {
            made.push_back(build<Config>(elements));
        }
    }
    bool is_right() const
    {
        std::size_t found = 0;
        for (const Config& config : made) {
            found += read(config, sorted) + walk(config, sorted);
        }
        return found == 2 * right;
    }

    Elements sorted;
    Elements mixed;
    Config source;
    std::size_t rounds;
    std::size_t right;
    std::vector<Config> made;
    std::size_t sum = 0;
};

/// @param prepare, run  what is done with a State before and in each run
template <class Config, class Prepare, class Run, class IsRight>
void add(const std::string& name, std::size_t size, const std::string& side, Prepare prepare,
         Run run, IsRight is_right)
{
    add_time(name + "/" + std::to_string(size) + "/" + side, kElements / size * size, [=] {
        auto state = std::make_shared<State<Config>>(size);
        return Side{[state, run] { run(*state); }, [state, is_right] { return is_right(*state); },
                    [state, prepare] { prepare(*state); }};
    });
}

template <class Config>
void add_making(std::size_t size, const std::string& side)
{
    using S = State<Config>;
    const auto clear = [](S& state) { state.clear(); };
    const auto made = [](const S& state) { return state.is_right(); };
    const auto add_maker = [=](const std::string& name, auto make) {
        add<Config>(
            name, size, side, clear,
            [make](S& state) {
                for (std::size_t round = 0; round < state.rounds; ++round) {
                    state.made.push_back(make(state));
                }
            },
            made);
    };
    add_maker("small_literal", [size](S& /*state*/) { return make_literal<Config>(size); });
    add_maker("small_set", [](S& state) { return build<Config>(state.mixed); });
    add_maker("small_copy", [](S& state) { return Config(state.source); });
    add<Config>(
        "small_destroy", size, side, [](S& state) { state.fill(state.sorted); },
        [](S& state) { state.made.clear(); }, [](const S& state) { return state.made.empty(); });
}

template <class Config>
void add_reading(std::size_t size, const std::string& side)
{
    using S = State<Config>;
    const auto right = [](const S& state) { return state.sum == state.right; };
    add<Config>(
        "small_get", size, side, [](S& state) { state.clear(); },
        [](S& state) {
            for (std::size_t round = 0; round < state.rounds; ++round) {
                state.sum += read(state.source, state.mixed);
            }
        },
        right);
    add<Config>(
        "small_walk", size, side, [](S& state) { state.clear(); },
        [](S& state) {
            for (std::size_t round = 0; round < state.rounds; ++round) {
                state.sum += walk(state.source, state.sorted);
            }
        },
        right);
    add<Config>(
        "small_first_walk", size, side, [](S& state) { state.fill(state.mixed); },
        [](S& state) {
            for (const Config& config : state.made) {
                state.sum += walk(config, state.sorted);
            }
        },
        right);
}

/// Builds, gets, walks and copies, as the first thing that a process does.
template <class Config>
void add_fresh(std::size_t size, const std::string& side)
{
    struct Fresh {
        Elements sorted;
        Elements mixed;
        std::size_t sum = 0;
    };
    add_time("fresh/" + std::to_string(size) + "/" + side, size, [size] {
        auto state = std::make_shared<Fresh>();
        state->sorted = elements_of(size);
        state->mixed = shuffled_elements(size);
        return Side{[state] {
                        const auto config = build<Config>(state->mixed);
                        state->sum = read(config, state->mixed) + walk(config, state->sorted);
                        const Config copy(config);
                        state->sum += read(copy, state->mixed);
                    },
                    [state] { return state->sum == 3 * weight_of(state->sorted); }};
    });
}

/// One group among 10,000 elements: all keys are searched, few are found.
template <class Config>
void add_search(const std::string& side)
{
    constexpr std::size_t kLarge = 10'000;
    struct Large {
        Config config;
        Config result;
    };
    const auto make = [] {
        auto state = std::make_shared<Large>();
        for (const Entry& entry : make_entries(kLarge)) {
            state->config.set(entry.key, entry.value);
        }
        return state;
    };
    // n3.p4 holds as many as there are leaves.
    const auto is_found = [](const Config& config) {
        std::size_t count = 0;
        for (const auto at = config.iterate(""); !at->is_end(); at->advance()) {
            ++count;
        }
        return count > 10 && count < 30;
    };
    add_time("subtree/" + side, kLarge, [=] {
        auto state = make();
        return Side{[state] { state->result = state->config.getSubtree("n3.p4"); },
                    [=] { return is_found(state->result); }};
    });
    add_time("delete/" + side, kLarge, [=] {
        auto state = make();
        return Side{[state] { state->result.delete_element("n3.p4"); },
                    [=] {
                        const auto before = state->config.iterate("n3.p4.");
                        const auto after = state->result.iterate("n3.p4.");
                        return !before->is_end() && after->is_end();
                    },
                    [state] { state->result = state->config; }};
    });
}

template <class Config>
void add_all(const std::string& side)
{
    add_search<Config>(side);
    for (const std::size_t size : {30, 100, 500}) {
        add_making<Config>(size, side);
        add_reading<Config>(size, side);
        add_fresh<Config>(size, side);
        add_bytes("heap_small/" + std::to_string(size) + "/" + side, [size] {
            const Elements elements = shuffled_elements(size);
            return heap_bytes_of([&] { return build<Config>(elements); }) /
                   static_cast<double>(size);
        });
    }
}

const bool kAreAdded = [] {
    add_all<BlockConfiguration>("quorval");
    add_all<PlainConfig>("map");
    return true;
}();

}  // namespace

}  // namespace quorval_bench
