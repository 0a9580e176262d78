// Settings as elements of configurations.
#pragma once

#include <quorval/config.h>
#include "description/description.h"

#include <string>
#include <vector>

namespace Quorval::runtime {

void set_value(BlockConfiguration& config, const std::string& key, const Value& value);

/// An element that is there.
Value get_value(const BlockConfiguration& config, const std::string& key);

/// The keys of all elements, in the order of bytes.
std::vector<std::string> keys_of(const BlockConfiguration& config);

/// A copy in which nothing is read, so that a block that does not read a key is noticed.
BlockConfiguration unread(const BlockConfiguration& config);

}  // namespace Quorval::runtime
