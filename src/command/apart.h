// Work in a process of its own, so that plug-ins may crash.
#pragma once

#include <functional>

/// Runs `work`, which gives an exit status, in a child process, and closes standard output there.
/// A crash of plug-in code is reported on standard error.
/// @return the status; kWrongGraph where the process crashed or plug-in code ended it
/// @throws std::system_error  there can be no further process
int run_apart(const std::function<int()>& work);
