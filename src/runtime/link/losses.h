// Tells of values that are lost.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>

namespace Quorval::runtime {

/// Counts the values of one output that are lost, and logs a warning for them once a second at
/// most. Knows no clock.
class Losses {
public:
    using Time = std::chrono::nanoseconds;

    /// @param output  `PATH.PORT`
    explicit Losses(std::string output) : output_(std::move(output)) {}

    /// "<count> values of <output> are lost: <why>", with the number of those that were left out
    /// since the last warning.
    void add(std::uint64_t count, const std::string& why, Time now);

    /// Tells how many were left out at the end.
    void add_rest();

    std::uint64_t count() const { return count_; }

private:
    std::string output_;
    Time last_{};
    std::uint64_t count_ = 0;
    std::uint64_t left_out_ = 0;
    bool is_reported_ = false;
};

}  // namespace Quorval::runtime
