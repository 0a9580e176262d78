// TOML texts as trees, and where their parts stand.
#pragma once

#include "description/problem.h"

#include <toml++/toml.h>

#include <cstdint>
#include <optional>
#include <string>

namespace Quorval::runtime {

/// The tree of a text.
/// @param source  where the text stands in the list of sources
/// @return nothing when the text is no TOML, which is one problem
std::optional<toml::table> parse_toml(const std::string& text, std::uint32_t source,
                                      Problems& problems);

/// Where a part of a tree begins.
Place place_of(const toml::source_region& region);
Place place_of(const toml::key& key);
Place place_of(const toml::node& node);

/// Merges a later tree into a former one. Tables merge key by key, lists of connections are
/// appended, every other value is replaced.
void merge_toml(toml::table& former, toml::table&& later);

}  // namespace Quorval::runtime
