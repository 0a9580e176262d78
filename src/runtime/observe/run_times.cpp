#include "observe/run_times.h"

#include <algorithm>
#include <limits>
#include <numeric>

namespace Quorval::runtime {

namespace {

constexpr unsigned kBits = 2;  // of a time behind its first one that choose the counter
constexpr std::uint64_t kPerPower = std::uint64_t{1} << kBits;

unsigned highest_bit(std::uint64_t value)
{
    return std::numeric_limits<unsigned long long>::digits - 1U -
           static_cast<unsigned>(__builtin_clzll(value));
}

}  // namespace

void RunTimes::add(std::uint32_t block, std::uint64_t nanoseconds) noexcept
{
    Block& record = blocks_[block];
    record.total += nanoseconds;
    record.longest = std::max(record.longest, nanoseconds);
    std::uint32_t& counter = record.counters[counter_of(nanoseconds)];
    if (++counter == std::numeric_limits<std::uint32_t>::max()) {
        halve(record);
    }
}

std::uint64_t RunTimes::percentile_99(std::uint32_t block) const
{
    constexpr std::uint64_t kHundred = 100;
    const Block& record = blocks_[block];
    const std::uint64_t count =
        std::accumulate(record.counters.begin(), record.counters.end(), std::uint64_t{0});
    std::uint64_t rest = count - count / kHundred;
    std::size_t at = 0;
    for (; record.counters[at] < rest; ++at) {
        rest -= record.counters[at];
    }
    return std::min(last_of(at), record.longest);
}

std::size_t RunTimes::counter_of(std::uint64_t nanoseconds)
{
    if (nanoseconds < kPerPower) {
        return nanoseconds;
    }
    const unsigned shift = highest_bit(nanoseconds) - kBits;
    return std::min<std::size_t>(shift * kPerPower + (nanoseconds >> shift), kCounters - 1);
}

/// The longest time that a counter counts; the last one has no end.
std::uint64_t RunTimes::last_of(std::size_t counter)
{
    if (counter < kPerPower) {
        return counter;
    }
    if (counter == kCounters - 1) {
        return std::numeric_limits<std::uint64_t>::max();
    }
    const std::size_t shift = counter / kPerPower - 1;
    return ((counter % kPerPower + kPerPower + 1) << shift) - 1;
}

/// Makes room in a counter that is full, so that the shares stay.
void RunTimes::halve(Block& block)
{
    for (std::uint32_t& counter : block.counters) {
        counter /= 2;
    }
}

}  // namespace Quorval::runtime
