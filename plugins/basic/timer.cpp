// Timer: asks to be run at a time.
#include <quorval/runtime/tools.h>
#include <quorval/settings.h>
#include "blocks.h"

#include <chrono>
#include <cstdint>
#include <limits>
#include <string>
#include <utility>

namespace basic {

using Quorval::BlockConfiguration;
using std::chrono::nanoseconds;

namespace {

struct TimerSettings {
    double period = 1;
    int count = 0;

    nanoseconds duration() const
    {
        return std::chrono::round<nanoseconds>(std::chrono::duration<double>(period));
    }
};

const Quorval::Settings<TimerSettings>& timer_settings()
{
    constexpr double kShortest = 1e-6;
    constexpr double kLongest = 1e6;
    static const auto kSettings =
        Quorval::Settings<TimerSettings>("Ticks: counts from 1, one more in each period.")
            .add("period", &TimerSettings::period, "in seconds")
            .range(kShortest, kLongest)
            .required()
            .live()
            .add("count", &TimerSettings::count, "how many ticks there are; 0: without an end")
            .range(0, std::numeric_limits<int>::max());
    return kSettings;
}

class Timer : public Quorval::Block {
public:
    Timer(std::string name, const BlockConfiguration& config)
        : Block(std::move(name), config), settings_(timer_settings().read(config))
    {
    }

    void start() override
    {
        before_ = get_tools().now();
        get_tools().run_at(before_ + settings_.duration());
    }

    bool run() override
    {
        out_->write(++ticks_);
        if (ticks_ == settings_.count) {
            return false;
        }
        // Ticks that were missed are not made up for, and the next one is where it would have been.
        const nanoseconds period = settings_.duration();
        before_ += (get_tools().now() - before_) / period * period;
        get_tools().run_at(before_ + period);
        return true;
    }

    void reconfigure(const BlockConfiguration& /*merged*/,
                     const BlockConfiguration& override) override
    {
        settings_ = timer_settings().apply(settings_, override);
        get_tools().run_at(before_ + settings_.duration());
    }

private:
    TimerSettings settings_;
    Quorval::OutPort<std::int64_t>* out_ = Quorval::add_output<std::int64_t>(*this, "tick");
    nanoseconds before_{0};  // when the period began
    std::int64_t ticks_ = 0;
};

}  // namespace

void register_timer(Quorval::IRegistry& registry)
{
    Quorval::register_block<Timer>(registry, "Timer", timer_settings());
}

}  // namespace basic
