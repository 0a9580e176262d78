#include "broker.h"

#include "harness.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>
#include <fstream>
#include <stdexcept>

namespace quorval_bench {

namespace {

sockaddr_in loopback(int port)
{
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<std::uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return address;
}

std::string write_settings(int port)
{
    const std::string path = scratch_directory() + "mosquitto.conf";
    std::ofstream(path) << "listener " << port
                        << " 127.0.0.1\n"
                           "allow_anonymous true\n"
                           "persistence false\n"
                           "max_queued_messages 0\n"
                           "set_tcp_nodelay true\n"
                           "log_dest none\n"
                        << (::geteuid() == 0 ? "user root\n" : "");
    return path;
}

}  // namespace

int find_port()
{
    const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address = loopback(0);
    socklen_t size = sizeof address;
    auto* const plain = reinterpret_cast<sockaddr*>(&address);
    const bool is_bound = ::bind(fd, plain, size) == 0 && ::getsockname(fd, plain, &size) == 0;
    ::close(fd);
    if (!is_bound) {
        throw std::runtime_error("no port");
    }
    return ntohs(address.sin_port);
}

Broker::Broker()
{
    const std::string settings = write_settings(port_);
    process_ = std::make_unique<Child>([&settings] {
        ::execl("/usr/sbin/mosquitto", "mosquitto", "-c", settings.c_str(), nullptr);
    });
    constexpr int kAttempts = 30'000;
    for (int attempt = 0; attempt < kAttempts; ++attempt) {
        if (is_serving()) {
            return;
        }
        ::usleep(1000);
    }
    throw std::runtime_error("mosquitto does not start");
}

bool Broker::is_serving() const
{
    const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const sockaddr_in address = loopback(port_);
    const bool is_connected =
        ::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
    ::close(fd);
    return is_connected;
}

}  // namespace quorval_bench
