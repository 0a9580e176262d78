// The program that draws pictures.
#pragma once

#include <string>

/// Writes a picture of Graphviz as SVG to standard output.
/// @throws std::runtime_error  "svg needs the program 'dot' of Graphviz"; the program failed:
///     "'dot' failed with exit status <n>", or "'dot' was ended by signal <n>"
/// @throws std::system_error   a system call failed
void draw_svg(const std::string& dot);
