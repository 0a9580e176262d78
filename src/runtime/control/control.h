// A running graph on a message bus.
#pragma once

#include "control/connection.h"
#include "control/graph_object.h"
#include "control/objects.h"
#include "run/outside.h"

#include <functional>
#include <optional>
#include <utility>
#include <vector>

namespace Quorval::runtime {

/// Puts the graph and the objects of its blocks on a bus, for the time of a run.
class Control final : public IOutside {
public:
    using Statistics = std::function<std::vector<BlockStatistics>(Run&)>;

    /// @param statistics  asked when a caller wants to know
    Control(Bus kind, Statistics statistics) : kind_(kind), statistics_(std::move(statistics)) {}

    RunResult open(Run& run) override;
    void begin() override;
    void close() noexcept override;
    sd_bus* bus() override { return connection_ ? connection_->bus() : nullptr; }

private:
    Bus kind_;
    Statistics statistics_;
    Run* run_ = nullptr;
    std::optional<GraphObject> graph_;
    std::optional<BlockObjects> objects_;
    std::optional<Connection> connection_;  // behind the objects that it publishes
};

}  // namespace Quorval::runtime
