#include <quorval/port.h>

#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <string>
#include <system_error>

namespace Quorval {

namespace {

[[noreturn]] void throw_fire_failed(int error, const std::string& name)
{
    throw std::system_error(error, std::system_category(), "Failed to fire port: " + name);
}

/// The code is the negated result of read(), so always 1, in the generic category, where one would
/// expect errno in that of the system, as fire() has it. Callers match on the code, so it stays.
/// Held by EventPortReset.ReportsTheNegatedResultOfAFailedReadAsCode.
[[noreturn]] void throw_reset_failed(ssize_t result, const std::string& name)
{
    throw std::system_error(static_cast<int>(-result), std::generic_category(),
                            "Failed to reset EventPort " + name);
}

}  // namespace

EventPort::EventPort(const std::string& name, bool auto_reset, int fd)
    : FdPort(name, Datatype("extfd"), fd, FDEvent::EventMask{true, false}, auto_reset)
{
}

EventPort::~EventPort()
{
    if (fd_ > 0) {
        ::close(fd_);
    }
}

void EventPort::reset(bool /*force*/)
{
    if (triggered_) {
        std::uint64_t count = 0;
        const ssize_t result = ::read(fd_, &count, sizeof count);
        if (result < 0) {
            throw_reset_failed(result, get_name());
        }
    }
    Port::reset(true);
}

void EventPort::fire()
{
    const std::uint64_t one = 1;
    if (::write(fd_, &one, sizeof one) < 0) {
        throw_fire_failed(errno, get_name());
    }
}

}  // namespace Quorval
