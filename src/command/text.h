// Texts from outside, made fit for a line of a message or of a terminal.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

/// Puts \xHH in place of each control character.
std::string escape_controls(std::string_view text);

/// Puts \xHH in place of each control character and of each byte that is no UTF-8.
std::string to_printable(std::string_view text);

/// A character of a text as a terminal shows it.
struct Cell {
    std::string text;
    unsigned width = 0;     ///< in columns; 0 of what is drawn over the character before
    std::size_t bytes = 1;  ///< of the text that it stands for
};

/// The characters of a line. A tab fills up to the next multiple of 8 columns; control characters
/// and bytes that are no UTF-8 stand as \xHH.
std::vector<Cell> lay_out(std::string_view line);
