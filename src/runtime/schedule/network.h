// Blocks and connections as the schedule sees them. Plain records that own nothing.
#pragma once

#include <quorval/block.h>

#include <cstdint>
#include <string>
#include <vector>

namespace Quorval::runtime {

/// A plain block.
struct Node {
    std::string path;
    Block* block = nullptr;       // owned by the graph's superblock
    bool skips_failures = false;  // a failure of it does not stop the graph
};

/// A connection between two plain blocks; both ends are indices into the nodes.
struct Wire {
    std::uint32_t from = 0;
    std::uint32_t to = 0;
    OutPortInternal* output = nullptr;
    InPortInternal* input = nullptr;
    bool is_delayed = false;  // the reader runs before its source
};

struct Network {
    std::vector<Node> nodes;  // in the order in which they run
    std::vector<Wire> wires;  // in the order in which they are taken over: by reader, then input
};

}  // namespace Quorval::runtime
