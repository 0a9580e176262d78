#include "run/service_notice.h"

#include <systemd/sd-daemon.h>

#include <cstdint>
#include <string>

namespace Quorval::runtime {

namespace {

/// Half of the time after which the manager takes the process for dead; zero where it does not.
std::chrono::nanoseconds watchdog_interval()
{
    std::uint64_t microseconds = 0;
    if (sd_watchdog_enabled(0, &microseconds) <= 0) {
        return std::chrono::nanoseconds(0);
    }
    return std::chrono::microseconds(microseconds / 2);
}

/// Nothing can be done about what is not told.
void tell(const std::string& state)
{
    static_cast<void>(sd_notify(0, state.c_str()));
}

}  // namespace

ServiceNotice::ServiceNotice(bool is_on, std::size_t blocks) : is_on_(is_on), blocks_(blocks)
{
    if (is_on_) {
        interval_ = watchdog_interval();
    }
}

void ServiceNotice::tell_ready()
{
    if (!is_on_) {
        return;
    }
    tell("READY=1\nSTATUS=running, " + std::to_string(blocks_) + " blocks");
    if (interval_.count() > 0 && !next_) {
        next_ = Time(0);
    }
}

void ServiceNotice::tell_reloading(Time now) const
{
    if (is_on_) {
        const auto time = std::chrono::duration_cast<std::chrono::microseconds>(now);
        tell("RELOADING=1\nMONOTONIC_USEC=" + std::to_string(time.count()) +
             "\nSTATUS=reading its files again");
    }
}

void ServiceNotice::tell_stopping() const
{
    if (is_on_) {
        tell("STOPPING=1\nSTATUS=stopping");
    }
}

void ServiceNotice::keep_alive(Time now)
{
    if (next_ && now >= *next_) {
        tell("WATCHDOG=1");
        next_ = now + interval_;
    }
}

}  // namespace Quorval::runtime
