// The entry point of the plug-in: the block types that it offers.
#include "blocks.h"

int lib_register_cpp(Quorval::IRegistry& registry)
{
    sound::register_fir(registry);
    sound::register_gain(registry);
    sound::register_level_meter(registry);
    sound::register_sound_file_sink(registry);
    sound::register_sound_file_source(registry);
    return 0;
}
