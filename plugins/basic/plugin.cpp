// The entry point of the plug-in: the block types that it offers.
#include "blocks.h"

int lib_register_cpp(Quorval::IRegistry& registry)
{
    basic::register_csv_sink(registry);
    basic::register_csv_source(registry);
    basic::register_print(registry);
    basic::register_scale(registry);
    basic::register_sine(registry);
    basic::register_timer(registry);
    return 0;
}
