#include "run/service_notice.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

// What sd-daemon.h has for these would load all of its library, which takes longer than all the
// rest of a small graph.

namespace Quorval::runtime {

namespace {

std::string_view variable(const char* name)
{
    const char* value = std::getenv(name);  // NOLINT(concurrency-mt-unsafe): nobody sets any
    return value != nullptr ? value : "";
}

/// Zero for what is no number.
std::uint64_t to_number(std::string_view text)
{
    std::uint64_t number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    return error == std::errc() && end == text.data() + text.size() ? number : 0;
}

/// Half of the time after which the manager takes the process for dead; zero where it does not.
std::chrono::nanoseconds watchdog_interval()
{
    const std::string_view process = variable("WATCHDOG_PID");
    if (!process.empty() && to_number(process) != static_cast<std::uint64_t>(::getpid())) {
        return std::chrono::nanoseconds(0);
    }
    constexpr std::uint64_t kNever = 1'000'000'000'000'000;  // 31 years
    const std::uint64_t time = to_number(variable("WATCHDOG_USEC"));
    return std::chrono::microseconds(time < kNever ? time / 2 : 0);
}

/// Nothing can be done about what is not told.
void tell(const std::string& state)
{
    const std::string_view path = variable("NOTIFY_SOCKET");
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    if (path.size() < 2 || path.size() >= sizeof address.sun_path) {
        return;
    }
    path.copy(&address.sun_path[0], path.size());
    if (path.front() == '@') {
        address.sun_path[0] = '\0';  // it is no file, and has no zero at its end
    }
    const std::size_t size =
        offsetof(sockaddr_un, sun_path) + path.size() + (path.front() == '@' ? 0 : 1);
    const int fd = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        return;
    }
    ssize_t sent = -1;
    do {
        sent = ::sendto(fd, state.data(), state.size(), MSG_NOSIGNAL,
                        reinterpret_cast<const sockaddr*>(&address), static_cast<socklen_t>(size));
    } while (sent < 0 && errno == EINTR);
    ::close(fd);
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
