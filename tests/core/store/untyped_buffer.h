// A buffer of a program that is built without type information.
#pragma once

#include <memory>
#include <sstream>
#include <string>

namespace quorval_test {

/// A buffer for input and output whose class was compiled with -fno-rtti.
std::unique_ptr<std::stringbuf> make_untyped_buffer(const std::string& content);

}  // namespace quorval_test
