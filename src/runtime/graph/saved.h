// Changes that were kept for the next start, in the state directory of a graph.
#pragma once

#include "description/description.h"
#include "description/read.h"

#include <cstdint>
#include <string>
#include <vector>

namespace Quorval::runtime {

/// The file of what was saved.
/// @param directory  the state directory of the graph, absolute
std::string saved_file(const std::string& directory);

/// What was saved, by path and key; nothing where there is no file.
/// @throws std::runtime_error  the file cannot be read, or holds something else
std::vector<Assignment> read_saved(const std::string& directory);

/// Replaces the file, with all of `values` or not at all.
/// @throws std::exception  the directory or the file cannot be written
void write_saved(const std::string& directory, const std::vector<Assignment>& values);

/// Puts what was saved between the files and the assignments of a reading.
void insert_saved(Reading& reading, const std::string& file, const std::vector<Assignment>& saved);

}  // namespace Quorval::runtime
