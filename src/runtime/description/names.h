// Names of graphs, blocks, superblocks and plug-ins, and their characters.
#pragma once

#include <string>
#include <string_view>

namespace Quorval::runtime {

/// Whether a byte of UTF-8 is another than the first of its character.
bool is_continuation(char byte);

/// Whether a character may stand in a name: a letter, a digit, "_" or "-".
bool is_name_character(char c);

/// Whether a text is a name: one or more of those characters.
bool is_name(std::string_view text);

/// Whether a text consists of what may stand in the keys of a configuration: those and ".".
bool is_key(std::string_view text);

/// The name that a file gives to its graph: its own without folder and ending, with "_" in place
/// of what may not stand in a name.
std::string name_of_file(const std::string& file);

}  // namespace Quorval::runtime
