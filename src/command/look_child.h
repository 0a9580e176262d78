// What the process does that looks at one plug-in: it tells about it in lines of JSON.
#pragma once

#include <quorval/runtime/plugin.h>
#include "look.h"

#include <cstddef>
#include <functional>
#include <string>

/// Takes one line.
using Tell = std::function<void(const nlohmann::json&)>;

/// Tells first of the plug-in: `{"types": [...]}` with the declarations, or `{"problem"}`, which is
/// all then. Then, where blocks are made, one line for each type: its ports, or `{"problem"}`.
/// @param begin  types before this one are not made
void tell_about(const Quorval::PluginFile& file, const LookOptions& options, std::size_t begin,
                const Tell& tell);
