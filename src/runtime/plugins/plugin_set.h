// The plug-ins of one graph.
#pragma once

#include <quorval/runtime/plugin.h>
#include "plugins/plugin.h"

#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

namespace Quorval::runtime {

/// What came of loading a plug-in.
struct LoadedPlugin {
    std::unique_ptr<Plugin> plugin;  ///< null when it cannot be used
    std::string problem;             ///< why
};

/// Loads a plug-in that was looked for.
/// @param tools    must outlive it
/// @param is_kept  whether its code stays loaded until the process ends
LoadedPlugin load_plugin(const PluginFile& file, const InitTools& tools, bool is_kept);

/// Finds and loads plug-ins, each once, when it is first asked for. Must outlive all blocks that
/// come from them.
class PluginSet {
public:
    /// @param directories  see plugin_directories()
    /// @param tools        must outlive the set
    /// @param are_kept     whether their code stays loaded until the process ends
    PluginSet(std::vector<std::string> directories, const InitTools& tools, bool are_kept = false);

    /// @param name  without directory and ending
    const LoadedPlugin& get(const std::string& name);

    /// The codec of a data type: that of the runtime, or of the plug-in that was loaded first of
    /// those that have one.
    /// @return null where there is none; lives as long as the set
    const Codec* find_codec(const std::string& type) const;

private:
    LoadedPlugin load(const std::string& name);

    std::vector<std::string> directories_;
    const InitTools& tools_;
    bool are_kept_;
    std::unordered_map<std::string, LoadedPlugin> found_;
    std::unordered_map<std::string, Codec> codecs_;
};

}  // namespace Quorval::runtime
