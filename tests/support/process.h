// A program run as its users run it.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace quorval_test {

/// The two ends of a pipe or of a terminal; they are closed where another program starts.
struct Stream {
    int reader = -1;
    int writer = -1;
};

/// A terminal that passes on what is written as it is: its reader stands for the user, its writer
/// is what a program has as its standard streams.
/// @throws std::system_error  a system call failed
Stream open_terminal(unsigned short columns = 0, unsigned short rows = 0);

/// What a process left behind.
struct ProcessResult {
    int status = -1;  ///< of the exit; -1 where a signal ended it
    int signal = 0;   ///< that ended it
    std::string out;
    std::string err;
};

/// How a program is started.
struct ProcessOptions {
    std::vector<std::string> command;  ///< program and arguments
    /// Changes of the environment; without a value the variable is removed.
    std::vector<std::pair<std::string, std::optional<std::string>>> environment;
    std::string directory;           ///< to work in; empty: that of the test
    std::string out_file;            ///< standard output goes there in place of `out`
    std::string err_file;            ///< likewise
    std::vector<int> closed;         ///< descriptors that are closed
    std::string terminal;            ///< not empty: the file of standard input and output
    bool err_is_terminal = false;    ///< standard error is a terminal
    unsigned short out_columns = 0;  ///< not 0: standard output is a terminal of this width
};

/// A running program. The destructor kills what still runs, and so does the end of the thread that
/// made it: a test that is aborted leaves nothing behind.
class Process {
public:
    /// @throws std::system_error  a system call failed
    explicit Process(const ProcessOptions& options);
    Process(const Process&) = delete;
    Process& operator=(const Process&) = delete;
    ~Process();

    pid_t id() const { return child_; }
    void send(int signal) const;

    /// Reads until `text` was written to standard output or standard error.
    /// @return whether it was, before both ended
    bool wait_for(const std::string& text);

    /// Likewise, for standard error from behind the last text that this has found.
    bool wait_for_next(const std::string& text);

    /// Reads until both streams end, and waits for the end of the process.
    ProcessResult wait();

private:
    bool read_some();

    pid_t child_ = -1;
    int out_ = -1;
    int err_ = -1;
    ProcessResult result_;
    std::size_t found_ = 0;  // of standard error, by wait_for_next()
};

/// Starts a program and waits for its end.
ProcessResult run_process(const ProcessOptions& options);

}  // namespace quorval_test
