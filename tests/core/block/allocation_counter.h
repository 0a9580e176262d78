// Counts what this program and the libraries in it allocate.
#pragma once

#include <cstddef>

namespace quorval_test {

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

}  // namespace quorval_test
