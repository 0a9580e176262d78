// The fixtures of this folder, and whether they are loaded.
#pragma once

#include <filesystem>
#include <string>

namespace quorval_test {

/// The directory of the fixtures, without a "/" at its end.
std::string fixture_dir();

/// The full path of a fixture.
/// @throws std::runtime_error  it was not built
std::string fixture_path(const std::string& filename);

/// Whether anything of the file is mapped into this process.
bool is_mapped(const std::filesystem::path& file);

/// The text that the dynamic loader itself has for opening `path`; empty when there is none. What
/// was opened is closed again.
std::string platform_error(const std::string& path);

}  // namespace quorval_test
