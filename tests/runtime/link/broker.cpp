#include "runtime/link/broker.h"

#include "support/support.h"

#include <mosquitto.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <csignal>
#include <cstdint>
#include <memory>
#include <stdexcept>
#include <utility>

namespace quorval_test {

namespace {

sockaddr_in loopback(int port)
{
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<std::uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return address;
}

/// A port that was free a moment ago.
int find_port()
{
    const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address = loopback(0);
    socklen_t size = sizeof address;
    auto* const plain = reinterpret_cast<sockaddr*>(&address);
    const bool is_bound = ::bind(fd, plain, size) == 0 && ::getsockname(fd, plain, &size) == 0;
    ::close(fd);
    if (!is_bound) {
        throw std::runtime_error("there is no port for a broker");
    }
    return ntohs(address.sin_port);
}

}  // namespace

Broker::Broker(std::string directory, std::string settings)
    : directory_(std::move(directory)), settings_(std::move(settings))
{
    constexpr int kAttempts = 20;
    for (int attempt = 0; attempt < kAttempts; ++attempt) {
        port_ = find_port();
        if (start()) {
            return;
        }
    }
    throw std::runtime_error("mosquitto does not start");
}

bool Broker::start()
{
    const std::string file = directory_ + "/mosquitto.conf";
    write_file(file, "listener " + std::to_string(port_) +
                         " 127.0.0.1\n"
                         "persistence true\n"
                         "persistence_location " +
                         directory_ +
                         "/\n"
                         "max_queued_messages 0\n"
                         "log_dest stderr\n"
                         // Nobody reads what it would say of each connection.
                         "log_type information\n" +
                         settings_ + (::geteuid() == 0 ? "user root\n" : ""));
    ProcessOptions options;
    options.command = {"/usr/sbin/mosquitto", "-c", file};
    process_ = std::make_unique<Process>(options);
    return process_->wait_for(" running\n") && is_serving();
}

/// Waits until it hangs up on a client that has. It forgets a signal that comes before.
bool Broker::is_serving() const
{
    const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const sockaddr_in address = loopback(port_);
    char answer = 0;
    const bool is_serving =
        ::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0 &&
        ::shutdown(fd, SHUT_WR) == 0 && ::recv(fd, &answer, 1, 0) >= 0;
    ::close(fd);
    return is_serving;
}

std::string Broker::url(const std::string& scheme) const
{
    return scheme + "://127.0.0.1:" + std::to_string(port_);
}

std::string Broker::link(const std::string& scheme) const
{
    return "link.broker = \"" + url(scheme) + "\"\n";
}

void Broker::stop()
{
    process_->send(SIGTERM);
    process_->wait();
    process_.reset();
}

void Broker::save()
{
    process_->send(SIGUSR1);
    if (!process_->wait_for(": Saving in-memory database to ")) {
        throw std::runtime_error("mosquitto does not save");
    }
}

void Broker::kill()
{
    process_->send(SIGKILL);
    process_->wait();
    process_.reset();
}

void Broker::restart()
{
    if (!start()) {
        throw std::runtime_error("mosquitto does not start again");
    }
}

void Broker::restart(const std::string& settings)
{
    settings_ = settings;
    restart();
}

void Broker::publish(const std::string& topic, const std::string& payload) const
{
    constexpr int kKeepAlive = 60;
    bool is_sent = false;
    ::mosquitto_lib_init();
    const std::unique_ptr<mosquitto, void (*)(mosquitto*)> stranger(
        ::mosquitto_new(nullptr, true, &is_sent), ::mosquitto_destroy);
    ::mosquitto_publish_callback_set(
        stranger.get(), [](mosquitto*, void* sent, int) { *static_cast<bool*>(sent) = true; });
    int result = ::mosquitto_connect(stranger.get(), "127.0.0.1", port_, kKeepAlive);
    if (result == MOSQ_ERR_SUCCESS) {
        result = ::mosquitto_publish(stranger.get(), nullptr, topic.c_str(),
                                     static_cast<int>(payload.size()), payload.data(), 1, false);
    }
    while (result == MOSQ_ERR_SUCCESS && !is_sent) {
        result = ::mosquitto_loop(stranger.get(), -1, 1);
    }
    if (!is_sent) {
        throw std::runtime_error(::mosquitto_strerror(result));
    }
}

}  // namespace quorval_test
