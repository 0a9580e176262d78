#include "observe/statistics.h"

#include <chrono>
#include <cstdint>

namespace Quorval::runtime {

std::vector<BlockStatistics> gather_statistics(const Network& network, const Wave& wave,
                                               const RunTimes* times)
{
    using Time = std::chrono::nanoseconds;
    std::vector<BlockStatistics> statistics;
    statistics.reserve(network.nodes.size());
    for (std::uint32_t block = 0; block < network.nodes.size(); ++block) {
        BlockStatistics one;
        one.path = network.nodes[block].path;
        one.runs = wave.runs(block);
        one.failures = wave.failures(block);
        if (times != nullptr) {
            one.total = Time(times->total(block));
            one.longest = Time(times->longest(block));
            one.percentile_99 = Time(times->percentile_99(block));
        }
        statistics.push_back(std::move(one));
    }
    return statistics;
}

}  // namespace Quorval::runtime
