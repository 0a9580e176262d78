#include "description/file.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <system_error>

namespace Quorval::runtime {

namespace {

std::string text_of(int number)
{
    return std::generic_category().message(number);
}

}  // namespace

bool is_refused_for_root(const struct stat& status)
{
    const bool group_may_write = (status.st_mode & S_IWGRP) != 0 && status.st_gid != 0;
    return ::geteuid() == 0 && (group_may_write || (status.st_mode & S_IWOTH) != 0);
}

std::string text_of_refusal(const std::string& path)
{
    return "'" + path + "' is writable by others: refused for root";
}

GraphFile::GraphFile(const std::string& path)
{
    // Looked at first: to open a device may already do something.
    struct stat status {};
    if (path.find('\0') != std::string::npos) {
        error_ = text_of(ENOENT);  // the system would stop at the zero
    } else if (::stat(path.c_str(), &status) != 0) {
        error_ = text_of(errno);
    } else if (accept(status)) {
        fd_ = open(path);
    }
}

GraphFile::~GraphFile()
{
    if (fd_ >= 0) {
        ::close(fd_);
    }
}

int GraphFile::open(const std::string& path)
{
    const int fd = ::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
    struct stat status {};
    if (fd < 0 || ::fstat(fd, &status) != 0) {
        error_ = text_of(errno);
    } else {
        accept(status);
    }
    return fd;
}

bool GraphFile::accept(const struct stat& status)
{
    if (!S_ISREG(status.st_mode) && !S_ISFIFO(status.st_mode)) {
        error_ = "not a regular file";
        return false;
    }
    identity_ = {status.st_dev, status.st_ino};
    is_refused_ = is_refused_for_root(status);
    return true;
}

void GraphFile::wait_for_writer(IPatience* patience) const
{
    if (patience == nullptr) {
        pollfd waited{fd_, POLLIN, 0};
        ::poll(&waited, 1, -1);
    } else if (!patience->wait_readable(fd_)) {
        throw Interrupted();
    }
}

std::string GraphFile::read(IPatience* patience)
{
    constexpr std::size_t kStep = std::size_t{16} * 1024;
    std::string text;
    std::size_t size = 0;
    while (true) {
        if (size + kStep > text.size()) {
            text.resize(2 * size + kStep);
        }
        const ssize_t count = ::read(fd_, text.data() + size, text.size() - size);
        if (count < 0 && errno == EAGAIN) {
            wait_for_writer(patience);
            continue;
        }
        if (count < 0 && errno == EINTR) {
            continue;
        }
        if (count < 0) {
            error_ = text_of(errno);
        }
        if (count <= 0) {
            text.resize(size);
            return text;
        }
        size += static_cast<std::size_t>(count);
    }
}

}  // namespace Quorval::runtime
