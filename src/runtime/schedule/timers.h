// The times at which blocks want to run.
#pragma once

#include <chrono>
#include <cstdint>
#include <utility>
#include <vector>

namespace Quorval::runtime {

/// One time at most for each block; the earliest is at hand. Knows no clock. Allocates when it is
/// made, and never again.
class Timers {
public:
    using Time = std::chrono::nanoseconds;

    explicit Timers(std::size_t blocks) : place_(blocks, kNowhere) { heap_.reserve(blocks); }

    /// In the place of the time that the block had.
    void set(std::uint32_t block, Time time)
    {
        cancel(block);
        place_[block] = heap_.size();
        heap_.emplace_back(time, block);
        rise(heap_.size() - 1);
    }

    void cancel(std::uint32_t block)
    {
        const std::size_t place = place_[block];
        if (place == kNowhere) {
            return;
        }
        place_[block] = kNowhere;
        const Entry last = heap_.back();
        heap_.pop_back();
        if (place < heap_.size()) {
            put(place, last);
            rise(place);
            sink(place_[last.second]);
        }
    }

    bool is_set(std::uint32_t block) const { return place_[block] != kNowhere; }
    bool is_empty() const { return heap_.empty(); }

    /// There is one.
    Time earliest() const { return heap_.front().first; }

    /// Takes the block with the earliest time. There is one.
    std::uint32_t take_earliest()
    {
        const std::uint32_t block = heap_.front().second;
        cancel(block);
        return block;
    }

private:
    using Entry = std::pair<Time, std::uint32_t>;
    static constexpr std::size_t kNowhere = SIZE_MAX;

    void put(std::size_t place, const Entry& entry)
    {
        heap_[place] = entry;
        place_[entry.second] = place;
    }

    void exchange(std::size_t a, std::size_t b)
    {
        const Entry entry = heap_[a];
        put(a, heap_[b]);
        put(b, entry);
    }

    void rise(std::size_t place)
    {
        for (; place > 0 && heap_[place] < heap_[(place - 1) / 2]; place = (place - 1) / 2) {
            exchange(place, (place - 1) / 2);
        }
    }

    void sink(std::size_t place)
    {
        for (std::size_t child = 2 * place + 1; child < heap_.size(); child = 2 * place + 1) {
            if (child + 1 < heap_.size() && heap_[child + 1] < heap_[child]) {
                ++child;
            }
            if (heap_[place] < heap_[child]) {
                return;
            }
            exchange(place, child);
            place = child;
        }
    }

    std::vector<Entry> heap_;         // each before the two at twice its place and one, and two
    std::vector<std::size_t> place_;  // in the heap, by block
};

}  // namespace Quorval::runtime
