#include "signal_name.h"

#include <cstring>

std::string describe_signal(int signal)
{
    const char* name = ::sigabbrev_np(signal);
    return "signal " + std::to_string(signal) + " (SIG" + (name != nullptr ? name : "?") + ")";
}
