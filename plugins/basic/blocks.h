// The block types of the plug-in, each in a source of its own.
#pragma once

#include <quorval/pluginloader.h>

namespace basic {

void register_csv_sink(Quorval::IRegistry& registry);
void register_csv_source(Quorval::IRegistry& registry);
void register_print(Quorval::IRegistry& registry);
void register_scale(Quorval::IRegistry& registry);
void register_sine(Quorval::IRegistry& registry);
void register_timer(Quorval::IRegistry& registry);

}  // namespace basic
