// The option of all commands that load plug-ins.
#pragma once

#include "command_line.h"

#include <string>
#include <vector>

/// The option --plugin-path.
class PluginPathOption {
public:
    /// Adds the option; both have to live as long as `line` is used.
    explicit PluginPathOption(CommandLine& line);
    PluginPathOption(const PluginPathOption&) = delete;
    PluginPathOption& operator=(const PluginPathOption&) = delete;
    ~PluginPathOption() = default;

    /// What was given.
    std::vector<std::string> directories() const;

private:
    std::vector<std::string> lists_;
};
