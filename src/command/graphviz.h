// The program that draws pictures.
#pragma once

#include <string>

/// Makes SVG of a picture of Graphviz.
/// @throws std::runtime_error  "svg needs the program 'dot' of Graphviz"; the program failed:
///     "'dot' failed with exit status <n>", or "'dot' was ended by signal <n>"
/// @throws std::system_error   a system call failed
std::string draw_svg(const std::string& dot);
