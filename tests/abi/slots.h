// Places of virtual operations.
#pragma once

#include <cstddef>
#include <cstring>
#include <type_traits>

namespace quorval_test {

/// The place of a virtual operation in the table, counted from 0; -1 for one that is not virtual.
template <class Operation>
int slot_of(Operation operation)
{
    static_assert(std::is_member_function_pointer_v<Operation>);
    // What both ABIs lay down for a pointer to a member function: the offset in the table, and a
    // mark in the lowest bit that it is one, which AArch64 has in the second word.
    struct {
        std::ptrdiff_t pointer;
        std::ptrdiff_t adjustment;
    } parts;
    static_assert(sizeof(parts) == sizeof(operation));
    std::memcpy(&parts, &operation, sizeof(parts));
#if defined(__aarch64__)
    const bool is_virtual = (parts.adjustment & 1) != 0;
    const std::ptrdiff_t offset = parts.pointer;
#else
    const bool is_virtual = (parts.pointer & 1) != 0;
    const std::ptrdiff_t offset = parts.pointer - 1;
#endif
    return is_virtual ? static_cast<int>(offset / static_cast<int>(sizeof(void*))) : -1;
}

}  // namespace quorval_test
