// What the blocks of a graph have done.
#pragma once

#include <quorval/runtime/graph.h>
#include "observe/run_times.h"
#include "schedule/network.h"
#include "schedule/wave.h"

#include <vector>

namespace Quorval::runtime {

/// Of each block, in the order in which they run.
/// @param times  null: nothing was timed, and the times are 0
std::vector<BlockStatistics> gather_statistics(const Network& network, const Wave& wave,
                                               const RunTimes* times);

}  // namespace Quorval::runtime
