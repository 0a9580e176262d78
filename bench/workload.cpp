#include "workload.h"

#include <algorithm>
#include <cmath>
#include <numeric>
#include <random>

namespace quorval_bench {

namespace {

PlainValue make_value(std::size_t type, int number)
{
    const double real = number / 7.0;
    const std::string text = "text " + std::to_string(number);
    switch (type) {
        case 0:
            return number;
        case 1:
            return number % 3 == 0;
        case 2:
            return real;
        case 3:
            return text;
        case 4:
            return std::vector<int>{number, number + 1, number + 2, number + 3};
        case 5:
            return std::vector<double>{real, real + 1, real + 2, real + 3};
        case 6:
            return std::vector<std::string>{text, text, text, text};
        default:
            return std::vector<bool>{true, false, number % 2 == 0, true};
    }
}

PlainMap make_typed(std::size_t count, std::size_t types)
{
    PlainMap elements;
    int number = 0;
    for (const Entry& entry : make_entries(count)) {
        elements.emplace(entry.key, make_value(static_cast<std::size_t>(number) % types, number));
        ++number;
    }
    return elements;
}

}  // namespace

std::vector<Entry> make_entries(std::size_t count, Keys keys)
{
    const bool is_short = keys == Keys::Short;
    const auto edge = static_cast<std::size_t>(std::cbrt(static_cast<double>(count)));
    std::vector<Entry> entries;
    for (std::size_t index = 0; index < count; ++index) {
        Entry entry;
        entry.group = (is_short ? "n" : "filter") + std::to_string(index % edge);
        entry.part = (is_short ? "p" : "channel") + std::to_string(index / edge % edge);
        entry.leaf = (is_short ? "v" : "threshold") + std::to_string(index / edge / edge);
        entry.key = entry.group + "." + entry.part + "." + entry.leaf;
        entry.value = static_cast<int>(index);
        entries.push_back(entry);
    }
    std::sort(entries.begin(), entries.end(),
              [](const Entry& a, const Entry& b) { return a.key < b.key; });
    return entries;
}

std::vector<Entry> shuffled(std::vector<Entry> entries)
{
    std::mt19937 generator(4711);
    std::shuffle(entries.begin(), entries.end(), generator);
    return entries;
}

Quorval::BlockConfiguration make_config(const std::vector<Entry>& entries)
{
    Quorval::BlockConfiguration config;
    for (const Entry& entry : entries) {
        config.set(entry.key, entry.value);
    }
    return config;
}

long sum_of(const std::vector<Entry>& entries)
{
    return std::accumulate(entries.begin(), entries.end(), 0L,
                           [](long sum, const Entry& entry) { return sum + entry.value; });
}

PlainMap make_mixed(std::size_t count)
{
    return make_typed(count, std::variant_size_v<PlainValue>);
}

PlainMap make_mixed_scalars(std::size_t count)
{
    return make_typed(count, 4);
}

Quorval::BlockConfiguration make_config(const PlainMap& elements)
{
    Quorval::BlockConfiguration config;
    for (const auto& [key, value] : elements) {
        std::visit([&config, &name = key](const auto& content) { config.set(name, content); },
                   value);
    }
    return config;
}

Calls::~Calls() = default;

void Calls::count()
{
    ++left_;
}

void Calls::step()
{
    --left_;
}

bool Calls::is_over()
{
    return left_ <= 0;
}

int Calls::get()
{
    return left_;
}

std::unique_ptr<Calls> make_calls()
{
    return std::make_unique<Calls>();
}

}  // namespace quorval_bench
