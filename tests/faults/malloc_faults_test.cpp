// Lets malloc fail, for those who do not allocate with operator new: the C library where it formats
// a message, opens a file or loads a library, and the making of an exception.
#include <quorval/config.h>
#include <quorval/dlloader.h>
#include <quorval/log.h>
#include <quorval/pstore.h>
#include "support/support.h"

#include <gtest/gtest.h>

#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <exception>
#include <map>
#include <new>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

// What malloc is in the C library, under a name that stays reachable when a program replaces it.
extern "C" void* __libc_malloc(std::size_t size);                     // NOLINT
extern "C" void* __libc_calloc(std::size_t count, std::size_t size);  // NOLINT
extern "C" void* __libc_realloc(void* block, std::size_t size);       // NOLINT

namespace {

thread_local std::size_t left = 0;  // calls up to the one that fails, 0 when none is to fail
thread_local bool goes_on = false;
thread_local bool has_failed = false;

bool is_to_fail()
{
    if (has_failed) {
        return goes_on;
    }
    has_failed = left != 0 && --left == 0;
    return has_failed;
}

}  // namespace

extern "C" void* malloc(std::size_t size)
{
    if (is_to_fail()) {
        errno = ENOMEM;
        return nullptr;
    }
    return __libc_malloc(size);
}

extern "C" void* calloc(std::size_t count, std::size_t size)
{
    if (is_to_fail()) {
        errno = ENOMEM;
        return nullptr;
    }
    return __libc_calloc(count, size);
}

extern "C" void* realloc(void* block, std::size_t size)
{
    if (is_to_fail()) {
        errno = ENOMEM;
        return nullptr;
    }
    return __libc_realloc(block, size);
}

