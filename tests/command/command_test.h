// What the tests of the command share: they run it as a process.
#pragma once

#include "support/process.h"
#include "support/support.h"

#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

namespace quorval_test {

/// A test of `quorval` in a working directory of its own, with the plug-ins of these tests.
class CommandTest : public testing::Test {
protected:
    /// Writes a file of the working directory.
    void write(const std::string& name, const std::string& text) const;

    /// `quorval` with these arguments.
    ProcessOptions command(const std::vector<std::string>& arguments) const;

    ProcessResult run(const std::vector<std::string>& arguments) const;

    /// Without what the emulator says about a program that a signal ends; run() has it so.
    static ProcessResult without_emulator(ProcessResult result);

    /// Sets a variable of the environment of `quorval` that does not concern the emulator.
    static void set_variable(ProcessOptions& options, const std::string& name,
                             const std::string& value);

    std::string directory() const { return work_.path().string(); }

private:
    TemporaryDirectory work_;
};

/// Expects the whole of a result: exit status and both streams.
void expect_result(const ProcessResult& result, int status, const std::string& out,
                   const std::string& err);

/// Expects wrong use: status 2, and one line on standard error.
void expect_wrong_use(const ProcessResult& result, const std::string& text);

}  // namespace quorval_test
