// The block types of the plug-in, each in a source of its own.
#pragma once

#include <quorval/pluginloader.h>

namespace sound {

void register_fir(Quorval::IRegistry& registry);
void register_gain(Quorval::IRegistry& registry);
void register_level_meter(Quorval::IRegistry& registry);
void register_sound_file_sink(Quorval::IRegistry& registry);
void register_sound_file_source(Quorval::IRegistry& registry);

}  // namespace sound
