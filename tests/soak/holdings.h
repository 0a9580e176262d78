// What a process holds, and whether that grows.
#pragma once

#include <sys/types.h>

#include <functional>
#include <string>
#include <vector>

/// Runs `cycle`, with its number from 1 on, so many times, with ten lines on the way. What the
/// first tenth has taken is what the process needs; from there on nothing may grow.
/// @param others  processes that are looked at in the place of this one
/// @return whether nothing did
bool run_flat(const std::string& name, long times, const std::function<void(long)>& cycle,
              const std::vector<pid_t>& others = {});

/// The divisor of the command line, `PROGRAM [DIVISOR]`; 0 where that is wrong, which is said then.
long read_divisor(int argc, char** argv);

/// Says how it came out, and gives the exit status.
int tell_result(bool is_flat);
