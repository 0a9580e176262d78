// Settings that a block type declares, compared with those that were written.
#pragma once

#include <quorval/config.h>
#include <quorval/settings.h>
#include "description/problem.h"
#include "graph/expansion.h"

#include <vector>

namespace Quorval::runtime {

/// Reports settings that the type does not declare, and values that are missing or not allowed.
/// @param config  what the block would be made with
/// @return whether nothing is wrong
bool check_declared(const std::vector<Quorval::Setting>& declared, const PlainBlock& block,
                    const BlockConfiguration& config, Problems& problems);

}  // namespace Quorval::runtime
