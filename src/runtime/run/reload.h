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

    /// Where the value of a key was written when the files were last applied: "<file>:<line>",
    /// "--set", or "saved"; empty when it was not.
    std::string origin_of(std::uint32_t block, const std::string& key) const;

private:
    void apply(ReadGraph now);

    const GraphOptions& options_;
    const LoadedGraph& graph_;
    Overrides& overrides_;
    IPatience* patience_;
    ReadGraph applied_;  // empty before the first run()
};

}  // namespace Quorval::runtime
