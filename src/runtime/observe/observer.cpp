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
    times_.add(block, static_cast<std::uint64_t>((end - begin_).count()));
    if (trace_ != nullptr) {
        ++runs_;
        trace_->add_run(block, begin_, end, has_failed);
    }
    begin_ = end;
    is_between_ = has_failed;  // to report a failure takes its time
}

}  // namespace Quorval::runtime
