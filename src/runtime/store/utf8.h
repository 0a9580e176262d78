// Which bytes are UTF-8.
#pragma once

#include <cstddef>
#include <string_view>

namespace Quorval::runtime {

/// How many bytes the first character of a text has; 0 where the text does not begin with one.
std::size_t utf8_size(std::string_view text);

}  // namespace Quorval::runtime
