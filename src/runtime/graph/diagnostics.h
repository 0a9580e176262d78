// Findings as users read them.
#pragma once

#include <quorval/runtime/diagnostic.h>
#include "description/description.h"
#include "description/problem.h"

#include <vector>

namespace Quorval::runtime {

/// All findings in the order in which they are shown.
std::vector<Diagnostic> to_diagnostics(const Problems& problems,
                                       const std::vector<Source>& sources);

}  // namespace Quorval::runtime
