// A graph that was loaded: its plug-ins, its blocks, and where all of it was written.
#pragma once

#include <quorval/config.h>
#include <quorval/runtime/diagnostic.h>
#include <quorval/runtime/graph.h>
#include <quorval/runtime/tools.h>
#include <quorval/superblock.h>
#include "description/read.h"
#include "graph/destruction.h"
#include "graph/expansion.h"
#include "plugins/plugin_set.h"
#include "schedule/network.h"

#include <memory>
#include <string>
#include <vector>

namespace Quorval::runtime {

/// How a plain block was made.
struct BlockRecord {
    BlockConfiguration config;  ///< what it was made with
    /// Of its own, absolute and with a "/" at its end; empty where it has none, or one that the
    /// file sets.
    std::string state_directory;
    /// What its type declares, and the description of that; null where it declares nothing.
    const std::vector<Quorval::Setting>* declared = nullptr;
    const BlockConfiguration* description = nullptr;
};

/// A plain block that was made.
struct LoadedBlock : BlockRecord {
    PlainBlock place;  ///< its path, type, places and settings; refers to the reading
};

/// Destroyed from the last member to the first: the blocks go before their plug-ins, the plug-ins
/// before what their create functions were given. Can be moved: nothing in it changes its place.
struct LoadedGraph {
    LoadedGraph() = default;
    LoadedGraph(LoadedGraph&&) = default;
    // It would begin with the first member and so destroy plug-ins before their blocks.
    LoadedGraph& operator=(LoadedGraph&&) = delete;
    LoadedGraph(const LoadedGraph&) = delete;
    LoadedGraph& operator=(const LoadedGraph&) = delete;
    ~LoadedGraph() = default;

    std::unique_ptr<Reading> reading;  ///< files and assignments, for showing places
    std::unique_ptr<InitTools> init_tools;
    std::unique_ptr<PluginSet> plugins;
    std::unique_ptr<Destruction> destruction;
    Network network;  // before the blocks, which hold values that it owns
    std::unique_ptr<Superblock> superblock;
    std::string name;
    std::vector<LoadedBlock> blocks;  ///< as the nodes of the network
    std::vector<Diagnostic> warnings;
    std::string state_directory;    ///< absolute; empty: there is none
    std::string saved_file;         ///< of the changes that were saved
    std::vector<Assignment> saved;  ///< changes of earlier runs
    std::unique_ptr<Destruction, BeginDestruction> begin_of_destruction;  ///< last: it goes first
};

/// Reads files, loads plug-ins, makes blocks and checks all of it.
/// @param patience  waits for the writers of pipes; may be null
/// @throws GraphError             something is wrong, with all that was found; with nothing where
///     it was not to be waited for a pipe any longer
/// @throws std::invalid_argument  an assignment is not of the form PATH.KEY=VALUE: "'<text>' is
///     not of the form PATH.KEY=VALUE"; or as check_machine() says
LoadedGraph load_graph(const GraphOptions& options, IPatience* patience = nullptr);

}  // namespace Quorval::runtime
