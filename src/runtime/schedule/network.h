// Blocks and connections as the schedule sees them. Plain records that own nothing.
#pragma once

#include <quorval/block.h>

#include <cstdint>
#include <memory>
#include <string>
#include <utility>
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

/// An output of a block on another machine, with the value that came last. Blocks read the value,
/// so that it has to go before their plug-ins.
class RemoteOutput final : public OutPortInternal {
public:
    using OutPortInternal::OutPortInternal;

    void put(std::shared_ptr<const void> value)
    {
        value_ = std::move(value);
        data_ = const_cast<void*>(value_.get());  // NOLINT: readers get pointers to const
        triggered_ = true;
    }

private:
    std::shared_ptr<const void> value_;
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
