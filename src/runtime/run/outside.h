// How a run is reached from outside.
#pragma once

#include <quorval/runtime/graph.h>
#include "graph/loaded_graph.h"
#include "loop/loop.h"
#include "run/life.h"
#include "run/overrides.h"
#include "run/reload.h"

#include <functional>
#include <vector>

namespace Quorval::runtime {

/// What belongs to a run. All of it is used between two waves.
struct Run {
    const GraphOptions& options;
    LoadedGraph& graph;
    Loop& loop;
    Life& life;
    Overrides& overrides;
    Reload& reload;
    std::function<std::vector<LinkStatistics>()> link_statistics;  // empty where there are none
};

/// Whoever looks at a run and changes it, over a bus for example. It works in the loop of the run.
struct IOutside {
    /// Before the first block is started, with the services attached. Reports what goes wrong.
    /// @param run  until close()
    /// @return Done: the run can begin; else how it has ended
    virtual RunResult open(Run& run) = 0;
    /// The blocks are started.
    virtual void begin() = 0;
    /// The blocks are stopped, or open() failed.
    virtual void close() noexcept = 0;
    /// For blocks; null when there is none at present.
    virtual sd_bus* bus() = 0;
    virtual ~IOutside() = default;
};

}  // namespace Quorval::runtime
