// What signals are called.
#pragma once

#include <string>

/// "signal 11 (SIGSEGV)", or "signal 34 (SIG?)" for one that has no name.
std::string describe_signal(int signal);
