#include "runtime/link/server.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <stdexcept>

namespace quorval_test {

namespace {

constexpr int kPatienceMilliseconds = 60'000;

void wait_for(int fd, short events)
{
    pollfd one = {fd, events, 0};
    int result = 0;
    do {
        result = ::poll(&one, 1, kPatienceMilliseconds);
    } while (result < 0 && errno == EINTR);
    if (result <= 0) {
        throw std::runtime_error("the client does nothing");
    }
}

std::string number_of_two_bytes(std::size_t number)
{
    return {static_cast<char>(number >> 8U), static_cast<char>(number & 0xFFU)};
}

std::string user_property(const std::string& name, const std::string& value)
{
    return "\x26" + Server::text(name) + Server::text(value);
}

}  // namespace

Server::Server() : listener_(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0))
{
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof address;
    auto* const plain = reinterpret_cast<sockaddr*>(&address);
    if (::bind(listener_, plain, size) != 0 || ::listen(listener_, 1) != 0 ||
        ::getsockname(listener_, plain, &size) != 0) {
        ::close(listener_);
        throw std::runtime_error("there is no port for a server");
    }
    port_ = ntohs(address.sin_port);
}

Server::~Server()
{
    drop();
    ::close(listener_);
}

std::string Server::url(const std::string& scheme) const
{
    return scheme + "://127.0.0.1:" + std::to_string(port_);
}

std::string Server::link(const std::string& scheme) const
{
    return "link.broker = \"" + url(scheme) + "\"\n";
}

void Server::accept()
{
    drop();
    wait_for(listener_, POLLIN);
    client_ = ::accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
    if (client_ < 0) {
        throw std::runtime_error("there is no client");
    }
}

void Server::drop()
{
    if (client_ >= 0) {
        ::close(client_);
        client_ = -1;
    }
}

bool Server::send(const std::string& bytes)
{
    for (std::size_t sent = 0; sent < bytes.size();) {
        wait_for(client_, POLLOUT);
        const ssize_t count =
            ::send(client_, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
        if (count < 0 && errno != EAGAIN && errno != EINTR) {
            return false;
        }
        sent += count < 0 ? 0 : static_cast<std::size_t>(count);
    }
    return true;
}

std::string Server::read_bytes(std::size_t count)
{
    std::string bytes(count, '\0');
    for (std::size_t have = 0; have < count;) {
        wait_for(client_, POLLIN);
        const ssize_t more = ::recv(client_, bytes.data() + have, count - have, 0);
        if (more == 0 || (more < 0 && errno != EAGAIN && errno != EINTR)) {
            throw std::runtime_error("the client has ended the connection");
        }
        have += more < 0 ? 0 : static_cast<std::size_t>(more);
    }
    return bytes;
}

std::string Server::read(unsigned kind)
{
    while (true) {
        first_ = static_cast<unsigned char>(read_bytes(1)[0]);
        std::size_t length = 0;
        unsigned byte = 128;
        for (unsigned shift = 0; byte >= 128; shift += 7) {
            byte = static_cast<unsigned char>(read_bytes(1)[0]);
            length += std::size_t{byte % 128} << shift;
        }
        const std::string rest = read_bytes(length);
        if (first_ >> 4U == kind) {
            return rest;
        }
    }
}

void Server::answer_connect(const std::string& answer)
{
    accept();
    read(kConnect);
    send(packet(0x20, answer));
}

void Server::refuse()
{
    answer_connect({'\0', '\x87', '\0'});
}

void Server::welcome()
{
    answer_connect(std::string(3, '\0'));
}

void Server::answer_subscriptions(int count, char reason)
{
    for (; count > 0; --count) {
        send(answer_to(read(kSubscribe), reason));
    }
}

void Server::serve(int count)
{
    welcome();
    answer_subscriptions(count);
}

std::string Server::answer_to(const std::string& subscription, char reason)
{
    return packet(0x90, subscription.substr(0, 2) + '\0' + reason);
}

std::string Server::length(std::size_t length)
{
    std::string bytes;
    do {
        const std::size_t rest = length / 128;
        bytes += static_cast<char>(length % 128 + (rest > 0 ? 128 : 0));
        length = rest;
    } while (length > 0);
    return bytes;
}

std::string Server::text(const std::string& text)
{
    return number_of_two_bytes(text.size()) + text;
}

std::string Server::packet(unsigned first, const std::string& rest)
{
    return static_cast<char>(first) + length(rest.size()) + rest;
}

std::string Server::message(const std::string& topic, const std::string& type, std::uint64_t start,
                            std::uint64_t number, const std::string& value, int quality)
{
    const std::string properties = user_property("type", type) +
                                   user_property("start", std::to_string(start)) +
                                   user_property("number", std::to_string(number));
    return packet(quality == 0 ? 0x30 : 0x32, text(topic) +
                                                  (quality == 0 ? "" : number_of_two_bytes(1)) +
                                                  length(properties.size()) + properties + value);
}

}  // namespace quorval_test
