// The plug-in of the benchmarks, and what its loader asks of an application.
#pragma once

#include <quorval/pluginloader.h>

#include <memory>
#include <string>

namespace Quorval {

struct InitTools {};

}  // namespace Quorval

namespace quorval_bench {

constexpr const char* kPlugin = "bench-plugin.so";
constexpr const char* kMemberType = "relay";

/// The directory of the plug-ins, without a "/" at its end. The library is told about it.
const std::string& plugin_directory();

std::unique_ptr<Quorval::PluginLoader> load_plugin();

}  // namespace quorval_bench
