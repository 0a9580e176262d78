// The object on a bus that stands for a running graph.
#pragma once

#include "control/handles.h"
#include "run/outside.h"

#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

namespace Quorval::runtime {

/// org.quorval.Graph1, and org.quorval.Links1 where the graph has links. Whoever can reach the bus
/// may look; only root and the user of this process may change something.
class GraphObject {
public:
    using Statistics = std::function<std::vector<BlockStatistics>()>;

    /// @param run  must outlive the object
    GraphObject(Run& run, Statistics statistics);
    GraphObject(const GraphObject&) = delete;
    GraphObject& operator=(const GraphObject&) = delete;

    /// Adds its slots, which must go before this object.
    /// @throws std::runtime_error  it is refused
    void publish(sd_bus* bus, std::vector<SlotHandle>& slots);

    /// Emit signals. Nothing happens without a connection, or where nothing was changed.
    static void tell_failure(sd_bus* bus, const std::string& path, const std::string& text);
    void tell_changes(sd_bus* bus, const std::vector<Change>& changes) const;

private:
    struct Methods;

    int configure(sd_bus_message* message);
    int get(sd_bus_message* message) const;
    int save(sd_bus_message* message);
    int statistics(sd_bus_message* message) const;
    int link_statistics(sd_bus_message* message) const;
    int stop(sd_bus_message* message);

    std::vector<Change> read_changes(sd_bus_message* message) const;
    std::uint32_t find_block(const std::string& path) const;
    bool may_change(sd_bus_message* message);
    static std::optional<uid_t> ask_for_user(sd_bus_message* message);

    Run& run_;
    Statistics statistics_;
    std::unordered_map<std::string, std::uint32_t> blocks_;  // by path
    bool is_stopping_ = false;
    // Callers that were asked about, by their names on one connection.
    std::map<std::string, bool> callers_;
};

}  // namespace Quorval::runtime
