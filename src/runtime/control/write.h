// Values as they are written for readers on a bus, whose texts have to be UTF-8.
#pragma once

#include "description/description.h"

#include <string>

namespace Quorval::runtime {

/// A text with U+FFFD in place of each byte that is no UTF-8.
std::string to_utf8(const std::string& text);

/// A value as TOML, on one line.
std::string to_toml(const Value& value);

/// A text as a string, in TOML as in JSON.
std::string quote(const std::string& text);

/// A value as JSON; null for numbers that JSON does not know.
std::string to_json(const Value& value);

}  // namespace Quorval::runtime
