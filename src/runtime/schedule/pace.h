// Whether it pays to run the blocks of a wave side by side.
#pragma once

#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>

namespace Quorval::runtime {

/// Learns from waves which of two ways is faster, in order or side by side, and chooses it. Tries
/// the other one for some waves now and then, ever more rarely while that stays the slower one.
/// Knows no clock.
class Pace {
public:
    /// The way of the present wave.
    bool is_side_by_side() const { return present() == 1; }

    /// The wave has ended.
    /// @param elapsed  what it took
    /// @param work     what its blocks take one after the other, as far as that is known; with none
    ///                 nothing is learned
    void ended(std::chrono::nanoseconds elapsed, std::chrono::nanoseconds work);

private:
    static constexpr std::uint32_t kTrial = 4;     // waves
    static constexpr std::uint32_t kShortest = 4;  // waves between two trials
    static constexpr std::uint32_t kLongest = 1024;

    struct Way {
        double time = 0;  // for one of work, in the mean of the latest waves
        bool is_known = false;
    };

    std::size_t present() const { return is_trial_ ? 1 - best_ : best_; }
    void begin_trial();
    void end_trial();

    std::array<Way, 2> ways_;
    std::size_t best_ = 0;
    bool is_trial_ = false;
    std::uint32_t waves_ = 0;  // of the trial, or since the last one
    std::uint32_t interval_ = kShortest;
};

}  // namespace Quorval::runtime
