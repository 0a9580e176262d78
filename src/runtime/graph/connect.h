// The connections of a graph.
#pragma once

#include "description/problem.h"
#include "graph/create.h"
#include "graph/expansion.h"
#include "plugins/plugin_set.h"
#include "schedule/network.h"

namespace Quorval::runtime {

/// What a connection is judged by beside its ends.
struct ConnectionRules {
    const GraphDescription& description;
    const PluginSet& plugins;
    bool is_local = false;  ///< all machines are this one
};

/// Looks up ends and exposed ports, compares types, and reports what is wrong, cycles too, and
/// inputs that nothing feeds, and types that cannot leave their machine. What is elsewhere takes
/// part by its names alone: a connection to it is an exit of the network, one from it an entry.
/// @return the blocks and connections in the order in which they run, and in `order` where each
///     block stands in the expansion; of use only when there was no error
Network connect_blocks(const Expansion& expansion, const Creation& made,
                       const ConnectionRules& rules, Problems& problems,
                       std::vector<std::uint32_t>& order);

}  // namespace Quorval::runtime
