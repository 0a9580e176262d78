// Running an operation out of memory at each of its allocations in turn.
#pragma once

#include <quorval/config.h>
#include "support/allocations.h"
#include "support/support.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <functional>
#include <ios>
#include <memory>
#include <new>
#include <string>
#include <type_traits>
#include <typeinfo>
#include <utility>
#include <vector>

namespace quorval_test {

using Mode = FailingAllocation::Mode;

constexpr Mode kModes[] = {Mode::Once, Mode::FromThenOn};

inline const char* name_of(Mode mode)
{
    return mode == Mode::Once ? "once" : "from then on";
}

/// No operation of the tests takes as many: one that never succeeds ends here.
constexpr std::size_t kMostAllocations = 5000;

/// Runs `act` with its `nth` allocation failing. Returns whether std::bad_alloc came out, and
/// complains when anything else did, or when the failure was swallowed.
template <class Act>
bool runs_out_of_memory(std::size_t nth, Mode mode, Act&& act)
{
    const char* came_out = nullptr;
    bool has_failed = false;
    bool ran_out = false;
    {
        const FailingAllocation failing(nth, mode);
        try {
            std::forward<Act>(act)();
        } catch (const std::bad_alloc&) {
            ran_out = true;
        } catch (const std::exception& error) {
            came_out = typeid(error).name();
        }
        has_failed = FailingAllocation::has_failed();
    }
    EXPECT_EQ(came_out, nullptr) << came_out << " came out";
    EXPECT_EQ(ran_out, has_failed) << "the failed allocation did not come out as std::bad_alloc";
    return has_failed;
}

/// Calls `run(nth, mode)` for both modes and n = 1, 2, 3, … until it returns that no allocation
/// failed any more. For operations that document something else than those of the next one. None of
/// the runs may lose memory or a descriptor.
/// @return the number of allocations that failed
template <class Run>
std::size_t run_with_each_failure(Run run)
{
    std::size_t failures = 0;
    for (const Mode mode : kModes) {
        for (std::size_t nth = 1;; ++nth) {
            SCOPED_TRACE("allocation " + std::to_string(nth) + " fails, " + name_of(mode));
            const std::vector<int> descriptors = open_descriptors();
            const long live = live_allocations();
            const bool has_failed = run(nth, mode);
            EXPECT_EQ(live_allocations(), live);
            EXPECT_EQ(open_descriptors(), descriptors);
            if (!has_failed) {
                break;
            }
            ++failures;
            if (nth == kMostAllocations || ::testing::Test::HasFailure()) {
                ADD_FAILURE() << "gave up";
                return failures;
            }
        }
    }
    return failures;
}

/// Runs `act` on the object that `prepare` makes, a new one each time, and lets its first, its
/// second, its third allocation fail, until it succeeds. After each failure std::bad_alloc must
/// have come out, `look` must see what it saw before, and the operation must succeed when it is
/// tried again; neither memory nor a descriptor may be lost.
///
/// @param look  describes the object as a text
/// @return the number of allocations that failed
template <class Prepare, class Act, class Look>
std::size_t fail_each_allocation(Prepare prepare, Act act, Look look)
{
    std::string done;
    {
        // Also makes what is made once in a process.
        auto object = prepare();
        act(*object);
        done = look(*object);
    }
    return run_with_each_failure([&](std::size_t nth, Mode mode) {
        auto object = prepare();
        const std::string before = look(*object);
        const bool has_failed = runs_out_of_memory(nth, mode, [&] { act(*object); });
        if (has_failed) {
            EXPECT_EQ(look(*object), before);
            act(*object);
        }
        EXPECT_EQ(look(*object), done);
        return has_failed;
    });
}

/// The same for an operation that changes no object, a constructor for instance.
template <class Act>
std::size_t fail_each_allocation(Act act)
{
    const auto nothing = [] { return std::make_unique<int>(); };
    return fail_each_allocation(
        nothing, [&act](int&) { act(); }, [](int&) { return std::string(); });
}

/// How an act ended of which an allocation was to fail.
struct Outcome {
    bool has_failed = false;  ///< the allocation was asked for
    bool threw = false;       ///< std::bad_alloc came out
};

/// Runs `act` with its `nth` allocation failing. Whether that comes out is for the caller to judge;
/// any other exception passes.
template <class Act>
Outcome try_without_memory(std::size_t nth, Mode mode, Act&& act)
{
    Outcome outcome;
    const FailingAllocation failing(nth, mode);
    try {
        std::forward<Act>(act)();
    } catch (const std::bad_alloc&) {
        outcome.threw = true;
    }
    outcome.has_failed = FailingAllocation::has_failed();
    return outcome;
}

/// For operations that are refused: passes when `act` throws exactly an Exception. Memory that
/// runs out for its text comes out as std::bad_alloc.
template <class Exception, class Act>
void refuse(Act&& act)
{
    try {
        std::forward<Act>(act)();
        ADD_FAILURE() << "was not refused";
    } catch (const Exception& error) {
        // The standard library throws a class of its own that is derived from this one.
        if (!std::is_same_v<Exception, std::ios_base::failure>) {
            EXPECT_EQ(typeid(error), typeid(Exception));
        }
    }
}

/// How an operation in a process of its own ended.
enum class Ending {
    Succeeded,
    RanOutOfMemory,  ///< std::bad_alloc came out, and nothing was lost
    Terminated,      ///< an exception met a function that must not throw
    Failed,          ///< anything else
};

/// Runs `act` in a child process with its `nth` allocation failing. For operations that write a
/// message: a message that cannot be finished ends the process.
Ending run_in_child(std::size_t nth, Mode mode, const std::function<void()>& act);

/// How often each ending was seen until the operation succeeded.
struct Endings {
    std::size_t ran_out = 0;
    std::size_t terminated = 0;
};

/// As fail_each_allocation(), each run in a process of its own.
/// @param step  from one allocation that fails to the next one that is tried
Endings fail_each_allocation_in_child(Mode mode, const std::function<void()>& act,
                                      std::size_t step = 1);

/// The keys of the elements that a getter has read.
std::vector<std::string> consumed_keys(const Quorval::BlockConfiguration& config);

/// All of a configuration as a text: keys, types, values and marks.
std::string describe(const Quorval::BlockConfiguration& config);

/// A configuration with an element of each type, some of them read, whose keys and strings are too
/// long to be kept without an allocation.
Quorval::BlockConfiguration make_sample();

}  // namespace quorval_test
