// The superblocks that the paths of blocks speak of.
#pragma once

#include <quorval/runtime/graph.h>

#include <cstddef>
#include <map>
#include <string>
#include <vector>

/// The inside of a graph or of a superblock. All by name, in the order of bytes.
struct Folder {
    std::string path;                           ///< of the superblock; empty for the graph
    std::map<std::string, std::size_t> blocks;  ///< indices
    std::map<std::string, Folder> folders;
};

/// Sorts blocks into the superblocks that hold them.
Folder sort_into_folders(const std::vector<Quorval::BlockInfo>& blocks);
