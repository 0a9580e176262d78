// How the command lines of all commands are read: GNU-style long options, "--" ends them.
#pragma once

#include "command.h"

#include <cstddef>
#include <functional>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

/// The command line is wrong; what() is one line.
class UsageError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

/// @throws UsageError  always: "unknown <what> '<name>'", with the near one of `known`
[[noreturn]] void throw_unknown(const std::string& what, const std::string& name,
                                const std::vector<std::string>& known);

/// @throws UsageError  there are more arguments than `count`: "'<argument>' is too much"
void refuse_more_than(std::size_t count, const std::vector<std::string>& arguments);

/// Runs `work`, which gives an exit status, and closes standard output.
/// @return the status; where an exception came out, which is reported then, kWrongUse for a
///     UsageError and kFailed for another; kFailed where standard output could not be written
int run_and_close_output(const std::function<int()>& work);

/// The text around the options in the help of a command.
struct HelpText {
    std::string usage;        ///< "quorval check [OPTION...] FILE..."
    std::string description;  ///< ends in a full stop
    std::string more;         ///< exit status and an example
};

/// The options of one command. Filled with add_option() and the like, then read once.
class CommandLine {
public:
    explicit CommandLine(const HelpText& help);
    CommandLine(const CommandLine&) = delete;
    CommandLine& operator=(const CommandLine&) = delete;
    ~CommandLine();

    /// An option that may be given several times, each time with one value.
    void add_list(const std::string& name, std::vector<std::string>& values,
                  const std::string& value_name, const std::string& description);

    /// An option of which the last value counts.
    void add_value(const std::string& name, std::string& value, const std::string& value_name,
                   const std::string& description);

    /// An option without a value.
    void add_flag(const std::string& name, bool& is_set, const std::string& description);

    /// An option without a value that may be repeated.
    void add_count(const std::string& name, int& count, const std::string& description);

    /// Reads the command line.
    /// @return the arguments that are no options; nothing when --help was given, whose text is
    ///     written then
    /// @throws UsageError  an option is unknown or has not the value that it needs
    std::optional<std::vector<std::string>> read(const Arguments& arguments);

    /// Whether an option was on the line that was read.
    bool has(const std::string& name) const;

private:
    // Keeps the parser out of the commands, which it takes longer to compile than they do.
    struct Impl;

    std::unique_ptr<Impl> impl_;
};
