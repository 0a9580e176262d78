// Settings that a block type declares, compared with those that were written.
#pragma once

#include <quorval/config.h>
#include <quorval/settings.h>
#include "description/problem.h"
#include "graph/expansion.h"

#include <string>
#include <string_view>
#include <vector>

namespace Quorval::runtime {

/// Reports settings that the type does not declare, and values that are missing or not allowed.
/// A saved value of a setting that is gone is a warning.
/// @param config  what the block would be made with
/// @return whether nothing is wrong
bool check_declared(const std::vector<Quorval::Setting>& declared, const PlainBlock& block,
                    const BlockConfiguration& config, Problems& problems);

bool is_declared(const std::vector<Quorval::Setting>& declared, std::string_view key);

/// Why a block that runs cannot get values: of settings that are not declared or not live, or
/// values that are not allowed; empty when it can. Reads the values.
std::string find_refusal(const std::vector<Quorval::Setting>& declared, const std::string& type,
                         const BlockConfiguration& values);

/// The defaults that a description of settings holds, by key.
BlockConfiguration read_defaults(const BlockConfiguration& description);

/// "'<key>' cannot be changed while the graph runs"
std::string text_of_fixed(const std::string& key);

}  // namespace Quorval::runtime
