// How the findings about a graph are shown.
#pragma once

#include <quorval/runtime/diagnostic.h>

#include <string>
#include <vector>

/// Writes each finding to standard error, one line each; on a terminal with the line of the file
/// and a caret below the column.
void show_diagnostics(const std::vector<Quorval::Diagnostic>& diagnostics);

/// The line of the file and a line with a caret below the column, each ended by a newline. Of a
/// long line the part around the column. Nothing where there is no line of a file.
std::string show_place(const Quorval::Diagnostic& diagnostic);

/// A JSON list of `{file, line, column, severity, text}`, ended by a newline. What is not about a
/// file has neither line nor column.
std::string to_json(const std::vector<Quorval::Diagnostic>& diagnostics);
