// A plug-in that registers a codec for a data type of its own.
#include "points.h"

#include <quorval/codec.h>

int lib_register_cpp(Quorval::IRegistry& registry)
{
    Quorval::register_codec<Points>(registry, "points");
    return 0;
}
