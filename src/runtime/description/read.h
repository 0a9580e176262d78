// From files and assignments to a description.
#pragma once

#include "description/description.h"
#include "description/file.h"
#include "description/problem.h"

#include <string>
#include <vector>

namespace Quorval::runtime {

/// What files and assignments say, before anything is made of it.
struct Reading {
    GraphDescription description;
    std::vector<Source> sources;
    Problems problems;
    /// False: a file could not be read or understood, so what the description lacks may stand
    /// there.
    bool is_whole = true;
};

/// Reads files, the ones that they include before themselves, and merges them one after the other.
/// @param files        as they were given, one at least
/// @param assignments  `PATH.KEY=VALUE`
/// @param patience     waits for the writers of pipes; null: they are waited for as long as it
/// takes
/// @throws Interrupted            it has come to its end
/// @throws std::invalid_argument  an assignment has another form: "'<text>' is not of the form
///     PATH.KEY=VALUE"
Reading read_graph(const std::vector<std::string>& files,
                   const std::vector<std::string>& assignments, IPatience* patience = nullptr);

}  // namespace Quorval::runtime
