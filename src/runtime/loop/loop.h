// What a running graph waits for.
#pragma once

#include "loop/descriptor.h"
#include "loop/poller.h"
#include "loop/waker.h"

#include <systemd/sd-event.h>

#include <chrono>
#include <memory>
#include <optional>
#include <vector>

namespace Quorval::runtime {

/// One thread waits here for descriptors, a time, the requests of other threads, and for an
/// sd_event that others hang their own sources on. Without any of them it sleeps.
class Loop {
public:
    using Time = std::chrono::nanoseconds;

    Loop();
    Loop(const Loop&) = delete;
    Loop& operator=(const Loop&) = delete;
    ~Loop();

    /// Of a monotonic clock, CLOCK_MONOTONIC.
    static Time now();

    Poller& poller() { return poller_; }
    const std::shared_ptr<Waker>& waker() const { return waker_; }

    /// Made when it is first asked for.
    /// @throws std::system_error  there are no descriptors left, or the system refuses to watch it
    sd_event* event();
    bool has_event() const { return event_ != nullptr; }
    /// No source of the sd_event is dispatched from here on.
    void close_event();
    /// Whether somebody ended the sd_event.
    bool has_exited() const;

    /// Waits until something is ready, the time has come, or somebody called wake(), and
    /// dispatches the sources of the sd_event. Does not wait after a wake() since the last call.
    /// @param until  none: no time
    /// @return what is ready, all of it; entries with reserved tags are to be ignored
    /// @throws std::system_error  the system refuses, or somebody closed descriptors of the loop
    const std::vector<Ready>& wait(std::optional<Time> until);

    /// From a source of the sd_event: the present wait() dispatches no other, so that what this one
    /// left to do is done first.
    void hold() { is_held_ = true; }

    /// Waits until the time has come, or somebody called wake(). Leaves all else for wait().
    void sleep(Time until);

private:
    bool set_timer(std::optional<Time> until);
    bool prepare_event();
    void dispatch_event(bool is_prepared);

    std::shared_ptr<Waker> waker_;
    Descriptor timer_;
    std::optional<Time> timer_time_;  // that the timer is set to
    Poller poller_;
    std::unique_ptr<FDEvent> waker_event_;
    std::unique_ptr<FDEvent> timer_event_;
    sd_event* event_ = nullptr;
    std::unique_ptr<FDEvent> event_event_;
    bool is_held_ = false;
    bool is_closed_ = false;  // the sd_event
};

}  // namespace Quorval::runtime
