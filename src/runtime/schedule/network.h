// Blocks and connections as the schedule sees them. Plain records that own nothing.
#pragma once

#include <quorval/block.h>

#include <cstdint>
#include <map>
#include <memory>
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
    // Under which the block has the port that leads to the input; null: the input's own.
    const std::string* port_name = nullptr;

    const std::string& input_name() const
    {
        return port_name != nullptr ? *port_name : input->get_name();
    }
};

/// The input that a port leads to, which its plug-in decides; null where there is none.
inline InPortInternal* connectable(InPortProvider& port)
{
    try {
        return port.get_connectable();
    } catch (...) {
        return nullptr;
    }
}

/// An output of a block on another machine. Blocks hold on to its values, so it goes behind them,
/// and before their plug-ins.
class RemoteOutput final : public OutPortInternal {
public:
    using OutPortInternal::OutPortInternal;

    /// The place that values of a data type have for good; null before it is made.
    std::shared_ptr<void>& place(const std::string& type) { return places_[type]; }

    /// Publishes the value in one of its places.
    void publish(void* value)
    {
        data_ = value;
        triggered_ = true;
    }

private:
    std::map<std::string, std::shared_ptr<void>> places_;
};

/// What comes in from another machine.
struct Entry {
    std::string path;  ///< of the block there
    std::string port;
    std::shared_ptr<RemoteOutput> output;
    bool keeps_all = false;  ///< each value has to arrive; else the latest will do
};

/// The connection of an entry to an input.
struct EntryWire {
    std::uint32_t entry = 0;  // an index
    std::uint32_t to = 0;
    InPortInternal* input = nullptr;
    bool is_delayed = false;
};

/// An output whose values go to other machines.
struct Exit {
    std::uint32_t from = 0;
    std::string port;
    OutPortInternal* output = nullptr;
    bool keeps_all = false;
};

struct Network {
    std::vector<Node> nodes;  // in the order in which they run
    std::vector<Wire> wires;  // in the order in which they are taken over: by reader, then input
    std::vector<Entry> entries;
    std::vector<EntryWire> entry_wires;  // by reader
    std::vector<Exit> exits;             // each output once
};

}  // namespace Quorval::runtime
