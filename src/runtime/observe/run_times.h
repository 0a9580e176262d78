// How long the runs of blocks took.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <vector>

namespace Quorval::runtime {

/// For each block the time of its runs in all, at most, and at the 99th percentile. A fixed amount
/// of memory for each block; nothing is allocated when a run is added. Knows no clock.
class RunTimes {
public:
    explicit RunTimes(std::size_t blocks) : blocks_(blocks) {}

    void add(std::uint32_t block, std::uint64_t nanoseconds) noexcept;

    std::uint64_t total(std::uint32_t block) const { return blocks_[block].total; }
    std::uint64_t longest(std::uint32_t block) const { return blocks_[block].longest; }

    /// What 99 of 100 runs did not exceed: at most a quarter too long, never longer than the
    /// longest. 0 without a run.
    std::uint64_t percentile_99(std::uint32_t block) const;

private:
    // Four counters for each power of two, up to 2^36 ns, which is more than a minute.
    static constexpr std::size_t kCounters = 144;

    struct Block {
        std::uint64_t total = 0;
        std::uint64_t longest = 0;
        std::array<std::uint32_t, kCounters> counters{};
    };

    static std::size_t counter_of(std::uint64_t nanoseconds);
    static std::uint64_t last_of(std::size_t counter);
    static void halve(Block& block);

    std::vector<Block> blocks_;
};

}  // namespace Quorval::runtime
