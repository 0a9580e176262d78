// New values from the files of a graph that runs.
#pragma once

#include <quorval/runtime/graph.h>
#include "description/read.h"
#include "graph/expansion.h"
#include "graph/loaded_graph.h"
#include "run/overrides.h"

#include <cstdint>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

namespace Quorval::runtime {

/// Files and assignments as they were read, and the blocks that they make.
struct ReadGraph {
    std::unique_ptr<Reading> reading;  // first: the expansion refers to it
    Expansion expansion;
};

/// What differs apart from new and changed values, "block 'a' was added" for example; empty when
/// nothing does.
std::string find_difference(const ReadGraph& before, const ReadGraph& now);

/// The new and changed values.
/// @param network  numbers the blocks; both graphs have its blocks
std::vector<Change> find_changes(const ReadGraph& before, const ReadGraph& now,
                                 const Network& network);

/// Reads the files of a graph again and applies what changed since the last time.
class Reload {
public:
    /// All must outlive the object.
    /// @param patience  waits for the writers of pipes; null: see read_graph()
    Reload(const GraphOptions& options, const LoadedGraph& graph, Overrides& overrides,
           IPatience* patience);

    /// Logs what comes of it. When something cannot be applied, nothing is.
    void run();

    /// Where the values of a block were written when the files were last applied, by their keys:
    /// "<file>:<line>", "--set", or "saved".
    std::unordered_map<std::string, std::string> origins_of(std::uint32_t block) const;

private:
    void apply(ReadGraph now);

    const GraphOptions& options_;
    const LoadedGraph& graph_;
    Overrides& overrides_;
    IPatience* patience_;
    ReadGraph applied_;  // empty before the first run()
};

}  // namespace Quorval::runtime
