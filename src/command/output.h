// What the command writes: results on standard output, messages on standard error.
#pragma once

#include <string>

/// Writes to standard output. That it could not be written shows when it is closed.
void write_output(const std::string& text);

/// Closes standard output.
/// @return whether everything was written, by blocks too; if not, it was said
bool close_output();

/// Ends the process when standard output is closed. Where a plug-in left a thread behind, at once,
/// so that the thread does not meet objects that are destroyed already.
[[noreturn]] void end_process(int status);

/// Writes `quorval: error: TEXT` to standard error.
void say_error(const std::string& text);

/// Writes `quorval: TEXT` to standard error.
void say(const std::string& text);

/// Whether standard error is a terminal.
bool has_terminal();

/// Whether what goes to standard error may have colours: on a terminal that knows them, and unless
/// the user said NO_COLOR.
bool has_colours();

/// Whether what goes to standard output may have colours, likewise.
bool has_output_colours();

/// Whether the user's locale has the characters of Unicode.
bool has_unicode();

/// How many columns standard output has; 0 where it is no terminal.
unsigned output_width();
