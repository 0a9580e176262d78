#include "event_loop.h"

#include <sys/epoll.h>

#include <cerrno>
#include <system_error>
#include <utility>

namespace host {

using Quorval::FDEvent;

namespace {

/// Reports a failed operation of sd-event, which returns its negated errno.
void check(int result, const char* what)
{
    if (result < 0) {
        throw std::system_error(-result, std::system_category(), what);
    }
}

std::uint32_t to_epoll(FDEvent::EventMask mask)
{
    std::uint32_t events = 0;
    if (mask.readable) {
        events |= EPOLLIN;
    }
    if (mask.writable) {
        events |= EPOLLOUT;
    }
    return events;
}

/// A descriptor without interest is off altogether: epoll would go on reporting its end.
int to_enabled(FDEvent::EventMask mask)
{
    return mask.readable || mask.writable ? SD_EVENT_ON : SD_EVENT_OFF;
}

}  // namespace

EventLoop::EventLoop()
{
    sd_event* loop = nullptr;
    check(sd_event_new(&loop), "cannot make an event loop");
    loop_.reset(loop);
}

EventLoop::~EventLoop() = default;

std::unique_ptr<FDEvent> EventLoop::watch(int fd, FDEvent::EventMask mask, Callback callback,
                                          Priority priority)
{
    if (watches_.count(fd) > 0) {
        check(-EEXIST, "cannot watch a descriptor twice");
    }
    auto watch = std::unique_ptr<Watch>(new Watch{*this, mask, callback, priority, nullptr});
    watch->source = make_source(fd, *watch);
    auto event = std::make_unique<FDEvent>(fd, mask, std::move(callback), *this);
    watches_[fd] = std::move(watch);
    return event;
}

EventLoop::Source EventLoop::make_source(int fd, Watch& watch)
{
    sd_event_source* made = nullptr;
    int result = sd_event_add_io(loop_.get(), &made, fd, to_epoll(watch.mask), on_io, &watch);
    if (result == -EPERM) {  // epoll refuses what never makes a reader wait
        result = sd_event_add_defer(loop_.get(), &made, on_ready, &watch);
    }
    check(result, "cannot watch a descriptor");
    Source source(made);
    check(sd_event_source_set_priority(made, static_cast<int>(watch.priority)),
          "cannot set the priority of a descriptor");
    check(sd_event_source_set_enabled(made, to_enabled(watch.mask)), "cannot enable a descriptor");
    return source;
}

void EventLoop::watch_signal(int signal, std::function<void()> callback)
{
    auto watch = std::unique_ptr<SignalWatch>(new SignalWatch{*this, std::move(callback), nullptr});
    sd_event_source* made = nullptr;
    check(sd_event_add_signal(loop_.get(), &made, signal, on_signal, watch.get()),
          "cannot watch a signal");
    watch->source.reset(made);
    check(sd_event_source_set_priority(made, static_cast<int>(Priority::Urgent)),
          "cannot set the priority of a signal");
    signals_[signal] = std::move(watch);
}

void EventLoop::run_once()
{
    check(sd_event_run(loop_.get(), UINT64_MAX), "the event loop failed");
    if (failure_ != nullptr) {
        std::rethrow_exception(std::exchange(failure_, nullptr));
    }
}

void EventLoop::update_fd(FDEvent& event, int new_fd)
{
    const auto found = watches_.find(event.get_fd());
    if (found == watches_.end() || new_fd == event.get_fd()) {
        return;
    }
    if (watches_.count(new_fd) > 0) {
        check(-EEXIST, "cannot watch a descriptor twice");
    }
    // Made anew: the one descriptor may be one to wait for and the other not.
    found->second->source = make_source(new_fd, *found->second);
    auto entry = watches_.extract(found);
    entry.key() = new_fd;
    watches_.insert(std::move(entry));
}

void EventLoop::update_mask(FDEvent& event, FDEvent::EventMask new_mask)
{
    const auto found = watches_.find(event.get_fd());
    if (found == watches_.end()) {
        return;
    }
    Watch& watch = *found->second;
    sd_event_source* source = watch.source.get();
    if (sd_event_source_get_io_fd(source) >= 0) {
        check(sd_event_source_set_io_events(source, to_epoll(new_mask)),
              "cannot change what a descriptor is watched for");
    }
    check(sd_event_source_set_enabled(source, to_enabled(new_mask)), "cannot enable a descriptor");
    watch.mask = new_mask;
}

void EventLoop::remove(FDEvent& event)
{
    watches_.erase(event.get_fd());
}

int EventLoop::on_io(sd_event_source* /*source*/, int /*fd*/, std::uint32_t events, void* userdata)
{
    Watch& watch = *static_cast<Watch*>(userdata);
    const bool readable = (events & (EPOLLIN | EPOLLHUP | EPOLLERR)) != 0;
    const bool writable = (events & (EPOLLOUT | EPOLLERR)) != 0;
    // A copy, because the callback may end its own registration.
    const Callback callback = watch.callback;
    watch.loop.guard([&] { callback(readable, writable); });
    return 0;
}

int EventLoop::on_ready(sd_event_source* /*source*/, void* userdata)
{
    Watch& watch = *static_cast<Watch*>(userdata);
    const Callback callback = watch.callback;
    const FDEvent::EventMask mask = watch.mask;
    watch.loop.guard([&] { callback(mask.readable, mask.writable); });
    return 0;
}

int EventLoop::on_signal(sd_event_source* /*source*/, const signalfd_siginfo* /*info*/,
                         void* userdata)
{
    SignalWatch& watch = *static_cast<SignalWatch*>(userdata);
    watch.loop.guard(watch.callback);
    return 0;
}

void EventLoop::guard(const std::function<void()>& callback) noexcept
{
    try {
        callback();
    } catch (...) {
        failure_ = std::current_exception();
    }
}

}  // namespace host
