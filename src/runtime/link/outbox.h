// Values that go to other machines.
#pragma once

#include <quorval/runtime/graph.h>
#include "link/losses.h"
#include "link/stamp.h"
#include "plugins/plugin_set.h"
#include "schedule/network.h"

#include <cstddef>
#include <cstdint>
#include <deque>
#include <string>

namespace Quorval::runtime {

/// Encodes the values of one output and keeps them until they are sent: as many as its queue has
/// room for, the oldest go first, or the latest.
class Outbox {
public:
    using Time = Losses::Time;

    struct Message {
        std::uint64_t number = 0;
        std::string bytes;
    };

    /// @param path     of the block
    /// @param plugins  have the codecs
    /// @param queue    values that may wait, at least 1
    /// @param limit    bytes of a value
    Outbox(const Exit& exit, const std::string& path, const PluginSet& plugins, std::size_t queue,
           std::size_t limit);

    const std::string& type() const { return type_; }
    const std::string& name() const { return name_; }
    bool keeps_all() const { return keeps_all_; }

    /// Takes the present value of the output.
    void take(Time now);

    /// How many values wait to be sent.
    std::size_t size() const { return messages_.size(); }

    /// The next one. There is one.
    const Message& next() const { return messages_.front(); }

    /// The next one was handed on.
    void hand_on();
    /// The next one cannot be.
    void lose_next(const std::string& why, Time now);
    /// One that was handed on is lost all the same.
    void take_back(std::size_t bytes, const std::string& why, Time now);

    /// The broker forgot or never had the present value: it waits again, and counts once.
    void repeat_latest();

    /// Drops what waits, at the end.
    void drop_rest(Time now);

    LinkStatistics statistics() const;

private:
    std::string path_;  // of the block
    std::string name_;
    std::string type_;
    OutPortInternal* output_;
    const Codec& codec_;
    bool keeps_all_;
    std::size_t queue_;
    std::size_t limit_;
    std::deque<Message> messages_;
    Message latest_;            // that was sent, of an output that keeps one alone
    bool is_repeated_ = false;  // the one that waits
    std::string bytes_;         // kept for its memory
    std::uint64_t number_ = 0;  // of the last value
    Losses losses_;
    std::uint64_t values_ = 0;  // that were handed on, and how much they were
    std::uint64_t sent_bytes_ = 0;
    std::size_t longest_ = 0;  // queue
};

}  // namespace Quorval::runtime
