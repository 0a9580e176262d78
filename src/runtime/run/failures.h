// Tells of blocks that fail.
#pragma once

#include "schedule/network.h"

#include <chrono>
#include <cstdint>
#include <functional>
#include <string>
#include <utility>
#include <vector>

namespace Quorval::runtime {

/// Logs failures, those of one block in its run() once a second at most. Knows no clock.
class Failures {
public:
    using Listener = std::function<void(const std::string& path, const std::string& text)>;

    explicit Failures(const Network& network) : network_(network), states_(network.nodes.size()) {}

    /// Told of each failure that is reported.
    void set_listener(Listener listener) { listener_ = std::move(listener); }

    /// "block '<path>' failed in <operation>: <text>"
    void report(std::uint32_t block, const char* operation, const std::string& text);

    /// A failure in run(), with the number of those that were left out since the last report.
    /// @param now  the time of the wave
    void report_run(std::uint32_t block, const std::string& text, std::chrono::nanoseconds now);

    /// Tells how many were left out at the end.
    void report_rest();

private:
    struct State {
        std::chrono::nanoseconds last{};
        std::uint64_t left_out = 0;
        bool is_reported = false;
    };

    const Network& network_;
    Listener listener_;
    std::vector<State> states_;
};

}  // namespace Quorval::runtime
