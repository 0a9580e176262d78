// A broker of a test, on the loopback address.
#pragma once

#include "support/process.h"

#include <memory>
#include <string>

namespace quorval_test {

/// Runs mosquitto on a port of its own. What it keeps for sessions is in its directory, and comes
/// back with restart().
class Broker {
public:
    /// @param directory  for its files; of the test
    /// @param settings   lines of mosquitto.conf that follow those that each broker has
    explicit Broker(std::string directory, std::string settings = "allow_anonymous true\n");

    int port() const { return port_; }

    /// `mqtt://...`
    std::string url(const std::string& scheme = "mqtt") const;
    /// `link.broker = "mqtt://..."`, a line of a graph file.
    std::string link(const std::string& scheme = "mqtt") const;

    /// Ends it in order.
    void stop();
    /// Has it write down what it keeps for sessions.
    void save();
    /// Ends it by SIGKILL: what it did not write down is gone.
    void kill();
    /// Starts it again, on its port.
    void restart();
    /// Likewise, with other settings.
    void restart(const std::string& settings);

    /// Has somebody publish at it who is no machine.
    /// @throws std::runtime_error  libmosquitto failed
    void publish(const std::string& topic, const std::string& payload) const;

private:
    bool start();
    bool is_serving() const;

    std::string directory_;
    std::string settings_;
    int port_ = 0;
    std::unique_ptr<Process> process_;
};

}  // namespace quorval_test
