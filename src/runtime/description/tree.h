// What the tree of a graph file means.
#pragma once

#include "description/description.h"
#include "description/problem.h"

#include <toml++/toml.h>

#include <cstdint>
#include <vector>

namespace Quorval::runtime {

/// Describes what the tree of a file, or of several that were merged, says beside `format` and
/// `include`. What is wrong is left out. The name stays empty where there is none.
/// @param ranks  see read_settings()
GraphDescription read_tree(const toml::table& tree, const std::vector<std::uint32_t>& ranks,
                           Problems& problems);

/// A name of another file that a file includes.
struct Include {
    std::string name;
    Place place;
};

/// What a file says about itself.
struct FileHead {
    bool is_supported = true;  ///< false: the file is written in a format of the future
    std::vector<Include> includes;
    bool has_all_includes = true;  ///< false: some are wrong, which is reported
};

/// Reads `format` and `include`.
FileHead read_head(const toml::table& tree, std::uint32_t source, Problems& problems);

}  // namespace Quorval::runtime
