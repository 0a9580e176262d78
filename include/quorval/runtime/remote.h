// Running graphs of other processes, over a message bus.
#pragma once

#include <quorval/export.h>
#include <quorval/runtime/bus.h>
#include <quorval/runtime/graph.h>

#include <map>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

namespace Quorval {

/// A graph cannot be reached, or refuses a call; what() is its text.
class QUORVAL_EXPORT RemoteError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

/// A graph that runs.
struct RunningGraph {
    std::string name;
    Bus bus = Bus::None;
};

/// The graphs on the buses, bus by bus, by name. A bus that is not there has none.
/// @throws RemoteError  there is only one bus, and it cannot be reached
QUORVAL_EXPORT std::vector<RunningGraph> list_graphs(const std::vector<Bus>& buses);

/// A running graph, as the interfaces org.quorval.Graph1 and org.quorval.Links1 show it. One thread
/// at a time. Each operation but the constructor throws RemoteError when the call fails, with the
/// text of the graph.
class QUORVAL_EXPORT RemoteGraph {
public:
    /// Looks for a graph.
    /// @param buses  are looked at one after the other
    /// @throws RemoteError  there is none of the name: "there is no running graph '<name>'"
    RemoteGraph(const std::string& name, const std::vector<Bus>& buses);
    RemoteGraph(const RemoteGraph&) = delete;
    RemoteGraph& operator=(const RemoteGraph&) = delete;
    ~RemoteGraph();

    /// "running" or "stopping".
    std::string state();
    std::uint64_t waves();

    /// The graph as JSON, with the present configurations.
    std::string describe();

    /// The present configuration of a block as TOML. Comments say where the values come from.
    std::string get(const std::string& path);

    /// Gives blocks new values: all, or none.
    /// @param values  `PATH.KEY` and a TOML value
    void configure(const std::map<std::string, std::string>& values);

    /// Keeps the changes for the next start.
    void save();

    /// What the blocks have done. Times are taken from the first call on.
    std::vector<BlockStatistics> statistics();

    /// Stops the graph in order.
    void stop();

    /// What went out and came in over links so far; empty where there are none.
    std::vector<LinkStatistics> link_statistics();

private:
    struct QUORVAL_HIDDEN Impl;
    std::unique_ptr<Impl> impl_;
};

}  // namespace Quorval
