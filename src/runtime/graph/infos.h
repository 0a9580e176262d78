// What a loaded graph consists of, for those who show it.
#pragma once

#include <quorval/runtime/graph.h>
#include "graph/loaded_graph.h"

#include <cstddef>
#include <vector>

namespace Quorval::runtime {

/// A plain block with what it was made with.
BlockInfo block_info(const LoadedGraph& graph, std::size_t block);

/// The connections between plain blocks, in the order in which they are taken over.
std::vector<ConnectionInfo> connection_infos(const LoadedGraph& graph);

}  // namespace Quorval::runtime
