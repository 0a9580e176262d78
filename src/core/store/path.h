// Joining a directory and a file name.
#pragma once

#include <string>

namespace Quorval {

/// What `std::filesystem::path(directory) / file` gives. That operator of the standard library
/// crashes when memory runs out and the directory ends in "/".
inline std::string join_path(const std::string& directory, const std::string& file)
{
    const bool is_absolute = !file.empty() && file.front() == '/';
    if (is_absolute) {
        return file;
    }
    const bool has_separator = directory.empty() || directory.back() == '/';
    return directory + (has_separator ? "" : "/") + file;
}

}  // namespace Quorval
