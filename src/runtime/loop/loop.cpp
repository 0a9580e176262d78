#include "loop/loop.h"

#include <poll.h>
#include <sys/timerfd.h>

#include <cerrno>
#include <system_error>

namespace Quorval::runtime {

namespace {

constexpr std::uint32_t kWakerTag = kFirstReservedTag;
constexpr std::uint32_t kTimerTag = kFirstReservedTag + 1;
constexpr std::uint32_t kEventTag = kFirstReservedTag + 2;
constexpr FDEvent::EventMask kReadable{true, false};

sd_event* make_event()
{
    sd_event* event = nullptr;
    const int result = sd_event_new(&event);
    if (result < 0) {
        throw std::system_error(-result, std::generic_category(), "cannot make an event loop");
    }
    return event;
}

void set_time(const Descriptor& timer, int flags, const itimerspec& time)
{
    if (::timerfd_settime(timer.get(), flags, &time, nullptr) != 0) {
        throw std::system_error(errno, std::generic_category(), "cannot set the timer");
    }
}

/// @param result  what an operation of sd-event gave
int check(int result)
{
    if (result < 0) {
        throw std::system_error(-result, std::generic_category(), "cannot wait for events");
    }
    return result;
}

timespec to_timespec(Loop::Time time)
{
    const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(time);
    return {static_cast<time_t>(seconds.count()), static_cast<long>((time - seconds).count())};
}

}  // namespace

Loop::Loop()
    : waker_(std::make_shared<Waker>()),
      timer_(::timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC | TFD_NONBLOCK), "cannot make a timer"),
      waker_event_(poller_.add(waker_->fd(), kReadable, kWakerTag)),
      timer_event_(poller_.add(timer_.get(), kReadable, kTimerTag))
{
}

Loop::~Loop()
{
    if (event_ != nullptr) {
        sd_event_unref(event_);
    }
}

Loop::Time Loop::now()
{
    return std::chrono::steady_clock::now().time_since_epoch();
}

sd_event* Loop::event()
{
    if (event_ == nullptr) {
        event_ = make_event();
    }
    // It may have been made before, where it could not be watched then.
    if (event_event_ == nullptr && !is_closed_) {
        event_event_ = poller_.add(sd_event_get_fd(event_), kReadable, kEventTag);
    }
    return event_;
}

void Loop::close_event()
{
    event_event_.reset();
    is_closed_ = true;
}

bool Loop::has_exited() const
{
    int code = 0;
    return event_ != nullptr && sd_event_get_exit_code(event_, &code) >= 0;
}

const std::vector<Ready>& Loop::wait(std::optional<Time> until)
{
    const bool is_waiting = set_timer(until);
    const bool is_prepared = prepare_event();
    const bool sleeps = waker_->begin_sleep();
    const std::vector<Ready>& ready = poller_.wait(is_waiting && !is_prepared && sleeps);
    waker_->end_sleep();
    for (const Ready& one : ready) {
        if (one.tag == kWakerTag) {
            waker_->drain();
        } else if (one.tag == kTimerTag) {
            timer_time_.reset();
            std::uint64_t count = 0;
            [[maybe_unused]] const ssize_t size = ::read(timer_.get(), &count, sizeof count);
        }
    }
    dispatch_event(is_prepared);
    return ready;
}

void Loop::sleep(Time until)
{
    const Time pause = until - now();
    if (waker_->begin_sleep() && pause > Time(0)) {
        const timespec timeout = to_timespec(pause);
        pollfd waker = {waker_->fd(), POLLIN, 0};
        if (::ppoll(&waker, 1, &timeout, nullptr) > 0) {
            waker_->drain();
        }
    }
    waker_->end_sleep();
}

/// Sets the timer where it does not come early enough or far too early.
/// @return false when the time has come already
bool Loop::set_timer(std::optional<Time> until)
{
    if (!until) {
        if (timer_time_) {
            timer_time_.reset();
            const itimerspec none = {};
            set_time(timer_, 0, none);
        }
        return true;
    }
    if (*until <= now()) {
        return false;
    }
    if (timer_time_ != until) {
        timer_time_ = until;
        const itimerspec time = {{0, 0}, to_timespec(*until)};
        set_time(timer_, TFD_TIMER_ABSTIME, time);
    }
    return true;
}

/// @return whether a source is ready to be dispatched
bool Loop::prepare_event()
{
    return event_ != nullptr && !is_closed_ && !has_exited() && check(sd_event_prepare(event_)) > 0;
}

/// Dispatches what is ready; not for ever, when there is always something.
void Loop::dispatch_event(bool is_prepared)
{
    constexpr int kAtMost = 64;
    if (event_ == nullptr || is_closed_ || has_exited()) {
        return;
    }
    is_held_ = false;
    bool is_pending = is_prepared || check(sd_event_wait(event_, 0)) > 0;
    for (int count = 1; is_pending; ++count) {
        sd_event_dispatch(event_);
        is_pending = count < kAtMost && !is_held_ && !has_exited() &&
                     (check(sd_event_prepare(event_)) > 0 || check(sd_event_wait(event_, 0)) > 0);
    }
}

}  // namespace Quorval::runtime
