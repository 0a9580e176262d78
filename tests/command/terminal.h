// Terminals: one that a program has, and one in place of standard streams of the test itself.
#pragma once

#include "support/process.h"

#include <string>
#include <utility>
#include <vector>

namespace quorval_test {

/// A terminal of 60 columns and 10 rows for a program, see ProcessOptions::terminal.
class Terminal {
public:
    Terminal() = default;
    Terminal(const Terminal&) = delete;
    Terminal& operator=(const Terminal&) = delete;
    ~Terminal();

    std::string file() const;

    void type(const std::string& keys) const;

    /// Whether the text is shown. Waits for it.
    bool wait_for(const std::string& text);

    /// All that was shown.
    const std::string& shown();

    /// Shows a text of the test.
    void show(const std::string& text) const;

private:
    bool read_some(int milliseconds);

    Stream stream_ = open_terminal(60, 10);
    std::string shown_;
};

/// Standard streams of this process are another file while it lives.
class OtherStreams {
public:
    /// @param fd  taken over
    OtherStreams(std::vector<int> streams, int fd);
    OtherStreams(const OtherStreams&) = delete;
    OtherStreams& operator=(const OtherStreams&) = delete;
    ~OtherStreams() { put_back(); }

    void put_back();

private:
    std::vector<std::pair<int, int>> before_;  // each stream, and what it was
};

/// Standard streams of this process are a terminal of some size, which passes on what is written as
/// it is.
class TerminalStreams {
public:
    explicit TerminalStreams(std::vector<int> streams, unsigned short columns = 0,
                             unsigned short rows = 0);
    TerminalStreams(const TerminalStreams&) = delete;
    TerminalStreams& operator=(const TerminalStreams&) = delete;
    ~TerminalStreams();

    /// Puts the streams back.
    /// @return what was written on the terminal
    std::string end();

private:
    TerminalStreams(std::vector<int> streams, Stream terminal);

    int terminal_;  // the end of the user
    OtherStreams streams_;
};

}  // namespace quorval_test
