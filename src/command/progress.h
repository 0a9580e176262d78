// How far the blocks of a graph are, on a terminal.
#pragma once

#include <cstdint>
#include <string>

/// One line on standard error that is drawn anew again and again. The cursor stays at its
/// beginning, so that a message takes its place.
class ProgressLine {
public:
    ProgressLine() = default;
    ProgressLine(const ProgressLine&) = delete;
    ProgressLine& operator=(const ProgressLine&) = delete;
    /// Wipes the line.
    ~ProgressLine();

    /// @param total  0: unknown
    void show(const std::string& path, std::uint64_t done, std::uint64_t total);

private:
    bool is_shown_ = false;
};

/// "left/gain: 50 %", or "left/gain: 17" where `total` is 0.
std::string describe_progress(const std::string& path, std::uint64_t done, std::uint64_t total);
