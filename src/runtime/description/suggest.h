// The name that was probably meant, as part of a message.
#pragma once

#include <string>
#include <vector>

namespace Quorval::runtime {

/// "; did you mean '<near>'?", or nothing where no known name is near.
std::string suggestion(const std::string& name, const std::vector<std::string>& known);

}  // namespace Quorval::runtime
