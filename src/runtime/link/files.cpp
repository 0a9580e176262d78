#include "link/files.h"

#include "loop/descriptor.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <stdexcept>
#include <system_error>

namespace Quorval::runtime {

namespace {

constexpr std::size_t kMostBytes = 65536;  // of a password

[[noreturn]] void throw_unusable(const std::string& file, const std::string& why)
{
    throw std::runtime_error("cannot read '" + file + "': " + why);
}

[[noreturn]] void throw_error(const std::string& file, int error)
{
    throw_unusable(file, std::generic_category().message(error));
}

void expect_regular(const std::string& file, int result, const struct stat& status)
{
    if (result != 0) {
        throw_error(file, errno);
    }
    if (!S_ISREG(status.st_mode)) {
        throw_unusable(file, "not a regular file");
    }
}

int open_regular(const std::string& file)
{
    // Looked at first: to open a device may already do something.
    struct stat status {};
    expect_regular(file, ::stat(file.c_str(), &status), status);
    const int fd = ::open(file.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
    if (fd < 0) {
        throw_error(file, errno);
    }
    return fd;
}

/// An open file that is a regular one.
class RegularFile {
public:
    explicit RegularFile(const std::string& file) : fd_(open_regular(file), "cannot open")
    {
        struct stat status {};
        expect_regular(file, ::fstat(fd_.get(), &status), status);
    }

    int fd() const { return fd_.get(); }

private:
    Descriptor fd_;
};

/// At most one byte more than there may be.
std::string read_bytes(const std::string& file)
{
    const RegularFile open(file);
    std::string bytes(kMostBytes + 1, '\0');
    std::size_t size = 0;
    while (size < bytes.size()) {
        const ssize_t count = ::read(open.fd(), bytes.data() + size, bytes.size() - size);
        if (count < 0 && errno == EINTR) {
            continue;
        }
        if (count < 0) {
            throw_error(file, errno);
        }
        if (count == 0) {
            break;
        }
        size += static_cast<std::size_t>(count);
    }
    bytes.resize(size);
    return bytes;
}

}  // namespace

void expect_usable(const std::string& file)
{
    const RegularFile open(file);
}

std::string read_password(const std::string& file)
{
    std::string password = read_bytes(file);
    if (password.empty()) {
        throw_unusable(file, "it is empty");
    }
    if (password.size() > kMostBytes) {
        throw_unusable(file, "more than " + std::to_string(kMostBytes) + " bytes");
    }
    password.erase(std::min(password.find('\n'), password.size()));
    if (!password.empty() && password.back() == '\r') {
        password.pop_back();
    }
    return password;
}

}  // namespace Quorval::runtime
