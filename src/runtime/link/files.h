// Files that a link names.
#pragma once

#include <string>

namespace Quorval::runtime {

/// Whether a link can use it. Opening never waits, and does nothing to a device.
/// @throws std::runtime_error  "cannot read '<file>': <text of errno>", or "...: not a regular
///                             file"
void expect_usable(const std::string& file);

/// The first line of a file, without its end.
/// @throws std::runtime_error  as expect_usable() does, or "...: it is empty", or "...: more than
///                             65536 bytes"
std::string read_password(const std::string& file);

}  // namespace Quorval::runtime
