// Counts what operator new gives out, and lets it fail where a test wants that. Part of each
// program that has allocations.cpp among its sources: its operators replace those of the standard
// library, for the library under test too.
#pragma once

#include <cstddef>

namespace quorval_test {

/// The blocks that operator new has given out and not got back, in the whole process.
long live_allocations();

/// The bytes of these blocks, and the most that there were since the last restart_peak().
std::size_t live_bytes();
std::size_t peak_bytes();
void restart_peak();

/// The calls of operator new, of whatever form, on this thread so far.
std::size_t count_of_allocations();

/// The calls of operator new that `action` makes.
template <class Action>
std::size_t allocations_of(Action&& action)
{
    const std::size_t before = count_of_allocations();
    action();
    return count_of_allocations() - before;
}

/// The most bytes that `action` held at once, beyond what was held before.
template <class Action>
std::size_t peak_of(Action&& action)
{
    const std::size_t before = live_bytes();
    restart_peak();
    action();
    return peak_bytes() - before;
}

/// Lets the allocations of this thread fail that would take more than so many bytes beyond what
/// the process holds now, for as long as it lives.
class AllocationLimit {
public:
    explicit AllocationLimit(std::size_t more);
    AllocationLimit(const AllocationLimit&) = delete;
    AllocationLimit& operator=(const AllocationLimit&) = delete;
    ~AllocationLimit();
};

/// Lets an allocation fail, for as long as it lives and for the thread that made it. There is one
/// at a time in a thread.
class FailingAllocation {
public:
    enum class Mode {
        Once,        ///< one allocation fails, the next one succeeds
        FromThenOn,  ///< memory has run out: all that follow fail too
    };

    /// @param nth  which one fails, counted from 1
    FailingAllocation(std::size_t nth, Mode mode);
    FailingAllocation(const FailingAllocation&) = delete;
    FailingAllocation& operator=(const FailingAllocation&) = delete;
    ~FailingAllocation();

    /// Whether the allocation was asked for, and so has failed.
    static bool has_failed();
};

}  // namespace quorval_test
