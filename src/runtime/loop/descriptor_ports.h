// The descriptor ports of the blocks of a graph.
#pragma once

#include <quorval/port.h>
#include "loop/poller.h"
#include "schedule/network.h"
#include "schedule/wave.h"

#include <cstdint>
#include <vector>

namespace Quorval::runtime {

/// The event port that a port is, null for another one. A class of a plug-in that was compiled
/// without type information is another one.
EventPort* as_event_port(FdPort& port);

/// Knows the ports from the start of their blocks to its end, takes readiness to them, and resets
/// them so that no event is lost. Must not outlive the blocks.
class DescriptorPorts final : public IDescriptorPorts {
public:
    explicit DescriptorPorts(const Network& network);

    /// Takes up the ports that the block has by now.
    /// @return whether there are any
    bool collect(std::uint32_t block);

    /// Registers the ports of a block; the tag of a registration is the port's number.
    /// @throws std::system_error  a descriptor cannot be watched
    void watch(std::uint32_t block, Poller& poller);
    /// Ends the registrations.
    void unwatch(std::uint32_t block);

    /// Triggers a port.
    /// @return its block
    std::uint32_t make_ready(const Ready& ready);

    void begin_wave() { ++wave_; }

    bool is_triggered(std::uint32_t block) override;
    void before_run(std::uint32_t block) override;
    void after_run(std::uint32_t block) override;
    void reset(std::uint32_t block) override;

private:
    struct Entry {
        FdPort* port = nullptr;
        std::uint32_t block = 0;
        bool is_event_port = false;
        bool can_count = false;   // the event port is on an event descriptor
        bool is_file = false;     // always ready
        bool is_counted = false;  // the run has begun with a count of one
        bool was_reported = false;
        int waves_in_a_row = 0;  // in which the port was readable
        std::uint64_t last_wave = 0;
    };
    struct Range {
        std::uint32_t first = 0;
        std::uint32_t end = 0;
    };

    static void look_for_what_is_left(Entry& entry);
    static void reset_event_port(Entry& entry);

    const Network& network_;
    std::vector<Range> ranges_;  // by block
    std::vector<Entry> entries_;
    std::uint64_t wave_ = 0;
};

}  // namespace Quorval::runtime
