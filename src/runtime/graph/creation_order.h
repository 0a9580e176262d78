// The order in which blocks are made.
#pragma once

#include "graph/expansion.h"

#include <cstdint>
#include <vector>

namespace Quorval::runtime {

/// All blocks of the expansion, in the order in which they will run, so that blocks that run one
/// after the other lie side by side in memory. Known before there is a block: by the names in the
/// connections alone. Of what is wrong with those nothing is reported; any order will do then.
std::vector<std::uint32_t> creation_order(const Expansion& expansion);

}  // namespace Quorval::runtime
