// A shared library that is loaded when it is first needed.
#pragma once

#include <string>

namespace Quorval::runtime {

/// Few graphs need what such a library does, and what it brings along would take more memory than
/// all of a small graph. Stays loaded until the process ends. Any thread.
class Library {
public:
    /// @throws std::runtime_error  it cannot be loaded: "<name> cannot be loaded: <text>"
    explicit Library(const char* name);

    /// @throws std::runtime_error  it has no such function: "<name> has no <function>"
    template <class Function>
    Function* find(const char* function) const
    {
        return reinterpret_cast<Function*>(find_symbol(function));
    }

private:
    void* find_symbol(const char* symbol) const;

    std::string name_;
    void* handle_;
};

}  // namespace Quorval::runtime
