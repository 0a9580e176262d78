// Which descriptors are ready.
#pragma once

#include <quorval/fdevent.h>
#include "loop/descriptor.h"

#include <sys/epoll.h>

#include <cstdint>
#include <memory>
#include <vector>

namespace Quorval::runtime {

/// Tags from here on are those of the loop and of whoever owns it; ports have lower ones.
constexpr std::uint32_t kFirstReservedTag = UINT32_MAX - 15;

/// Readiness of a registration. A hang-up counts as readable, an error as both.
struct Ready {
    std::uint32_t tag;
    bool readable;
    bool writable;
};

/// A set of registrations on descriptors. Several may be on one descriptor; a file that cannot be
/// waited for, such as a regular one, is always ready. A descriptor may be closed before its
/// registration ends. Must outlive its registrations.
class Poller final : public FDEvent::IFDEventUpdater {
public:
    Poller();
    Poller(const Poller&) = delete;
    Poller& operator=(const Poller&) = delete;

    /// Registers a descriptor, until what is returned is destroyed.
    /// @param tag  comes back with the readiness
    /// @throws std::system_error  the descriptor cannot be watched
    std::unique_ptr<FDEvent> add(int fd, FDEvent::EventMask mask, std::uint32_t tag);

    /// All that is ready, at once; valid until the next call.
    /// @param may_wait  whether to wait until something is ready, or a signal arrives
    /// @throws std::system_error  somebody closed the set
    const std::vector<Ready>& wait(bool may_wait);

    void update_fd(FDEvent& event, int new_fd) override;
    void update_mask(FDEvent& event, FDEvent::EventMask new_mask) override;
    void remove(FDEvent& event) override;

private:
    struct Registration {
        int fd = -1;
        FDEvent::EventMask mask{false, false};
        std::uint32_t tag = 0;
    };
    struct Watched {
        std::vector<std::uint32_t> registrations;
        std::uint32_t generation = 0;  // of the latest attempt to enter it; 0: it was left
        bool is_always_ready = false;
    };
    class Report;

    static std::uint32_t id_of(const FDEvent& event);
    std::uint32_t take_id();
    void attach(std::uint32_t id, int fd);
    void detach(std::uint32_t id);
    int apply(int fd);
    int enter(int fd, std::uint32_t events);
    void leave(int fd);
    int control(int operation, int fd, std::uint32_t events);
    std::uint32_t events_of(const Watched& watched) const;
    bool report(const epoll_event& event);
    void report(std::uint32_t id, bool readable, bool writable);
    void start_anew();

    Descriptor epoll_;
    std::vector<Registration> registrations_;  // by id
    std::vector<std::uint32_t> free_ids_;
    std::vector<Watched> watched_;  // by descriptor
    std::vector<int> always_ready_;
    std::uint32_t generations_ = 0;
    std::vector<epoll_event> events_ = std::vector<epoll_event>(1);  // never without room
    std::vector<Ready> ready_;
};

}  // namespace Quorval::runtime
