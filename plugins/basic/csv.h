// Rows of comma-separated values.
#pragma once

#include <string>
#include <vector>

namespace basic {

/// The shortest form that reads back.
std::string to_text(double number);

/// A cell, in quotes where it needs them.
std::string to_cell(const std::string& text);

/// The cells of a line, without their quotes. A quoted cell ends with its line.
std::vector<std::string> split_row(const std::string& line);

}  // namespace basic
