// Signals that end or change a run.
#pragma once

#include "description/file.h"
#include "loop/waker.h"

#include <array>
#include <csignal>
#include <memory>

namespace Quorval::runtime {

/// While it lives, SIGINT, SIGTERM and SIGHUP are noted and wake a loop, and SIGPIPE is ignored.
/// With the first SIGINT or SIGTERM both get their default action, so that a second one ends a
/// process that hangs. There is one at a time in a process.
class Signals final : public IPatience {
public:
    /// @throws std::logic_error  there is one already: "another graph takes the signals"
    explicit Signals(std::shared_ptr<Waker> waker);
    Signals(const Signals&) = delete;
    Signals& operator=(const Signals&) = delete;
    /// Puts the former actions back.
    ~Signals();

    /// Whether SIGINT or SIGTERM came.
    bool has_stop() const;
    /// Whether SIGHUP came since the last call.
    bool take_reload();

    /// Until SIGINT or SIGTERM came.
    bool wait_readable(int fd) override;

private:
    static constexpr std::array<int, 4> kSignals = {SIGINT, SIGTERM, SIGHUP, SIGPIPE};

    std::shared_ptr<Waker> waker_;
    std::array<struct sigaction, kSignals.size()> before_{};
};

}  // namespace Quorval::runtime
