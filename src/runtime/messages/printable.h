// Texts of others in messages.
#pragma once

#include <string>

namespace Quorval::runtime {

/// A text on one line, with each byte of a control character as "\xHH".
std::string printable(const std::string& text);

/// Appends a byte as two hexadecimal digits.
void append_hex(std::string& out, unsigned char c);

}  // namespace Quorval::runtime
