#include "observe/observer.h"

namespace Quorval::runtime {

void Observer::wave_begins()
{
    is_between_ = true;
    if (trace_ != nullptr) {
        runs_ = 0;
        wave_begin_ = now_();
    }
}

void Observer::wave_ends()
{
    if (trace_ != nullptr) {
        trace_->add_wave(wave_begin_, runs_);
    }
}

void Observer::run_begins(std::uint32_t /*block*/)
{
    if (is_between_) {
        begin_ = now_();
    }
}

void Observer::run_ends(std::uint32_t block, bool has_failed)
{
    const Time end = now_();
    add({block, 0, begin_, end, has_failed});
    begin_ = end;
    is_between_ = has_failed;  // to report a failure takes its time
}

void Observer::ran(const TimedRun& run)
{
    add(run);
    is_between_ = true;
}

void Observer::add(const TimedRun& run)
{
    times_.add(run.block, static_cast<std::uint64_t>((run.end - run.begin).count()));
    if (trace_ != nullptr) {
        ++runs_;
        trace_->add_run(run.block, run.begin, run.end, run.has_failed, run.thread);
    }
}

}  // namespace Quorval::runtime
