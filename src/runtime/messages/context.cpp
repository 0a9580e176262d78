#include "messages/context.h"

namespace Quorval::runtime {

Context& context()
{
    // At a fixed place of the thread: a signal handler must not be the first to ask for memory.
    [[gnu::tls_model("initial-exec")]] static thread_local Context current;
    return current;
}

const char*& loading_graph()
{
    static thread_local const char* name = nullptr;
    return name;
}

std::atomic<bool>& was_started()
{
    static std::atomic<bool> is_set{false};
    return is_set;
}

}  // namespace Quorval::runtime
