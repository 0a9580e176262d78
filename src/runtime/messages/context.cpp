#include "messages/context.h"

namespace Quorval::runtime {

Context& context()
{
    thread_local Context current;
    return current;
}

}  // namespace Quorval::runtime
