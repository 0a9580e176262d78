// What the user sees: results on standard output, messages and progress on standard error.
#pragma once

#include <cstdint>
#include <string>

namespace host {

/// Writes for the user, and installs itself as the log sink of the library for as long as it lives.
/// One thread at a time.
class Console {
public:
    /// @param verbose  whether informational log messages are shown too, not only warnings
    explicit Console(bool verbose);
    Console(const Console&) = delete;
    Console& operator=(const Console&) = delete;
    ~Console();

    /// Writes a line to standard output.
    void say(const std::string& line);

    /// Writes a line to standard error, with the name of the program in front.
    void complain(const std::string& line);

    /// Shows how far the work is, where standard error is a terminal.
    void progress(std::int64_t done, std::int64_t total);

    /// Whether all output got through.
    bool flush();

private:
    void clear_progress();

    bool is_terminal_;
    int percent_ = -1;  // as shown, negative when nothing is
};

}  // namespace host
