#include "plugin_line.h"

#include <quorval/runtime/plugin.h>

#include <exception>

PluginLine::PluginLine(CommandLine& line) : plugin_path_(line)
{
    line.add_list("--set", assignments_, "KEY=VALUE",
                  "make blocks with this setting, which a type may need; may be repeated");
}

const std::vector<std::string>& PluginLine::assignments() const
{
    try {
        Quorval::read_assignments(assignments_);
    } catch (const std::exception& error) {
        throw UsageError(error.what());
    }
    return assignments_;
}

void check_plugin_name(const std::string& name)
{
    constexpr const char* kCharacters =
        "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789_-";
    if (name.empty() || name.find_first_not_of(kCharacters) != std::string::npos) {
        throw UsageError("'" + name + "' is not a valid name (letters, digits, '_' and '-')");
    }
}
