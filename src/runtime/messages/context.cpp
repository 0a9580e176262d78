#include "messages/context.h"

namespace Quorval::runtime {

Context& context()
{
    // At a fixed place of the thread: a signal handler must not be the first to ask for memory.
    [[gnu::tls_model("initial-exec")]] static thread_local Context current;
    return current;
}

}  // namespace Quorval::runtime
