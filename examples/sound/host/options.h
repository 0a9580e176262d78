// The command line of the host.
#pragma once

#include <optional>
#include <string>
#include <vector>

namespace host {

/// What the user asked for.
struct Options {
    std::string in;
    std::string out;
    double gain = 1;
    std::vector<double> taps = {1};
    std::string encoding = "pcm16";
    std::string store;  // empty, or an absolute path with a "/" at its end
    int frames_per_block = 4096;
    bool verbose = false;
};

/// Reads the command line. Help and version are written to standard output, a complaint as one
/// line to standard error.
/// @param status  set to the exit status when nothing is returned
/// @return nothing when the program has to end
std::optional<Options> parse_options(int argc, char** argv, int& status);

}  // namespace host
