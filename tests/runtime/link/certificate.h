// Certificates of a test.
#pragma once

#include <string>
#include <vector>

namespace quorval_test {

/// Makes one that has signed itself, and its key.
/// @param path  of `<path>.pem` and `<path>.key`
/// @param more  arguments of `openssl req`
void make_certificate(const std::string& path, const std::vector<std::string>& more = {});

}  // namespace quorval_test
