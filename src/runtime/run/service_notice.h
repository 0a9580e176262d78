// What the manager of services is told.
#pragma once

#include <chrono>
#include <cstddef>
#include <optional>

namespace Quorval::runtime {

/// Tells the manager that started the process how a graph is getting on: sd_notify(3). Without one,
/// or where it is switched off, it does nothing. One thread.
class ServiceNotice {
public:
    using Time = std::chrono::nanoseconds;

    /// @param is_on   whether to tell anything
    /// @param blocks  of the graph
    ServiceNotice(bool is_on, std::size_t blocks);

    /// The blocks have started; also after a reload.
    void tell_ready();
    void tell_reloading(Time now) const;
    void tell_stopping() const;

    /// When keep_alive() is to be called next; nothing where nobody waits for it.
    std::optional<Time> next_time() const { return next_; }

    /// Tells that the loop is alive, when it is time for that.
    void keep_alive(Time now);

private:
    bool is_on_;
    std::size_t blocks_;
    Time interval_{};  // zero: nobody waits for a sign of life
    std::optional<Time> next_;
};

}  // namespace Quorval::runtime
