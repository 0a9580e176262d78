#include <quorval/runtime/crash.h>
#include "messages/context.h"

#include <gtest/gtest.h>

#include <csignal>
#include <cstdlib>
#include <string>

namespace {

using Quorval::report_crashes;
using Quorval::runtime::ContextScope;
using Quorval::runtime::LoadScope;

/// Takes a stack of any size.
[[gnu::noinline]] int overflow(int depth)
{
    volatile char room[4096] = {};
    room[static_cast<std::size_t>(depth) % sizeof room] = 1;
    return depth < 0 ? 0 : overflow(depth + 1) + room[0];
}

void crash_in_run(int signal)
{
    report_crashes();
    const ContextScope scope("left/gain", "run");
    ::raise(signal);
}

void crash_while_loading()
{
    report_crashes();
    const LoadScope scope("sound");
    ::raise(SIGSEGV);
}

void crash_outside()
{
    report_crashes();
    ::raise(SIGABRT);
}

void overflow_in_run()
{
    report_crashes();
    const ContextScope scope("a", "run");
    std::exit(overflow(0));
}

void exit_in(const char* operation)
{
    report_crashes();
    const ContextScope scope("a", operation);
    std::exit(0);
}

void exit_while_loading()
{
    report_crashes();
    const LoadScope scope("sound");
    std::exit(0);
}

void exit_outside()
{
    report_crashes();
    {
        const ContextScope scope("a", "run");
    }
    std::exit(7);
}

TEST(ReportCrashesDeathTest, NamesBlockOperationAndSignalAndDiesOfIt)
{
    EXPECT_EXIT(crash_in_run(SIGSEGV), testing::KilledBySignal(SIGSEGV),
                "^quorval: fatal: block 'left/gain' crashed in run: signal 11 \\(SIGSEGV\\)\n");
    EXPECT_EXIT(crash_in_run(SIGFPE), testing::KilledBySignal(SIGFPE),
                "^quorval: fatal: block 'left/gain' crashed in run: signal 8 \\(SIGFPE\\)\n");
}

TEST(ReportCrashesDeathTest, NamesThePluginThatIsLoaded)
{
    EXPECT_EXIT(crash_while_loading(), testing::KilledBySignal(SIGSEGV),
                "^quorval: fatal: plug-in 'sound' crashed while it was loaded: "
                "signal 11 \\(SIGSEGV\\)\n");
}

TEST(ReportCrashesDeathTest, NamesTheSignalAloneOutsideOfPlugins)
{
    EXPECT_EXIT(crash_outside(), testing::KilledBySignal(SIGABRT),
                "^quorval: fatal: signal 6 \\(SIGABRT\\)\n");
}

TEST(ReportCrashesDeathTest, ReportsAStackThatRanOver)
{
    EXPECT_EXIT(overflow_in_run(), testing::KilledBySignal(SIGSEGV),
                "quorval: fatal: block 'a' crashed in run: signal 11 \\(SIGSEGV\\)\n");
}

TEST(ReportCrashesDeathTest, NamesWhoEndsTheProcess)
{
    for (const std::string operation :
         {"start", "run", "stop", "reconfigure", "record", "D-Bus call"}) {
        EXPECT_EXIT(exit_in(operation.c_str()), testing::ExitedWithCode(1),
                    "^quorval: fatal: block 'a' called exit in " + operation + "\n");
    }
    for (const std::string operation : {"create", "connect", "destroy"}) {
        EXPECT_EXIT(exit_in(operation.c_str()), testing::ExitedWithCode(3),
                    "^quorval: fatal: block 'a' called exit in " + operation + "\n");
    }
    EXPECT_EXIT(exit_while_loading(), testing::ExitedWithCode(3),
                "^quorval: fatal: plug-in 'sound' called exit while it was loaded\n");
}

TEST(ReportCrashesDeathTest, LetsTheProgramItselfExit)
{
    EXPECT_EXIT(exit_outside(), testing::ExitedWithCode(7), "^$");
}

}  // namespace
