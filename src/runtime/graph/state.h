// Where blocks keep their state.
#pragma once

#include <string>

namespace Quorval::runtime {

/// The directory below which a graph keeps its state, absolute and without a "/" at its end.
/// @param given  empty: the first of $STATE_DIRECTORY
/// @return empty where there is none
std::string find_state_directory(const std::string& given);

/// The directory of one block, with a "/" at its end.
std::string state_directory_of(const std::string& directory, const std::string& path);

/// Makes a directory and all above it, for the owner alone.
/// @throws std::system_error  it cannot be made, with its name
void make_state_directory(const std::string& directory);

/// Holds a state directory for one graph, as long as it lives.
class StateLock {
public:
    /// Makes the directory. What cannot be made is not held: the blocks that need it tell of it.
    /// @param directory  absolute; empty: there is none to hold
    /// @throws std::runtime_error  another graph holds it: "the state directory '<directory>' is in
    ///     use"
    explicit StateLock(const std::string& directory);
    StateLock(const StateLock&) = delete;
    StateLock& operator=(const StateLock&) = delete;
    ~StateLock();

private:
    int fd_ = -1;
};

}  // namespace Quorval::runtime
