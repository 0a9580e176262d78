// Changes of the configurations of blocks that run.
#pragma once

#include <quorval/config.h>
#include "run/life.h"
#include "schedule/network.h"

#include <cstdint>
#include <string>
#include <unordered_map>
#include <vector>

namespace Quorval::runtime {

/// New values for keys of one block.
struct Change {
    std::uint32_t block = 0;
    BlockConfiguration values;
};

/// Keeps what was changed of each block, because a block merges a change onto the configuration
/// that it was made with. Changes between waves.
class Overrides {
public:
    /// @param configs  what the blocks were made with; it and the others must outlive the object
    Overrides(const Network& network, const std::vector<const BlockConfiguration*>& configs,
              Life& life);

    /// Applies changes, one at most for each block: all of them, or none. When a block throws, it
    /// and those already changed get the former values of their keys again; what they throw then
    /// is reported as their failure.
    /// @return what went wrong, "block '<path>': <text>"; empty for nothing
    std::string apply(const std::vector<Change>& changes);

    /// What was changed of a block, all together.
    BlockConfiguration of(std::uint32_t block) const;

private:
    void reconfigure(std::uint32_t block, const BlockConfiguration& override);
    void take_back(const std::vector<Change>& changes, std::size_t count);

    const Network& network_;
    std::vector<const BlockConfiguration*> configs_;
    Life& life_;
    std::unordered_map<std::uint32_t, BlockConfiguration> sums_;  // of blocks that were changed
};

}  // namespace Quorval::runtime
