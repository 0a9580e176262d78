#include "loop/poller.h"

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <string>
#include <system_error>
#include <utility>

namespace Quorval::runtime {

namespace {

constexpr const char* kNoSet = "cannot make a set of descriptors";

[[noreturn]] void throw_cannot_wait(int error)
{
    throw std::system_error(error, std::generic_category(),
                            error == EBADF ? "cannot wait for descriptors, of which a block may "
                                             "have closed one that is not its own"
                                           : "cannot wait for descriptors");
}

[[noreturn]] void throw_cannot_watch(int error, int fd)
{
    throw std::system_error(error, std::generic_category(),
                            "cannot watch descriptor " + std::to_string(fd));
}

}  // namespace

/// The callback of a registration. It moves along with the FDEvent, and so tells which one that
/// is, wherever it lies.
class Poller::Report {
public:
    Report(Poller& poller, std::uint32_t id) : poller_(&poller), id_(id) {}

    void operator()(bool readable, bool writable) const
    {
        poller_->report(id_, readable, writable);
    }

    std::uint32_t id() const { return id_; }

private:
    Poller* poller_;
    std::uint32_t id_;
};

Poller::Poller() : epoll_(::epoll_create1(EPOLL_CLOEXEC), kNoSet) {}

std::unique_ptr<FDEvent> Poller::add(int fd, FDEvent::EventMask mask, std::uint32_t tag)
{
    const std::uint32_t id = take_id();
    auto event = std::make_unique<FDEvent>(fd, mask, Report(*this, id), *this);
    registrations_[id] = {-1, mask, tag};
    attach(id, fd);
    if (const int error = apply(fd)) {
        throw_cannot_watch(error, fd);
    }
    return event;
}

std::uint32_t Poller::take_id()
{
    if (free_ids_.empty()) {
        registrations_.emplace_back();
        // Room for all that can be ready, so that waiting allocates nothing.
        ready_.reserve(registrations_.size());
        events_.resize(registrations_.size());
        free_ids_.reserve(registrations_.size());
        return static_cast<std::uint32_t>(registrations_.size() - 1);
    }
    const std::uint32_t id = free_ids_.back();
    free_ids_.pop_back();
    return id;
}

void Poller::attach(std::uint32_t id, int fd)
{
    if (static_cast<std::size_t>(fd) >= watched_.size()) {
        watched_.resize(static_cast<std::size_t>(fd) + 1);
    }
    watched_[fd].registrations.push_back(id);
    registrations_[id].fd = fd;
}

void Poller::detach(std::uint32_t id)
{
    std::vector<std::uint32_t>& ids = watched_[registrations_[id].fd].registrations;
    ids.erase(std::find(ids.begin(), ids.end(), id));
}

/// Brings the entry of a descriptor up to date.
/// @return an errno
int Poller::apply(int fd)
{
    Watched& watched = watched_[fd];
    const std::uint32_t events = events_of(watched);
    if (watched.is_always_ready) {
        watched.is_always_ready = false;
        always_ready_.erase(std::find(always_ready_.begin(), always_ready_.end(), fd));
    }
    if (events == 0) {
        leave(fd);
        return 0;
    }
    const int error = enter(fd, events);
    if (error != EPERM) {
        return error;
    }
    always_ready_.push_back(fd);
    watched.is_always_ready = true;
    return 0;
}

int Poller::enter(int fd, std::uint32_t events)
{
    Watched& watched = watched_[fd];
    if (watched.generation != 0) {
        const int error = control(EPOLL_CTL_MOD, fd, events);
        if (error != ENOENT) {
            return error;
        }
        // The descriptor was closed, and now stands for another file; or it never got in.
    }
    watched.generation = ++generations_;
    const int error = control(EPOLL_CTL_ADD, fd, events);
    return error == EEXIST ? control(EPOLL_CTL_MOD, fd, events) : error;
}

void Poller::leave(int fd)
{
    if (std::exchange(watched_[fd].generation, 0) != 0) {
        control(EPOLL_CTL_DEL, fd, 0);  // fails when the descriptor is closed
    }
}

int Poller::control(int operation, int fd, std::uint32_t events)
{
    epoll_event event = {};
    event.events = events;
    event.data.u64 =
        (std::uint64_t{watched_[fd].generation} << 32U) | static_cast<std::uint32_t>(fd);
    return ::epoll_ctl(epoll_.get(), operation, fd, &event) == 0 ? 0 : errno;
}

/// What the registrations on a descriptor wait for together. Nothing at all keeps it out of the
/// set, which would report hang-ups all the same.
std::uint32_t Poller::events_of(const Watched& watched) const
{
    std::uint32_t events = 0;
    for (const std::uint32_t id : watched.registrations) {
        events |= registrations_[id].mask.readable ? EPOLLIN : 0U;
        events |= registrations_[id].mask.writable ? EPOLLOUT : 0U;
    }
    return events;
}

const std::vector<Ready>& Poller::wait(bool may_wait)
{
    ready_.clear();
    const int timeout = may_wait && always_ready_.empty() ? -1 : 0;
    const int count =
        ::epoll_wait(epoll_.get(), events_.data(), static_cast<int>(events_.size()), timeout);
    if (count < 0 && errno != EINTR) {
        throw_cannot_wait(errno);
    }
    for (int at = 0; at < count; ++at) {
        if (!report(events_[at])) {
            start_anew();
            break;
        }
    }
    for (const int fd : always_ready_) {
        for (const std::uint32_t id : watched_[fd].registrations) {
            report(id, registrations_[id].mask.readable, registrations_[id].mask.writable);
        }
    }
    return ready_;
}

/// @return false when there is no such registration any more
bool Poller::report(const epoll_event& event)
{
    constexpr std::uint64_t kLow = UINT32_MAX;
    const Watched& watched = watched_[event.data.u64 & kLow];
    if (watched.generation != event.data.u64 >> 32U) {
        return false;
    }
    const bool is_broken = (event.events & EPOLLERR) != 0;
    const bool has_ended = (event.events & (EPOLLERR | EPOLLHUP)) != 0;
    for (const std::uint32_t id : watched.registrations) {
        const FDEvent::EventMask mask = registrations_[id].mask;
        const bool is_waiting = mask.readable || mask.writable;
        report(id, (mask.readable && (event.events & EPOLLIN) != 0) || (is_waiting && has_ended),
               (mask.writable && (event.events & EPOLLOUT) != 0) || (is_waiting && is_broken));
    }
    return true;
}

void Poller::report(std::uint32_t id, bool readable, bool writable)
{
    if (readable || writable) {
        ready_.push_back({registrations_[id].tag, readable, writable});
    }
}

/// A file was reported whose descriptor was closed, but that lives on in another descriptor,
/// perhaps of another process. There is no way to take it out of the set, so the set is replaced.
void Poller::start_anew()
{
    Descriptor fresh(::epoll_create1(EPOLL_CLOEXEC), kNoSet);
    epoll_.swap(fresh);
    int fd = 0;
    for (Watched& watched : watched_) {
        if (std::exchange(watched.generation, 0) != 0) {
            apply(fd);
        }
        ++fd;
    }
}

std::uint32_t Poller::id_of(const FDEvent& event)
{
    return event.get_callback().target<Report>()->id();
}

void Poller::update_fd(FDEvent& event, int new_fd)
{
    const std::uint32_t id = id_of(event);
    const int old_fd = registrations_[id].fd;
    detach(id);
    attach(id, new_fd);
    if (const int error = apply(new_fd)) {
        detach(id);
        attach(id, old_fd);
        throw_cannot_watch(error, new_fd);
    }
    if (old_fd != new_fd) {
        apply(old_fd);
    }
}

void Poller::update_mask(FDEvent& event, FDEvent::EventMask new_mask)
{
    Registration& registration = registrations_[id_of(event)];
    const FDEvent::EventMask before = std::exchange(registration.mask, new_mask);
    if (const int error = apply(registration.fd)) {
        registration.mask = before;
        throw_cannot_watch(error, registration.fd);
    }
}

void Poller::remove(FDEvent& event)
{
    if (event.get_fd() < 0) {
        return;  // moved from
    }
    const std::uint32_t id = id_of(event);
    const int fd = registrations_[id].fd;
    if (fd >= 0) {
        detach(id);
        apply(fd);
    }
    free_ids_.push_back(id);
}

}  // namespace Quorval::runtime
