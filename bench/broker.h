// The MQTT broker that all sides of a case speak with.
#pragma once

#include "processes.h"

#include <memory>
#include <string>

namespace quorval_bench {

/// A port of the loopback address that was free a moment ago.
int find_port();

/// Runs mosquitto on a port of its own on the loopback address, with everything in memory and no
/// limit on what waits, until it is destroyed.
class Broker {
public:
    /// @throws std::runtime_error  it does not start
    Broker();

    int port() const { return port_; }
    pid_t process() const { return process_->id(); }

private:
    bool is_serving() const;

    int port_ = find_port();
    std::unique_ptr<Child> process_;
};

}  // namespace quorval_bench
