#include "run/signals.h"

#include "messages/signal_mask.h"

#include <poll.h>

#include <atomic>
#include <stdexcept>
#include <utility>

namespace Quorval::runtime {

namespace {

std::atomic<Waker*> present_waker{nullptr};
std::atomic<bool> stop_came{false};
std::atomic<bool> reload_came{false};

void set_action(int signal, void (*handler)(int))
{
    struct sigaction action = {};
    action.sa_handler = handler;
    action.sa_flags = SA_RESTART;
    sigemptyset(&action.sa_mask);
    ::sigaction(signal, &action, nullptr);
}

void note(int signal)
{
    if (signal == SIGHUP) {
        reload_came = true;
    } else {
        set_action(SIGINT, SIG_DFL);
        set_action(SIGTERM, SIG_DFL);
        stop_came = true;
    }
    if (Waker* waker = present_waker) {
        waker->wake();
    }
}

}  // namespace

Signals::Signals(std::shared_ptr<Waker> waker) : waker_(std::move(waker))
{
    Waker* none = nullptr;
    if (!present_waker.compare_exchange_strong(none, waker_.get())) {
        throw std::logic_error("another graph takes the signals");
    }
    stop_came = false;
    reload_came = false;
    watch_signals();
    for (std::size_t at = 0; at < kSignals.size(); ++at) {
        ::sigaction(kSignals[at], nullptr, &before_[at]);
        set_action(kSignals[at], kSignals[at] == SIGPIPE ? SIG_IGN : note);
    }
}

Signals::~Signals()
{
    forget_signals();
    for (std::size_t at = 0; at < kSignals.size(); ++at) {
        ::sigaction(kSignals[at], &before_[at], nullptr);
    }
    present_waker = nullptr;
}

// What signals leave is the process's, but there is none to ask without an object.
// NOLINTNEXTLINE(readability-convert-member-functions-to-static)
bool Signals::has_stop() const
{
    return stop_came;
}

// NOLINTNEXTLINE(readability-convert-member-functions-to-static)
bool Signals::take_reload()
{
    return reload_came.exchange(false);
}

bool Signals::wait_readable(int fd)
{
    std::array<pollfd, 2> waited{{{fd, POLLIN, 0}, {waker_->fd(), POLLIN, 0}}};
    while (!has_stop()) {
        const bool sleeps = waker_->begin_sleep();
        ::poll(waited.data(), waited.size(), sleeps ? -1 : 0);
        waker_->end_sleep();
        waker_->drain();
        if (waited[0].revents != 0) {
            return true;
        }
    }
    return false;
}

}  // namespace Quorval::runtime
