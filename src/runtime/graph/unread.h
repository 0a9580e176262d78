// Keys that a block did not read.
#pragma once

#include <quorval/config.h>
#include "graph/expansion.h"

#include <vector>

namespace Quorval::runtime {

/// The settings whose elements nobody has read, in their order.
/// @param config    holds exactly the settings
/// @param settings  each key once
std::vector<const SettingRef*> find_unread(const BlockConfiguration& config,
                                           const std::vector<SettingRef>& settings);

}  // namespace Quorval::runtime
