// Owners for the objects of sd-bus and sd-event, and what all of its users share.
#pragma once

#include <quorval/runtime/bus.h>

#include <systemd/sd-bus.h>
#include <systemd/sd-event.h>

#include <memory>
#include <string>

namespace Quorval::runtime {

struct Release {
    void operator()(sd_bus* bus) const { sd_bus_flush_close_unref(bus); }
    void operator()(sd_bus_slot* slot) const { sd_bus_slot_unref(slot); }
    void operator()(sd_bus_message* message) const { sd_bus_message_unref(message); }
    void operator()(sd_bus_creds* creds) const { sd_bus_creds_unref(creds); }
    void operator()(sd_event_source* source) const { sd_event_source_disable_unref(source); }
};

using BusHandle = std::unique_ptr<sd_bus, Release>;
using SlotHandle = std::unique_ptr<sd_bus_slot, Release>;
using MessageHandle = std::unique_ptr<sd_bus_message, Release>;
using CredsHandle = std::unique_ptr<sd_bus_creds, Release>;
using SourceHandle = std::unique_ptr<sd_event_source, Release>;

constexpr const char* kNamePrefix = "org.quorval.graph.";
constexpr const char* kPath = "/org/quorval/graph";
constexpr const char* kInterface = "org.quorval.Graph1";
constexpr const char* kLinkInterface = "org.quorval.Links1";
constexpr const char* kUnknownBlock = "org.quorval.Error.UnknownBlock";
constexpr const char* kInvalidValue = "org.quorval.Error.InvalidValue";
constexpr const char* kRefused = "org.quorval.Error.Refused";

/// The name on the bus of a graph.
std::string bus_name_of(const std::string& graph);

/// Begins to connect.
/// @return 0, or a negative errno
int open_bus(Bus kind, BusHandle& bus);

/// "the user's bus", "the system's bus"
const char* to_text(Bus kind);

/// The text of a negative errno.
std::string text_of_errno(int result);

}  // namespace Quorval::runtime
