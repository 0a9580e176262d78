// The order in which the blocks of a graph run, and the wiring between them.
#pragma once

#include <quorval/block.h>

#include <vector>

namespace host {

/// Runs the blocks of a graph, each after those that it gets its data from. It refers to the graph,
/// which must outlive it and not grow any more.
class Schedule {
public:
    /// Reads blocks and connections back and wires them.
    /// @throws std::runtime_error  the types of two connected ports do not fit:
    ///     "<block>.<output> (<type>) does not fit <block>.<input> (<type>)"; or connections make a
    ///     circle: "the connections make a circle"
    explicit Schedule(Quorval::Container& graph);

    /// The blocks in the order in which they run.
    std::vector<Quorval::Block*> blocks() const;

    /// Whether a descriptor port of a block is triggered, and so there is something to do.
    bool is_due() const;

    /// Passes the data on and runs every block that has a triggered port, then resets the ports.
    /// @return whether all these blocks want to go on: false once a run() returned false
    /// @throws what the blocks throw
    bool run();

private:
    struct Link {
        Quorval::Block const* source;
        Quorval::OutPortInternal& from;
        Quorval::InPortInternal& to;
    };
    struct Step {
        Quorval::Block* block;
        std::vector<Link> inputs;
        std::vector<Quorval::OutPortInternal*> outputs;
        std::vector<Quorval::FdPort*> fdports;
    };

    static Link wire(const Quorval::Connection& connection);
    static bool is_triggered(const Step& step);
    static void reset(const Step& step);
    void sort();

    std::vector<Step> steps_;
};

}  // namespace host
