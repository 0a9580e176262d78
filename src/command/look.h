// Looking at plug-ins, each in a process of its own.
#pragma once

#include <quorval/runtime/plugin.h>

#include <nlohmann/json.hpp>

#include <chrono>
#include <string>
#include <vector>

/// For how long a plug-in is looked at.
constexpr std::chrono::seconds kLookLimit(10);

/// What is wanted to be known of plug-ins.
struct LookOptions {
    bool makes_blocks = true;              ///< to know the ports; else the declarations alone
    std::string type;                      ///< this one alone; empty: all
    std::vector<std::string> assignments;  ///< `KEY=VALUE`, what blocks are made with
    std::chrono::milliseconds limit = kLookLimit;  ///< for one plug-in
};

/// What there is to say of a plug-in.
struct Look {  // NOLINT(bugprone-exception-escape): the destructor of json allocates
    /// `{"name", "file", "note", "types", "problem"}`; what does not apply is left out.
    nlohmann::json plugin;
    /// It was loaded, and none of its code crashed, ended the process or hung.
    bool is_usable = true;
};

/// Loads a plug-in and makes a block of each of its types, in a process that may crash or hang.
/// What the plug-in prints goes to standard error.
/// @throws std::system_error  there can be no further process
Look look_at(const Quorval::PluginFile& file, const LookOptions& options);
