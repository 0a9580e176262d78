#include "loop/waker.h"

#include <sys/eventfd.h>

#include <cerrno>
#include <cstdint>

namespace Quorval::runtime {

Waker::Waker()
    : descriptor_(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK), "cannot make an event descriptor")
{
}

void Waker::wake() noexcept
{
    if (state_.exchange(Woken) != Asleep) {
        return;
    }
    const int error = errno;
    const std::uint64_t one = 1;
    // Can fail for a full counter alone, and then the descriptor is readable anyway.
    [[maybe_unused]] const ssize_t count = ::write(fd(), &one, sizeof one);
    errno = error;
}

bool Waker::begin_sleep() noexcept
{
    int expected = Awake;
    return state_.compare_exchange_strong(expected, Asleep);
}

void Waker::end_sleep() noexcept
{
    state_ = Awake;
}

void Waker::drain() const noexcept
{
    std::uint64_t count = 0;
    [[maybe_unused]] const ssize_t size = ::read(fd(), &count, sizeof count);
}

}  // namespace Quorval::runtime