namespace {

using Quorval::BlockConfiguration;
using Quorval::DlLoader;
using Quorval::PStore;
using quorval_test::LogRecorder;
using quorval_test::open_descriptors;
using quorval_test::TemporaryDirectory;

const char* const kPlugin = "quorval_test_faults_plugin.so";

/// What came out of a run: Swallowed when nothing did although a call failed.
enum class Result { Success, Swallowed, BadAlloc, RuntimeError, StreamFailure, LogicError, Other };

/// Runs `act` with its `nth` call of malloc failing.
template <class Act>
Result run(std::size_t nth, bool from_then_on, Act&& act)
{
    Result result = Result::Success;
    left = nth;
    goes_on = from_then_on;
    has_failed = false;
    try {
        std::forward<Act>(act)();
    } catch (const std::bad_alloc&) {
        result = Result::BadAlloc;
    } catch (const std::ios_base::failure&) {
        result = Result::StreamFailure;
    } catch (const std::logic_error&) {
        result = Result::LogicError;
    } catch (const std::runtime_error&) {
        result = Result::RuntimeError;
    } catch (...) {
        result = Result::Other;
    }
    left = 0;
    goes_on = false;
    if (result == Result::Success && has_failed) {
        return Result::Swallowed;
    }
    return result;
}

/// Runs `act` with its first, its second, its third call of malloc failing, until none is left to
/// fail, and hands each result to `check`. Returns how many calls there were.
template <class Act, class Check>
std::size_t fail_each_call(bool from_then_on, Act act, Check check)
{
    act();  // makes what is made once in a process
    for (std::size_t nth = 1; nth < 10'000; ++nth) {
        SCOPED_TRACE("call " + std::to_string(nth) + (from_then_on ? " and all after it" : ""));
        const std::vector<int> descriptors = open_descriptors();
        const Result result = run(nth, from_then_on, act);
        EXPECT_EQ(open_descriptors(), descriptors);
        if (!has_failed) {
            EXPECT_EQ(result, Result::Success);
            return nth - 1;
        }
        check(result);
        if (testing::Test::HasFailure()) {
            return nth - 1;
        }
    }
    ADD_FAILURE() << "never succeeded";
    return 0;
}

TEST(MallocFailure, LosesAMessageThatCannotBeFormattedAndNothingElse)
{
    const LogRecorder recorder;

    const Result result =
        run(1, false, [] { logger(LOGLEVEL_INFO, "a text of %s", "some length"); });
    const bool failed = has_failed;
    const std::vector<std::string> lost = recorder.texts();
    logger(LOGLEVEL_INFO, "a text of %s", "some length");

    EXPECT_TRUE(failed);
    EXPECT_EQ(result, Result::Swallowed);
    EXPECT_EQ(lost, std::vector<std::string>{});
    EXPECT_EQ(recorder.texts(), std::vector<std::string>{"a text of some length"});
}

TEST(MallocFailure, LeavesTheRefusalOfAGetterAsItIs)
{
    const BlockConfiguration config{{"a", 1}};
    const auto act = [&config] {
        try {
            config.getInt("b");
        } catch (const std::out_of_range& error) {
            EXPECT_STREQ(error.what(),
                         "BlockConfiguration::getInt failed, the parameter 'b' does not exist");
        }
    };

    for (const bool from_then_on : {false, true}) {
        const std::size_t calls = fail_each_call(from_then_on, act, [](Result result) {
            // The exception itself comes out of the reserve that the C++ runtime keeps.
            EXPECT_TRUE(result == Result::Swallowed || result == Result::BadAlloc);
        });
        EXPECT_GT(calls, 0U);
    }
}

TEST(MallocFailure, KeepsTheOldFileOfAStore)
{
    const TemporaryDirectory directory;
    PStore store(directory.store_path());
    const BlockConfiguration before{{"a-key-that-is-not-a-short-one", 1}};
    const BlockConfiguration after{{"a-key-that-is-not-a-short-one", 2}};
    const auto act = [&] { store.store("file", after); };

    for (const bool from_then_on : {false, true}) {
        const std::size_t calls = fail_each_call(from_then_on, act, [&](Result result) {
            EXPECT_EQ(result, Result::BadAlloc);
            const BlockConfiguration stored = store.load("file");
            EXPECT_TRUE(stored == before || stored == after);
            store.store("file", before);
        });
        EXPECT_GT(calls, 0U);
    }
}

TEST(MallocFailure, ReportsAFileThatCannotBeOpened)
{
    const TemporaryDirectory directory;
    PStore store(directory.store_path());
    store.store("file", {{"a", 1}});
    const auto act = [&] { store.ifstream("file"); };

    for (const bool from_then_on : {false, true}) {
        const std::size_t calls = fail_each_call(from_then_on, act, [](Result result) {
            EXPECT_TRUE(result == Result::BadAlloc || result == Result::StreamFailure);
        });
        EXPECT_GT(calls, 0U);
    }
}

/// The status with which a child process ends that loads and closes the plug-in while its `nth`
/// call of malloc fails: the Result of the loading, or kTerminated.
constexpr int kTerminated = 100;

int load_in_child(std::size_t nth, const std::string& path)
{
    const ::pid_t child = ::fork();
    if (child == 0) {
        std::set_terminate([] { ::_exit(kTerminated); });
        const Result result = run(nth, false, [&path] { DlLoader loader(path); });
        const bool is_loadable =
            run(0, false, [&path] { DlLoader loader(path); }) == Result::Success;
        if (!is_loadable) {
            ::_exit(static_cast<int>(Result::Other));
        }
        ::_exit(static_cast<int>(result));
    }
    int status = 0;
    EXPECT_EQ(::waitpid(child, &status, 0), child);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

// In a process of its own each time, because a message that cannot be finished ends the process.
TEST(MallocFailure, ReportsALibraryThatCannotBeOpened)
{
    const std::string path = std::string(QUORVAL_TEST_PLUGIN_DIR) + "/" + kPlugin;
    std::map<int, int> endings;
    int status = -1;

    for (std::size_t nth = 1; nth < 1000 && status != static_cast<int>(Result::Success); ++nth) {
        SCOPED_TRACE(nth);
        status = load_in_child(nth, path);
        ++endings[status];
        ASSERT_TRUE(status == static_cast<int>(Result::Success) ||
                    status == static_cast<int>(Result::RuntimeError) ||
                    status == static_cast<int>(Result::BadAlloc) ||
                    status == static_cast<int>(Result::Swallowed) || status == kTerminated)
            << status;
    }

    EXPECT_EQ(endings[static_cast<int>(Result::Success)], 1);
    EXPECT_GT(endings[static_cast<int>(Result::RuntimeError)], 0);
    // Two messages, of which each is copied once.
    EXPECT_EQ(endings[kTerminated], 2);
}

}  // namespace
