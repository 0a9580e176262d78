// What the tests share that let the system calls of the command fail.
#pragma once

#include "command/command_test.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <functional>
#include <string>
#include <vector>

namespace quorval_test {

/// One call of a program.
struct Call {
    std::string name;
    int number = 0;  // among those of that name
};

/// Runs `quorval` with functions preloaded that fail on demand.
class FaultyCommand : public CommandTest {
protected:
    using Arguments = std::vector<std::string>;
    using Check = std::function<void(const ProcessResult&)>;

    // In place of an errno: the program is killed.
    static constexpr int kDiesBefore = -1;
    static constexpr int kDiesBehind = -2;

    std::string file(const std::string& name) const { return directory() + "/" + name; }

    /// Makes everything as it is before each run.
    virtual void clean() = 0;

    /// Runs the command to its end.
    virtual ProcessResult run_faulty(const ProcessOptions& options) { return run_process(options); }

    /// The command, in which a call fails.
    /// @param what   an errno, or how it dies
    /// @param count  so many fail, from that one on
    ProcessOptions faulty(const Arguments& arguments, const Call& call, int what,
                          int count = 1) const;

    /// The calls of a run in which none fails.
    std::vector<Call> calls_of(const Arguments& arguments);

    ProcessResult run_with(const Arguments& arguments, const Call& call, int what);

    /// Has another call of a program fail, too.
    static void fail_too(ProcessOptions& options, const Call& call, int what);

    /// Runs with each of these calls failing in each way.
    /// @param step  more than 1: only every so many of these runs, where one takes long
    void fail_each(const Arguments& arguments, const std::vector<Call>& calls, const Check& check,
                   std::size_t step = 1);

    /// Runs with two calls failing: one by chance, and one of those that are made behind it then.
    /// @param pairs  of calls
    void fail_two(const Arguments& arguments, std::size_t pairs, const Check& check);

    /// An end in order, with a message unless nothing failed.
    static void expect_orderly_end(const ProcessResult& result);

private:
    ProcessOptions preloaded(const Arguments& arguments) const;
    /// @param calls  out: those of the run
    ProcessResult run_noted(ProcessOptions options, std::vector<Call>& calls);
};

}  // namespace quorval_test
