#include <quorval/runtime/crash.h>
#include "messages/context.h"
#include "messages/crash_threads.h"
#include "messages/plugin_code.h"
#include "messages/turn.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <iterator>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace {

using Quorval::report_crashes;
using Quorval::report_sudden_exit;
using Quorval::runtime::ContextScope;
using Quorval::runtime::Deeds;
using Quorval::runtime::do_in_turn;
using Quorval::runtime::forget_plugin_code;
using Quorval::runtime::have_crash_stack;
using Quorval::runtime::LoadScope;
using Quorval::runtime::note_plugin_code;
using Quorval::runtime::report_exit_first;
using Quorval::runtime::TurnScope;
using Quorval::runtime::was_started;

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

void overflow_in_a_thread()
{
    report_crashes();
    std::thread thread([] {
        have_crash_stack();
        const ContextScope scope("a", "run");
        std::exit(overflow(0));
    });
    thread.join();
}

void exit_in(const char* operation)
{
    report_crashes();
    const ContextScope scope("a", operation);
    std::exit(0);
}

/// Tells of each of two calls whether it has named somebody.
void exit_suddenly_in(const char* operation, bool is_reported = true)
{
    if (is_reported) {
        report_crashes();
    }
    const ContextScope scope("a", operation);
    int status = 7;
    const bool first = report_sudden_exit(status);
    const bool second = report_sudden_exit(status);
    std::cerr << first << second;
    ::_exit(status);
}

/// 'S' where a thread of the process sleeps.
char state_of(pid_t thread)
{
    std::ifstream file("/proc/self/task/" + std::to_string(thread) + "/stat");
    const std::string text{std::istreambuf_iterator<char>(file), {}};
    const std::size_t name = text.rfind(") ");
    return name == std::string::npos ? ' ' : text[name + 2];
}

/// Names one thread, and ends the process when the other one waits.
void exit_suddenly_in_two_threads()
{
    report_crashes();
    const ContextScope scope("a", "run");
    int status = 7;
    report_sudden_exit(status);
    std::atomic<pid_t> other{0};
    std::thread thread([&other] {
        const ContextScope theirs("b", "run");
        other = ::gettid();
        int ignored = 7;
        report_sudden_exit(ignored);
        ::_exit(ignored);
    });
    while (state_of(other) != 'S') {
        std::this_thread::yield();
    }
    ::_exit(status);
}

