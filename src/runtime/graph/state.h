// Where blocks keep their state.
#pragma once

#include <string>

namespace Quorval::runtime {

/// The directory below which a graph keeps its state, absolute and without a "/" at its end.
/// @param given  empty: the first of $STATE_DIRECTORY
/// @return empty where there is none
std::string find_state_directory(const std::string& given);

/// The directory of one block, with a "/" at its end.
std::string state_directory_of(const std::string& directory, const std::string& path);

/// Makes a directory and all above it, for the owner alone.
/// @throws std::system_error  it cannot be made, with its name
void make_state_directory(const std::string& directory);

}  // namespace Quorval::runtime
