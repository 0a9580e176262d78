// The name that was probably meant.
#pragma once

#include <quorval/export.h>

#include <string>
#include <vector>

namespace Quorval {

/// The name among `known` that is nearest to `name`, the first in the order of bytes of those that
/// are equally near. Near is what takes at most two insertions, deletions or replacements, and
/// fewer than half of the letters of `name`. Empty where none is near.
QUORVAL_EXPORT std::string find_near(const std::string& name,
                                     const std::vector<std::string>& known);

}  // namespace Quorval
