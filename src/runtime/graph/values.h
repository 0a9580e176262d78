// Settings as elements of configurations.
#pragma once

#include <quorval/config.h>
#include "description/description.h"

#include <string>

namespace Quorval::runtime {

void set_value(BlockConfiguration& config, const std::string& key, const Value& value);

}  // namespace Quorval::runtime
