// Configurations as they are written in TOML.
#pragma once

#include "description/description.h"
#include "description/problem.h"

#include <toml++/toml.h>

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace Quorval::runtime {

/// The elements of a configuration.
/// @param ranks  for each source the place of its file in the order of merging: of two spellings
///               of one key the later one counts
/// @return by key, in the order of bytes, each key once
std::vector<Setting> read_settings(const toml::table& config,
                                   const std::vector<std::uint32_t>& ranks, Problems& problems);

/// The elements of a configuration that a value stands for: one, or several for a table. Their
/// places are those in the text.
/// @param text  a value of TOML; what is none is taken as a string
std::vector<Setting> read_value(const std::string& key, const std::string& text,
                                Problems& problems);

/// Gives each NaN the sign that it has in the text, which the parser drops.
/// @param settings  read from the text, with their places
void restore_signs(std::vector<Setting>& settings, std::string_view text);

/// Takes `PATH.KEY=VALUE` apart. A value that is a table gives several.
/// @param source  where the assignment stands in the list of sources
/// @throws std::invalid_argument  "'<text>' is not of the form PATH.KEY=VALUE"
std::vector<Assignment> read_assignment(const std::string& text, std::uint32_t source,
                                        Problems& problems);

/// Takes `KEY=VALUE` apart, likewise. Places mean nothing.
/// @throws std::invalid_argument  "'<text>' is not of the form KEY=VALUE"
std::vector<Setting> read_setting_assignment(const std::string& text, Problems& problems);

/// `PATH.KEY` of an assignment.
/// @throws std::invalid_argument  "'<text>' is not of the form PATH.KEY=VALUE"
std::string target_of(const std::string& assignment);

}  // namespace Quorval::runtime
