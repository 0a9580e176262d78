// Work in a process of its own, so that plug-ins may crash.
#pragma once

#include <functional>

/// Tells the parent of such a process that whoever ends it was named. Does nothing in another one.
void note_reported_end();

/// Runs `work`, which gives an exit status, in a child process, and closes standard output there.
/// A crash of plug-in code is reported on standard error.
/// @return the status; kWrongGraph where the process crashed or plug-in code ended it
/// @throws std::system_error  there can be no further process
int run_apart(const std::function<int()>& work);
