// The connection of a running graph to a message bus.
#pragma once

#include "control/handles.h"

#include <chrono>
#include <functional>
#include <string>
#include <vector>

namespace Quorval::runtime {

/// Holds a name on a bus. When the bus is lost, it connects again and again, with growing pauses,
/// until it has the name again. Works in an event loop.
class Connection {
public:
    /// Puts objects on a new connection; they stay as long as their slots.
    using Publish = std::function<std::vector<SlotHandle>(sd_bus* bus)>;

    Connection(Bus kind, std::string name, Publish publish);
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;
    /// Sends what is left to be sent.
    ~Connection();

    /// Connects, publishes and takes the name.
    /// @return what went wrong; empty for nothing
    /// @throws what publishing throws
    std::string open();

    /// Answers calls from here on.
    /// @param event  must outlive the object
    /// @throws std::system_error  a system call failed: "the user's bus cannot be served"
    void attach(sd_event* event);

    /// Null while there is no connection.
    sd_bus* bus() const { return is_connected_ ? bus_.get() : nullptr; }

private:
    using Clock = std::chrono::steady_clock;

    static int on_disconnect(sd_bus_message* message, void* self, sd_bus_error* error);
    static int on_name(sd_bus_message* message, void* self, sd_bus_error* error);
    static int on_time(sd_event_source* source, std::uint64_t now, void* self);

    int connect();
    int request_name();
    void forget_pause();
    void retry_later();
    void connect_again();
    std::string text_of_owner() const;

    Bus kind_;
    std::string name_;
    Publish publish_;
    sd_event* event_ = nullptr;
    BusHandle bus_;
    SlotHandle disconnect_slot_;  // the slots behind their bus, so that they go first
    SlotHandle name_slot_;
    std::vector<SlotHandle> objects_;
    SourceHandle timer_;
    std::chrono::milliseconds pause_{};  // before the next attempt
    Clock::time_point connected_since_;
    bool is_connected_ = false;
};

}  // namespace Quorval::runtime
