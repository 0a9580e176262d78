// The connections of a graph.
#pragma once

#include "description/problem.h"
#include "graph/create.h"
#include "graph/expansion.h"
#include "schedule/network.h"

namespace Quorval::runtime {

/// Looks up ends and exposed ports, compares types, and reports what is wrong, cycles too, and
/// inputs that nothing feeds.
/// @return the blocks and connections in the order in which they run, and in `order` where each
///     block stands in the expansion; of use only when there was no error
Network connect_blocks(const Expansion& expansion, const Creation& made, Problems& problems,
                       std::vector<std::uint32_t>& order);

}  // namespace Quorval::runtime
