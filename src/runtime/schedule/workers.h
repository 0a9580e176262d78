// Threads that do work side by side.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>

namespace Quorval::runtime {

/// Threads for one graph. One thread uses it, and works along.
class Workers {
public:
    /// Whether this build has more threads than the one that calls.
    static bool are_there();

    /// The processors of the process: more threads than that get in each other's way. Loads the
    /// library that has the threads.
    /// @throws std::runtime_error  it cannot be loaded: "<name> cannot be loaded: <text>",
    ///     or is another one: "<name> has no <function>"
    static unsigned processors();

    /// How many of so many threads the system lets the process have now, the one that calls among
    /// them: makes the others and ends them again. oneTBB ends the process where it is refused one.
    static unsigned count_available(unsigned threads);

    /// @param threads  at most so many work at a time, the one that calls among them
    explicit Workers(unsigned threads);
    Workers(const Workers&) = delete;
    Workers& operator=(const Workers&) = delete;
    ~Workers();

    /// Calls `work` with 0 to `count` - 1, on any threads and in any order, and `own` on the
    /// calling one, and waits for all of it. When one of them throws, what was not begun is left
    /// out, and the exception comes out here.
    void run(std::size_t count, const std::function<void(std::size_t)>& work,
             const std::function<void()>& own);

    /// The present thread of those that work: a number below that of the threads.
    static std::uint32_t present();

private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

}  // namespace Quorval::runtime
