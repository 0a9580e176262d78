#include "command/notify_socket.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstddef>
#include <cstring>
#include <system_error>
#include <utility>

namespace quorval_test {

NotifySocket::NotifySocket(const std::string& path)
    : fd_(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0))
{
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path);
    const std::size_t size = offsetof(sockaddr_un, sun_path) + path.size();
    if (fd_ < 0 || ::bind(fd_, reinterpret_cast<const sockaddr*>(&address),
                          static_cast<socklen_t>(size)) != 0) {
        throw std::system_error(errno, std::generic_category(), "bind");
    }
}

NotifySocket::~NotifySocket()
{
    ::close(fd_);
}

std::string NotifySocket::take_present() const
{
    return receive(MSG_DONTWAIT);
}

std::vector<std::string> NotifySocket::take_all_present() const
{
    std::vector<std::string> texts;
    for (std::string text = take_present(); !text.empty(); text = take_present()) {
        texts.push_back(std::move(text));
    }
    return texts;
}

std::string NotifySocket::receive(int flags) const
{
    std::array<char, 4096> text{};
    alignas(cmsghdr) std::array<char, CMSG_SPACE(sizeof(int))> control{};
    iovec part = {text.data(), text.size()};
    msghdr message{};
    message.msg_iov = &part;
    message.msg_iovlen = 1;
    message.msg_control = control.data();
    message.msg_controllen = control.size();
    ssize_t size = ::recvmsg(fd_, &message, flags | MSG_CMSG_CLOEXEC);
    if (const cmsghdr* const rights = CMSG_FIRSTHDR(&message); size >= 0 && rights != nullptr) {
        int file = -1;
        std::memcpy(&file, CMSG_DATA(rights), sizeof file);
        size = ::pread(file, text.data(), text.size(), 0);
        ::close(file);
    }
    return {text.data(), static_cast<std::size_t>(std::max<ssize_t>(size, 0))};
}

}  // namespace quorval_test
