// Making the blocks of a graph.
#pragma once

#include <quorval/superblock.h>
#include "description/problem.h"
#include "graph/destruction.h"
#include "graph/expansion.h"
#include "graph/loaded_graph.h"
#include "plugins/plugin_set.h"

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace Quorval::runtime {

/// The key of the configuration that the runtime adds where the file does not set it.
constexpr const char* kStoreKey = "pstore_path";

/// What was made of an expansion, index by index.
struct Creation {
    std::vector<Superblock*> superblocks;  ///< of the composites; null: it is elsewhere
    std::vector<Block*> blocks;  ///< null: it is elsewhere, or could not be made, which is reported
    std::vector<BlockRecord> records;
    std::vector<std::size_t> input_counts;  ///< how many inputs the blocks have
};

/// What all blocks of a graph are made with.
struct CreationOptions {
    std::string state_directory;  ///< absolute; empty: there is none
    bool is_dry = false;          ///< nothing is made on disk
};

/// Makes superblocks and blocks, these in the order of creation_order().
/// @param root         of the graph, which owns all of it
/// @param destruction  learns of the blocks; outlives them
Creation create_blocks(const Expansion& expansion, const CreationOptions& options,
                       PluginSet& plugins, Superblock& root, Destruction& destruction,
                       Problems& problems);

}  // namespace Quorval::runtime
