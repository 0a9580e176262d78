// The services that the runtime offers to blocks, and to the functions that create them.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>

struct sd_bus;
struct sd_event;

namespace Quorval {

/// What create functions get. New members come at the end.
struct InitTools {
    std::string graph;    ///< the name of the graph
    bool is_dry = false;  ///< the block is made to be checked or shown and will not be started
};

/// What a running block gets. One object for each block, which lives at least as long as the block
/// and is attached before start(). Used in operations of the block, but for request_run().
/// After stop() of the block nothing here has an effect any more. New operations come at the end.
struct RuntimeTools {
    /// The path of the block: the names from the graph down to it with "/" between.
    virtual const std::string& path() const = 0;

    /// The time of a monotonic clock at which the wave began. A test may set it.
    virtual std::chrono::nanoseconds now() const = 0;

    /// Makes the block due in the next wave. From any thread, until the block is destroyed; many
    /// requests before that wave count as one.
    virtual void request_run() = 0;

    /// Makes the block due once, in the first wave with now() >= `time`. The last call counts; a
    /// negative time takes the former one back. A run for another reason does not use it up.
    virtual void run_at(std::chrono::nanoseconds time) = 0;

    /// Reports how much of the block's work is done, for the user to see.
    /// @param total  0 when it is not known
    virtual void progress(std::uint64_t done, std::uint64_t total) = 0;

    /// Stops the graph in order after the present wave. No failure: `reason` is a message at
    /// LOGLEVEL_INFO.
    virtual void stop(const std::string& reason) = 0;

    /// The event loop that the graph runs on, owned by the runtime; null in a test. Where the graph
    /// has several threads, a block that has asked for it, or for the bus, runs on the thread of
    /// the loop from the next wave on. So ask in start() first.
    virtual sd_event* loop() = 0;

    /// The message bus that the graph is on, owned by the runtime; null without one. It is another
    /// one when the bus was lost and is back, and null in between: ask each time.
    virtual sd_bus* bus() = 0;

    /// Has the block run on the thread of the graph, behind all blocks before it in the order, from
    /// the next wave on, also where the graph has several threads. For blocks that share something
    /// with others, such as standard output. To be called in start().
    virtual void keep_place() {}

protected:
    ~RuntimeTools() = default;
};

}  // namespace Quorval
