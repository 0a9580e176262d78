#include "schedule/pace.h"

#include <algorithm>

namespace Quorval::runtime {

void Pace::ended(std::chrono::nanoseconds elapsed, std::chrono::nanoseconds work)
{
    constexpr double kWeight = 0.25;
    if (work.count() <= 0) {
        return;
    }
    // In the first wave of a trial threads may have to wake up, and caches to be filled.
    if (!is_trial_ || waves_ > 0) {
        const double time =
            static_cast<double>(elapsed.count()) / static_cast<double>(work.count());
        Way& way = ways_[present()];
        way.time = way.is_known ? way.time + kWeight * (time - way.time) : time;
        way.is_known = true;
    }
    ++waves_;
    if (is_trial_ && waves_ == kTrial) {
        end_trial();
    } else if (!is_trial_ && waves_ == interval_) {
        begin_trial();
    }
}

void Pace::begin_trial()
{
    is_trial_ = true;
    waves_ = 0;
    ways_[present()].is_known = false;
}

void Pace::end_trial()
{
    if (ways_[1 - best_].time < ways_[best_].time) {
        best_ = 1 - best_;
        interval_ = kShortest;
    } else {
        interval_ = std::min(interval_ * 2, kLongest);
    }
    is_trial_ = false;
    waves_ = 0;
}

}  // namespace Quorval::runtime
