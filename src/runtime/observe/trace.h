// The runs of blocks as a file that viewers of traces open.
#pragma once

#include "loop/descriptor.h"
#include "schedule/network.h"

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace Quorval::runtime {

/// Writes trace events, a JSON array of objects, a line each: a slice for each run, a counter for
/// each wave. An array that is cut off at the end is readable too, so a process that dies leaves
/// what it wrote. Allocates nothing between two constructions.
class Trace {
public:
    using Time = std::chrono::nanoseconds;

    /// Makes the file, or empties it.
    /// @param network  must outlive the object
    /// @throws std::system_error  it cannot be written: "'<file>' cannot be written: <errno>"
    Trace(const std::string& file, const std::string& graph, const Network& network);

    /// @param thread  that ran the block; 0 is that of the graph
    void add_run(std::uint32_t block, Time begin, Time end, bool has_failed,
                 std::uint32_t thread = 0) noexcept;

    /// @param runs  of all blocks in the wave
    void add_wave(Time begin, std::uint64_t runs) noexcept;

    /// Ends the array, once.
    /// @throws std::system_error  something was not written, as above
    void finish();

private:
    void add(std::string_view text) noexcept;
    void add(std::uint64_t number) noexcept;
    void add_time(Time time) noexcept;
    void add_thread(std::uint32_t thread) noexcept;
    void write() noexcept;

    std::string file_;
    const Network& network_;
    Descriptor descriptor_;
    std::string process_;  // with which the end of each event begins
    std::vector<char> buffer_;
    std::size_t used_ = 0;
    int error_ = 0;  // of the first write that failed
};

}  // namespace Quorval::runtime
