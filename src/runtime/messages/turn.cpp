#include "messages/turn.h"

namespace Quorval::runtime {

Deeds*& present_deeds()
{
    static thread_local Deeds* deeds = nullptr;
    return deeds;
}

}  // namespace Quorval::runtime
