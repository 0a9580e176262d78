#include "support/process.h"

#include <gtest/gtest.h>

#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cstdlib>

namespace {

using quorval_test::Process;
using quorval_test::ProcessOptions;

/// Starts a program that never ends, and ends without a word.
[[noreturn]] void start_and_end()
{
    ProcessOptions options;
    options.command = {"sh", "-c", "echo here; exec sleep infinity"};
    Process program(options);
    ::_exit(program.wait_for("here\n") ? EXIT_SUCCESS : EXIT_FAILURE);
}

TEST(Process, EndsWithTheTestThatStartedIt)
{
    std::array<int, 2> ends{};
    ASSERT_EQ(::pipe(ends.data()), 0);
    const pid_t test = ::fork();
    if (test == 0) {
        start_and_end();
    }
    ::close(ends[1]);
    int status = -1;
    ASSERT_EQ(::waitpid(test, &status, 0), test);
    ASSERT_EQ(status, 0);

    // The program has the other end of the pipe too, until it ends.
    constexpr int kPatience = 60'000;  // ms
    pollfd end = {ends[0], POLLIN, 0};
    EXPECT_EQ(::poll(&end, 1, kPatience), 1);
    ::close(ends[0]);
}

}  // namespace
