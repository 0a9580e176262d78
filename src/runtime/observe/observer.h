// Watches the runs of blocks.
#pragma once

#include "observe/run_times.h"
#include "observe/trace.h"
#include "schedule/wave.h"

#include <chrono>
#include <cstddef>
#include <cstdint>

namespace Quorval::runtime {

/// Times each run. The clock is read once for a run that follows another one in its wave: the end
/// of one is then the beginning of the next, which so includes taking its inputs over.
class Observer final : public IRunProbe {
public:
    using Time = std::chrono::nanoseconds;

    /// @param now    of a monotonic clock
    /// @param trace  gets waves and runs, and must outlive the object; may be null
    Observer(std::size_t blocks, Time (*now)(), Trace* trace = nullptr)
        : now_(now), times_(blocks), trace_(trace)
    {
    }

    void wave_begins() override;
    void wave_ends() override;
    void run_begins(std::uint32_t block) override;
    void run_ends(std::uint32_t block, bool has_failed) override;
    void ran(const TimedRun& run) override;

    const RunTimes& times() const { return times_; }

private:
    void add(const TimedRun& run);

    Time (*now_)();
    RunTimes times_;
    Trace* trace_;
    Time begin_{};
    Time wave_begin_{};
    std::uint64_t runs_ = 0;  // in the present wave
    bool is_between_ = true;  // two runs, so that the clock has to be read for the next one
};

}  // namespace Quorval::runtime
