// Recordings: what outputs of a graph gave while it ran.
#pragma once

#include <quorval/export.h>

#include <chrono>
#include <cstdint>
#include <stdexcept>
#include <string>
#include <vector>

namespace Quorval {

/// A file is no recording, or cannot be read. what() is one line that names it.
class QUORVAL_EXPORT RecordingError : public std::runtime_error {
public:
    explicit RecordingError(const std::string& text);
    RecordingError(const RecordingError& other);
    RecordingError& operator=(const RecordingError& other);
    ~RecordingError() override;
};

/// What a recording holds, in short.
struct RecordingInfo {
    struct Output {
        std::string path;  ///< of the block
        std::string port;
        std::string type;
        std::uint64_t values = 0;
        std::uint64_t bytes = 0;  ///< of all its values
    };

    std::string graph;                            ///< the name of the graph
    std::chrono::system_clock::time_point begin;  ///< when the graph was started
    std::chrono::nanoseconds duration{0};         ///< from then to the last wave
    std::uint64_t waves = 0;
    std::uint64_t missing_waves = 0;  ///< for which the disk was too slow
    bool is_whole = false;            ///< up to the end of the run; otherwise it was cut off
    std::vector<Output> outputs;
};

/// Reads a whole recording.
/// @throws RecordingError  "'<file>' is no recording", or "'<file>' cannot be read: <reason>"
QUORVAL_EXPORT RecordingInfo read_recording(const std::string& file);

}  // namespace Quorval
