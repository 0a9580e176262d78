// Values that come in from another machine.
#pragma once

#include <quorval/runtime/graph.h>
#include "link/losses.h"
#include "link/stamp.h"
#include "plugins/plugin_set.h"
#include "schedule/network.h"

#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace Quorval::runtime {

/// Keeps the values of one output elsewhere until the graph takes them: all of them, or the latest.
/// Drops what is no value of it.
class Inbox {
public:
    using Time = Losses::Time;

    /// @param inputs   the types of the inputs behind the entry
    /// @param plugins  have the codecs; it and the entry must outlive the object
    /// @param limit    bytes of a value
    Inbox(Entry& entry, std::vector<Datatype> inputs, const PluginSet& plugins, std::size_t limit);

    /// Takes a message in.
    void receive(const Stamp& stamp, std::string_view bytes, Time now);

    /// How many values wait.
    std::size_t size() const { return values_.size(); }

    /// How many bytes they are.
    std::size_t bytes() const { return bytes_; }

    /// Decodes the next value into the entry's output. There is one.
    /// @return false: it cannot be decoded
    bool put_next(Time now);

    /// Drops what waits, of a graph that has stopped.
    void drop_rest(Time now);
    /// Tells of losses that were not told of yet, at the end.
    void tell_rest() { losses_.add_rest(); }

    LinkStatistics statistics() const;

private:
    bool follow(const Stamp& stamp, Time now);
    void clear();
    std::string find_fault(const Stamp& stamp);
    std::string find_fault(const std::string& type) const;

    Entry& entry_;
    std::vector<Datatype> inputs_;
    const PluginSet& plugins_;
    std::size_t limit_;
    struct Value {
        std::string type;
        std::string bytes;
    };
    std::deque<Value> values_;
    std::size_t bytes_ = 0;      // of the values
    std::string accepted_type_;  // the last one
    int late_ = 0;               // values of an earlier run in a row
    std::uint64_t start_ = 0;    // of the sender
    std::uint64_t number_ = 0;   // of its last value; 0 before the first
    Losses losses_;
    LinkStatistics statistics_;  // without losses
};

}  // namespace Quorval::runtime
