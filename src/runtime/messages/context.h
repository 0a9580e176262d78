// Which block's operation the present thread is in: messages carry the path of it, and so does
// the last line of a process that crashes.
#pragma once

#include <atomic>

namespace Quorval::runtime {

/// Plain pointers, so that a signal handler can read them at any time.
struct Context {
    const char* path = nullptr;       // of a block; null outside of every block
    const char* operation = nullptr;  // "run", "start"; a literal
    const char* plugin = nullptr;     // the name of one that is being loaded; null otherwise
};

/// The context of the present thread.
Context& context();

/// The name of the graph that the present thread loads; null otherwise.
const char*& loading_graph();

/// Whether a graph of the process was started, so that a thread without a context may be one that
/// a block made.
std::atomic<bool>& was_started();

/// Sets the context for its lifetime and puts back the one before.
class ContextScope {
public:
    /// Both must outlive the scope.
    ContextScope(const char* path, const char* operation) : before_(context())
    {
        context() = {path, operation, nullptr};
    }
    ContextScope(const ContextScope&) = delete;
    ContextScope& operator=(const ContextScope&) = delete;
    ~ContextScope() { context() = before_; }

private:
    Context before_;
};

/// The same for the time in which a plug-in is loaded.
class LoadScope {
public:
    /// @param plugin  must outlive the scope
    explicit LoadScope(const char* plugin) : before_(context())
    {
        context() = {nullptr, nullptr, plugin};
    }
    LoadScope(const LoadScope&) = delete;
    LoadScope& operator=(const LoadScope&) = delete;
    ~LoadScope() { context() = before_; }

private:
    Context before_;
};

}  // namespace Quorval::runtime
