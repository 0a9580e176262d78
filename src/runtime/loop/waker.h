// Wakes the thread that runs a graph.
#pragma once

#include "loop/descriptor.h"

#include <atomic>

namespace Quorval::runtime {

/// An event descriptor that is written only when somebody sleeps, and then once. Does not wait.
class Waker {
public:
    Waker();

    /// To wait for, together with what else there is.
    int fd() const { return descriptor_.get(); }

    /// Ends the present or the next sleep. What the caller wrote before is seen by the one who
    /// wakes. From any thread, and from a signal handler.
    void wake() noexcept;

    /// Before waiting.
    /// @return false when wake() was called since the last sleep: do not wait
    bool begin_sleep() noexcept;

    /// Before a look at what there is to do.
    void end_sleep() noexcept;

    /// After the descriptor was readable.
    void drain() const noexcept;

private:
    enum State : int { Awake, Asleep, Woken };

    Descriptor descriptor_;
    std::atomic<int> state_{Awake};
};

}  // namespace Quorval::runtime
