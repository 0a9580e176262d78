// The entry point of the plug-in: the block types and the codec that it offers.
#include <quorval/codec.h>
#include "blocks.h"
#include "samples.h"

int lib_register_cpp(Quorval::IRegistry& registry)
{
    sound::register_fir(registry);
    sound::register_gain(registry);
    sound::register_level_meter(registry);
    sound::register_sound_file_sink(registry);
    sound::register_sound_file_source(registry);
    Quorval::register_codec<sound::SampleBlock>(registry, "sample-block");
    return 0;
}
