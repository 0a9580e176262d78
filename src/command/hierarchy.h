// The superblocks that the paths of blocks speak of.
#pragma once

#include <quorval/runtime/graph.h>

#include <cstddef>
#include <map>
#include <string>
#include <vector>

/// The inside of a graph or of a superblock. All by name, in the order of bytes.
struct Folder {
    std::string path;  ///< of the superblock; empty for the graph and for a machine
    std::map<std::string, std::size_t> blocks;  ///< indices
    std::map<std::string, Folder> folders;
};

/// The inside of a graph on its machines, by name. What belongs to none is under the empty name.
using Machines = std::map<std::string, Folder>;

/// Sorts blocks into their machines, and the superblocks that hold them.
Machines sort_into_machines(const std::vector<Quorval::BlockInfo>& blocks);
