// What the command lines of all commands that look at plug-ins have in common.
#pragma once

#include "command_line.h"
#include "plugin_path.h"

#include <string>
#include <vector>

/// The options --set, without the path of a block, and --plugin-path.
class PluginLine {
public:
    /// Adds the options; both have to live as long as `line` is used.
    explicit PluginLine(CommandLine& line);
    PluginLine(const PluginLine&) = delete;
    PluginLine& operator=(const PluginLine&) = delete;
    ~PluginLine() = default;

    /// What --set was given.
    /// @throws UsageError  one is not of the form KEY=VALUE, or no configuration can hold it
    const std::vector<std::string>& assignments() const;

    std::vector<std::string> directories() const { return plugin_path_.directories(); }

private:
    std::vector<std::string> assignments_;
    PluginPathOption plugin_path_;
};

/// @throws UsageError  a graph file cannot name such a plug-in: "'<name>' is not a valid name
///     (letters, digits, '_' and '-')"
void check_plugin_name(const std::string& name);
