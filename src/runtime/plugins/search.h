// Where plug-ins are looked for.
#pragma once

#include <quorval/runtime/plugin.h>

#include <string>
#include <vector>

namespace Quorval::runtime {

/// The directories in the order in which they are searched: those given, those of
/// QUORVAL_PLUGIN_PATH, the one of QUORVAL_PLUGIN_DIR, the one of the installation.
std::vector<std::string> plugin_directories(const std::vector<std::string>& given);

/// Looks for a plug-in in directories, the first of which counts that has it.
/// @return with a problem where there is none, or one that is refused
PluginFile find_plugin(const std::string& name, const std::vector<std::string>& directories);

/// All plug-ins in directories, as find_plugin() finds them, by name in the order of bytes.
std::vector<PluginFile> list_plugins(const std::vector<std::string>& directories);

/// A list of directories, parted by ":", without its empty entries.
std::vector<std::string> split_path(const std::string& list);

/// The plug-in directory of the installation that this code is part of.
std::string installed_plugin_directory();

}  // namespace Quorval::runtime
