// Changes of the configurations of blocks that run.
#pragma once

#include <quorval/config.h>
#include "graph/loaded_graph.h"
#include "run/life.h"
#include "schedule/network.h"

#include <cstdint>
#include <functional>
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
    using Listener = std::function<void(const std::vector<Change>&)>;

    /// All must outlive the object.
    Overrides(const LoadedGraph& graph, Life& life);

    /// Told of changes of the files that were applied.
    void set_listener(Listener listener) { listener_ = std::move(listener); }

    /// Applies changes of the running graph, one at most for each block: all of them, or none.
    /// Nothing is touched when a key is not declared or cannot be changed, or a value is not
    /// allowed. When a block throws, it and those already changed get the former values of their
    /// keys again; what they throw then is reported as their failure.
    /// @return what went wrong, "block '<path>': <text>"; empty for nothing
    std::string change(const std::vector<Change>& changes);

    /// The same with changes of the files. A key that was changed in the running graph keeps its
    /// value.
    std::string reload(const std::vector<Change>& changes);

    /// Keeps what was changed in the running graph, and what was saved before, for the next start.
    /// @param directory  the state directory, absolute
    /// @throws std::exception  it cannot be written
    void save(const std::string& directory) const;

    /// What a block is made with and what was changed since.
    BlockConfiguration present(std::uint32_t block) const;

    /// What the type of a block declares as defaults.
    BlockConfiguration defaults(std::uint32_t block) const;

    /// The keys of a block that were changed in the running graph, sorted.
    std::vector<std::string> changed_keys(std::uint32_t block) const;

private:
    using Sums = std::unordered_map<std::uint32_t, BlockConfiguration>;

    static BlockConfiguration sum_of(const Sums& sums, std::uint32_t block);
    std::string find_refusal(const Change& change) const;
    std::string apply(const std::vector<Change>& changes);
    void reconfigure(std::uint32_t block, const BlockConfiguration& override);
    void take_back(const std::vector<Change>& changes, std::size_t count);

    const LoadedGraph& graph_;
    Life& life_;
    Listener listener_;
    Sums sums_;     // all changes of blocks that were changed
    Sums changed_;  // those that did not come from files
};

}  // namespace Quorval::runtime