/// And with the status of the child.
void exit_suddenly_in_a_child()
{
    report_crashes();
    int state = 0;
    {
        const ContextScope scope("a", "run");
        if (::fork() == 0) {
            int status = 7;
            report_sudden_exit(status);
            ::_exit(status);
        }
        ::wait(&state);
    }
    std::exit(WEXITSTATUS(state));
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
    for (const auto& overflow_somewhere : {overflow_in_run, overflow_in_a_thread}) {
        EXPECT_EXIT(overflow_somewhere(), testing::KilledBySignal(SIGSEGV),
                    "quorval: fatal: block 'a' crashed in run: signal 11 \\(SIGSEGV\\)\n");
    }
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

TEST(ReportCrashesDeathTest, NamesOnceWhoEndsTheProcessSuddenly)
{
    EXPECT_EXIT(exit_suddenly_in("run"), testing::ExitedWithCode(1),
                "^quorval: fatal: block 'a' called exit in run\n10$");
    EXPECT_EXIT(exit_suddenly_in("create"), testing::ExitedWithCode(3),
                "^quorval: fatal: block 'a' called exit in create\n10$");
    EXPECT_EXIT(exit_suddenly_in(nullptr), testing::ExitedWithCode(7), "^00$");
    EXPECT_EXIT(exit_suddenly_in("run", false), testing::ExitedWithCode(7), "^00$");
}

TEST(ReportCrashesDeathTest, HasOthersWaitUntilTheProcessIsEndedByWhoWasNamed)
{
    EXPECT_EXIT(exit_suddenly_in_two_threads(), testing::ExitedWithCode(1),
                "^quorval: fatal: block 'a' called exit in run\n$");
}

TEST(ReportCrashesDeathTest, NamesNobodyWhoEndsAChild)
{
    EXPECT_EXIT(exit_suddenly_in_a_child(), testing::ExitedWithCode(7), "^$");
}

/// The code of this program is taken for that of a plug-in.
void exit_in_plugin_code(bool is_started)
{
    static constexpr int kHere = 0;
    report_crashes();
    was_started() = is_started;
    note_plugin_code(&kHere, "sound");
    std::exit(7);
}

void exit_where_plugin_code_was()
{
    static constexpr int kHere = 0;
    report_crashes();
    note_plugin_code(&kHere, "sound");
    forget_plugin_code(&kHere);
    std::exit(7);
}

TEST(ReportCrashesDeathTest, NamesThePluginOutsideOfOperations)
{
    EXPECT_EXIT(exit_in_plugin_code(false), testing::ExitedWithCode(3),
                "^quorval: fatal: plug-in 'sound' called exit\n$");
    EXPECT_EXIT(exit_in_plugin_code(true), testing::ExitedWithCode(1),
                "^quorval: fatal: plug-in 'sound' called exit\n$");
    EXPECT_EXIT(exit_where_plugin_code_was(), testing::ExitedWithCode(7), "^$");
}

/// As what a library does that was loaded by then and is destroyed.
void have_library()
{
    static_cast<void>(std::atexit([] { std::cerr << "library ends\n"; }));
}

void exit_before_libraries_end()
{
    report_crashes();
    const ContextScope scope("a", "run");
    have_library();
    report_exit_first();
    std::exit(0);
}

void exit_after_a_library_that_was_loaded_later()
{
    report_crashes();
    const ContextScope scope("a", "run");
    report_exit_first();
    have_library();
    report_exit_first();
    std::exit(0);
}

void exit_without_reports()
{
    const ContextScope scope("a", "run");
    report_exit_first();
    std::exit(7);
}

TEST(ReportCrashesDeathTest, NamesWhoEndsTheProcessBeforeWhatThreadsUseIsDestroyed)
{
    EXPECT_EXIT(exit_before_libraries_end(), testing::ExitedWithCode(1),
                testing::StrEq("quorval: fatal: block 'a' called exit in run\n"));
    EXPECT_EXIT(exit_after_a_library_that_was_loaded_later(), testing::ExitedWithCode(1),
                testing::StrEq("library ends\nquorval: fatal: block 'a' called exit in run\n"));
    EXPECT_EXIT(exit_without_reports(), testing::ExitedWithCode(7), testing::StrEq(""));
}

TEST(ReportCrashesDeathTest, LetsTheProgramItselfExit)
{
    EXPECT_EXIT(exit_outside(), testing::ExitedWithCode(7), "^$");
}

void crash_with(const char* path, const char* operation)
{
    report_crashes();
    const ContextScope scope(path, operation);
    ::raise(SIGABRT);
}

// An emulator adds a line of its own.
TEST(ReportCrashesDeathTest, NamesEachSignal)
{
    for (const auto& [signal, name] :
         {std::pair(SIGBUS, "SIGBUS"), std::pair(SIGILL, "SIGILL"), std::pair(SIGTRAP, "SIGTRAP"),
          std::pair(SIGSYS, "SIGSYS"), std::pair(SIGABRT, "SIGABRT")}) {
        EXPECT_EXIT(
            crash_in_run(signal), testing::KilledBySignal(signal),
            testing::StartsWith("quorval: fatal: block 'left/gain' crashed in run: signal " +
                                std::to_string(signal) + " (" + name + ")\n"));
    }
}

TEST(ReportCrashesDeathTest, CutsALineThatIsTooLong)
{
    const std::string path(10'000, 'x');

    EXPECT_EXIT(crash_with(path.c_str(), "run"), testing::KilledBySignal(SIGABRT),
                testing::StartsWith("quorval: fatal: block '" + path.substr(0, 8191 - 23) + "\n"));
}

TEST(ReportCrashesDeathTest, NamesNoBlockOutsideOfItsOperations)
{
    const auto text = testing::StartsWith("quorval: fatal: signal 6 (SIGABRT)\n");

    EXPECT_EXIT(crash_with("a", nullptr), testing::KilledBySignal(SIGABRT), text);
    EXPECT_EXIT(crash_with(nullptr, "run"), testing::KilledBySignal(SIGABRT), text);
}

void exit_with_words_that_wait()
{
    report_crashes();
    const ContextScope scope("a", "run");
    std::FILE* const stream = ::fdopen(::dup(STDERR_FILENO), "w");
    static_cast<void>(std::fputs("buffered\n", stream));
    Deeds deeds;
    const TurnScope turn(deeds);
    do_in_turn([] { std::cerr << "in turn\n"; });
    std::exit(0);
}

void exit_quickly()
{
    report_crashes();
    const ContextScope scope("a", "run");
    std::quick_exit(0);
}

TEST(ReportCrashesDeathTest, SaysWhatTheBlockHadToSayBeforeItEndedTheProcess)
{
    EXPECT_EXIT(
        exit_with_words_that_wait(), testing::ExitedWithCode(1),
        testing::StrEq("in turn\nbuffered\nquorval: fatal: block 'a' called exit in run\n"));
    EXPECT_EXIT(exit_quickly(), testing::ExitedWithCode(1),
                testing::StrEq("quorval: fatal: block 'a' called exit in run\n"));
}

// The address sanitizer gives each thread a stack for signals.
#ifndef __SANITIZE_ADDRESS__

stack_t present_stack()
{
    stack_t stack{};
    EXPECT_EQ(::sigaltstack(nullptr, &stack), 0);
    return stack;
}

TEST(CrashStack, IsGivenToAThreadThatHasNone)
{
    std::thread([] {
        EXPECT_EQ(present_stack().ss_flags, SS_DISABLE);
        have_crash_stack();
        EXPECT_EQ(present_stack().ss_flags, 0);
        EXPECT_GE(present_stack().ss_size, static_cast<std::size_t>(MINSIGSTKSZ));
    }).join();
}

/// Looks at the end of a thread whether there is a stack, after what the thread made later is gone.
class LastLook {
public:
    explicit LastLook(int& flags) : flags_(flags) {}
    LastLook(const LastLook&) = delete;
    LastLook& operator=(const LastLook&) = delete;
    ~LastLook() { flags_ = present_stack().ss_flags; }

private:
    int& flags_;
};

TEST(CrashStack, IsGivenBackBeforeItIsGone)
{
    int flags = 0;

    std::thread([&flags] {
        static const thread_local LastLook kLook(flags);
        have_crash_stack();
    }).join();

    EXPECT_EQ(flags, SS_DISABLE);
}

TEST(CrashStack, LeavesAThreadTheOneThatItHas)
{
    std::vector<char> memory(65536);
    std::thread([&memory] {
        stack_t own{};
        own.ss_sp = memory.data();
        own.ss_size = memory.size();
        EXPECT_EQ(::sigaltstack(&own, nullptr), 0);
        have_crash_stack();
        EXPECT_EQ(present_stack().ss_sp, memory.data());
        own.ss_flags = SS_DISABLE;
        EXPECT_EQ(::sigaltstack(&own, nullptr), 0);
    }).join();
}

#endif

}  // namespace
