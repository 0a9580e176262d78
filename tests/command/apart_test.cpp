#include "apart.h"

#include "command.h"
#include "command_line.h"
#include "output.h"

#include <gtest/gtest.h>

#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <functional>
#include <stdexcept>
#include <string>

namespace {

/// What came of some work, and what was written on standard error.
struct Outcome {
    int status;
    std::string err;
};

Outcome outcome_of(const std::function<int()>& work)
{
    testing::internal::CaptureStderr();
    const int status = run_apart(work);
    return {status, testing::internal::GetCapturedStderr()};
}

void expect_outcome(const std::function<int()>& work, int status, const std::string& err)
{
    const Outcome outcome = outcome_of(work);

    EXPECT_EQ(outcome.status, status);
    EXPECT_EQ(outcome.err, err);
}

TEST(RunApart, GivesTheStatusOfTheWork)
{
    for (const int status : {kDone, kFailed, kWrongUse, kWrongGraph}) {
        expect_outcome([status] { return status; }, status, "");
    }
}

TEST(RunApart, ReportsExceptions)
{
    expect_outcome([]() -> int { throw UsageError("no file"); }, kWrongUse,
                   "quorval: error: no file\n");
    expect_outcome([]() -> int { throw std::runtime_error("no luck"); }, kFailed,
                   "quorval: error: no luck\n");
}

// An emulator tells of such a crash itself, too.
#ifndef QUORVAL_IS_EMULATED
TEST(RunApart, TellsOfACrashThatCouldNotBeReported)
{
    expect_outcome(
        [] {
            static_cast<void>(std::signal(SIGSEGV, SIG_DFL));
            return std::raise(SIGSEGV);
        },
        kWrongGraph, "quorval: error: ended by signal 11 (SIGSEGV)\n");
}
#endif

TEST(RunApart, TellsOfAnEndWithoutAReason)
{
    const std::string text = "quorval: error: a plug-in ended the process without exit()\n";

    expect_outcome([]() -> int { ::_exit(kDone); }, kWrongGraph, text);
    expect_outcome([]() -> int { ::_exit(kWrongGraph); }, kWrongGraph, text);
}

// An emulator has threads of its own, and a process with threads ends without exit().
#ifndef QUORVAL_IS_EMULATED
/// After the work, with another status than that of the work.
TEST(RunApart, TellsOfAnEndWithoutAReasonWhileTheProcessEnds)
{
    expect_outcome(
        [] {
            std::atexit([] { ::_exit(kFailed); });
            return kDone;
        },
        kWrongGraph, "quorval: error: a plug-in ended the process without exit()\n");
}

/// Behind the end of the work, which is an exit().
TEST(RunApart, NamesTheSignalThatEndedTheProcessAtItsExit)
{
    static bool dies = false;
    ASSERT_EQ(std::atexit([] {
                  if (dies) {
                      ::raise(SIGKILL);
                  }
              }),
              0);

    expect_outcome(
        [] {
            dies = true;
            return kDone;
        },
        kWrongGraph, "quorval: error: ended by signal 9 (SIGKILL)\n");
}
#endif

TEST(RunApart, NamesTheSignalThatEndedTheWork)
{
    expect_outcome([] { return ::raise(SIGKILL); }, kWrongGraph,
                   "quorval: error: ended by signal 9 (SIGKILL)\n");
}

TEST(RunApart, TellsOfASignalThatHasNoName)
{
    expect_outcome([] { return ::raise(SIGRTMIN); }, kWrongGraph,
                   "quorval: error: ended by signal " + std::to_string(SIGRTMIN) + " (SIG?)\n");
}

}  // namespace
