// Which plug-in a piece of code belongs to.
#pragma once

#include <string>

namespace Quorval::runtime {

/// Keeps the name of the plug-in whose code lies at `address`. From any thread.
void note_plugin_code(const void* address, const std::string& plugin);

/// Forgets it, before the code is unloaded.
void forget_plugin_code(const void* address);

/// The plug-in whose code lies at `address`; empty for other code. From any thread.
std::string find_plugin_code(const void* address);

}  // namespace Quorval::runtime
