#include "loop/descriptor_ports.h"

#include <quorval/log.h>

#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <string>
#include <string_view>

namespace Quorval::runtime {

namespace {

/// An EventPort may have been made on another descriptor that counts, such as a timer, to which
/// nothing can be given back.
bool is_event_descriptor(int fd)
{
    std::array<char, 64> target = {};
    const std::string link = "/proc/self/fd/" + std::to_string(fd);
    const ssize_t length = ::readlink(link.c_str(), target.data(), target.size());
    constexpr std::string_view kEvent = "anon_inode:[eventfd]";
    return length > 0 &&
           std::string_view(target.data(), static_cast<std::size_t>(length)) == kEvent;
}

bool is_regular_file(int fd)
{
    struct stat status = {};
    return ::fstat(fd, &status) == 0 && S_ISREG(status.st_mode);
}

bool is_readable(int fd)
{
    pollfd one = {fd, POLLIN, 0};
    return ::poll(&one, 1, 0) > 0 && (one.revents & POLLIN) != 0;
}

/// Reads the count of an event descriptor, which makes it 0. Never waits.
std::uint64_t take_count(int fd)
{
    std::uint64_t count = 0;
    return is_readable(fd) && ::read(fd, &count, sizeof count) == sizeof count ? count : 0;
}

void put_one_back(int fd)
{
    const std::uint64_t one = 1;
    [[maybe_unused]] const ssize_t size = ::write(fd, &one, sizeof one);
}

/// The word in front of the table of virtual functions, where both compilers keep it. A cast reads
/// it whether it is there or not.
bool has_type_information(const FdPort& port)
{
    const void* const* table = nullptr;
    std::memcpy(&table, static_cast<const void*>(&port), sizeof table);
    return *(table - 1) != nullptr;
}

}  // namespace

EventPort* as_event_port(FdPort& port)
{
    return has_type_information(port) ? dynamic_cast<EventPort*>(&port) : nullptr;
}

DescriptorPorts::DescriptorPorts(const Network& network)
    : network_(network), ranges_(network.nodes.size())
{
}

bool DescriptorPorts::collect(std::uint32_t block)
{
    std::vector<FdPort*> ports = network_.nodes[block].block->get_fdports();
    std::sort(ports.begin(), ports.end(),
              [](FdPort* a, FdPort* b) { return a->get_name() < b->get_name(); });
    ranges_[block].first = static_cast<std::uint32_t>(entries_.size());
    for (FdPort* port : ports) {
        const bool is_event_port = as_event_port(*port) != nullptr;
        entries_.push_back({port, block, is_event_port,
                            is_event_port && is_event_descriptor(port->get_fd()),
                            is_regular_file(port->get_fd())});
    }
    ranges_[block].end = static_cast<std::uint32_t>(entries_.size());
    return !ports.empty();
}

void DescriptorPorts::watch(std::uint32_t block, Poller& poller)
{
    for (std::uint32_t at = ranges_[block].first; at < ranges_[block].end; ++at) {
        FdPort& port = *entries_[at].port;
        port.set_event(poller.add(port.get_fd(), port.get_eventmask(), at));
    }
}

void DescriptorPorts::unwatch(std::uint32_t block)
{
    for (std::uint32_t at = ranges_[block].first; at < ranges_[block].end; ++at) {
        entries_[at].port->set_event(nullptr);
    }
}

std::uint32_t DescriptorPorts::make_ready(const Ready& ready)
{
    Entry& entry = entries_[ready.tag];
    entry.port->trigger(ready.readable, ready.writable);
    // The wave that this leads to is the next one.
    entry.waves_in_a_row = entry.last_wave == wave_ ? entry.waves_in_a_row + 1 : 1;
    entry.last_wave = wave_ + 1;
    return entry.block;
}

bool DescriptorPorts::is_triggered(std::uint32_t block)
{
    return std::any_of(entries_.begin() + ranges_[block].first,
                       entries_.begin() + ranges_[block].end,
                       [](const Entry& entry) { return entry.port->is_triggered(); });
}

/// What was fired up to now is met by the run that begins. One count stays, for a block that
/// resets its port itself and would wait for it.
void DescriptorPorts::before_run(std::uint32_t block)
{
    for (std::uint32_t at = ranges_[block].first; at < ranges_[block].end; ++at) {
        Entry& entry = entries_[at];
        entry.is_counted =
            entry.can_count && entry.port->is_triggered() && take_count(entry.port->get_fd()) > 0;
        if (entry.is_counted) {
            put_one_back(entry.port->get_fd());
        }
    }
}

void DescriptorPorts::after_run(std::uint32_t block)
{
    constexpr int kLooked = 900;
    for (std::uint32_t at = ranges_[block].first; at < ranges_[block].end; ++at) {
        Entry& entry = entries_[at];
        if (entry.waves_in_a_row > kLooked && entry.last_wave == wave_) {
            look_for_what_is_left(entry);
        }
    }
}

/// A port that was readable in so many waves in a row may have been drained in each of them. A
/// look right behind the run tells; it costs a system call, so only the last hundred waves have
/// one.
void DescriptorPorts::look_for_what_is_left(Entry& entry)
{
    constexpr int kReported = 1000;
    if (entry.was_reported || entry.is_file || entry.is_event_port ||
        !is_readable(entry.port->get_fd())) {
        entry.waves_in_a_row = 0;
        return;
    }
    if (entry.waves_in_a_row >= kReported) {
        entry.was_reported = true;
        logger(LOGLEVEL_INFO,
               "descriptor port '%s' was still readable after its block's run in %d waves in a "
               "row: the block may not drain it",
               entry.port->get_name().c_str(), kReported);
    }
}

void DescriptorPorts::reset(std::uint32_t block)
{
    for (std::uint32_t at = ranges_[block].first; at < ranges_[block].end; ++at) {
        Entry& entry = entries_[at];
        if (entry.is_event_port) {
            reset_event_port(entry);
        } else {
            entry.port->reset(false);
        }
    }
}

/// Takes away what the run has met and leaves what came since it began. A port that its block has
/// reset is left alone.
void DescriptorPorts::reset_event_port(Entry& entry)
{
    FdPort& port = *entry.port;
    if (!port.is_triggered()) {
        entry.is_counted = false;
        return;
    }
    if (!entry.can_count) {
        take_count(port.get_fd());
    } else if (entry.is_counted && take_count(port.get_fd()) > 1) {
        put_one_back(port.get_fd());
    }
    entry.is_counted = false;
    // The reset of an event port would read, and so wait.
    port.Port::reset(true);
}

}  // namespace Quorval::runtime
