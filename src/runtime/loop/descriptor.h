// An open file that is closed with its owner.
#pragma once

#include <unistd.h>

#include <cerrno>
#include <system_error>

namespace Quorval::runtime {

class Descriptor {
public:
    /// @param fd  the result of the call that opened it
    /// @throws std::system_error  `fd` is negative, with errno and `what`
    Descriptor(int fd, const char* what) : fd_(fd)
    {
        if (fd < 0) {
            throw std::system_error(errno, std::generic_category(), what);
        }
    }
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;
    ~Descriptor() { ::close(fd_); }

    int get() const { return fd_; }

    /// Takes the file of the other one, which gets this one.
    void swap(Descriptor& other) noexcept { std::swap(fd_, other.fd_); }

private:
    int fd_;
};

}  // namespace Quorval::runtime
