// Each system call of the command fails in turn, and the command is killed at each.
#include <quorval/runtime/recording.h>
#include "command/command_test.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <filesystem>
#include <map>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

namespace {

namespace fs = std::filesystem;

using quorval_test::CommandTest;
using quorval_test::ProcessOptions;
using quorval_test::ProcessResult;
using quorval_test::read_file;
using quorval_test::run_process;
using Arguments = std::vector<std::string>;

constexpr int kDiesBefore = -1;
constexpr int kDiesBehind = -2;

/// What each call may fail with.
const std::map<std::string, std::vector<int>> kErrors = {
    {"epoll_create1", {EMFILE, ENOMEM}},
    {"epoll_ctl", {ENOMEM, ENOSPC}},
    {"epoll_wait", {EINTR}},
    {"eventfd", {EMFILE}},
    {"flock", {ENOLCK, EINTR}},
    {"fork", {EAGAIN}},
    {"fsync", {EIO, ENOSPC}},
    {"ftruncate", {EIO}},
    {"mkdir", {ENOSPC, EROFS}},
    {"open", {EMFILE, EACCES, EROFS}},
    {"openat", {EMFILE, EACCES}},
    {"pipe2", {EMFILE}},
    {"pthread_create", {EAGAIN}},
    {"pwrite", {ENOSPC, EIO, EINTR}},
    {"read", {EIO, EINTR}},
    {"rename", {ENOSPC, EROFS}},
    {"timerfd_create", {EMFILE}},
    {"timerfd_settime", {ENOMEM}},
    {"unlink", {EROFS}},
    {"write", {ENOSPC, EIO, EINTR}},
};

/// One call of a program.
struct Call {
    std::string name;
    int number = 0;  // among those of that name
};

class FailingCalls : public CommandTest {
protected:
    FailingCalls()
    {
        write("g.toml", R"(format = 1
include = ["more.toml"]
connections = ["timer.tick -> sine.tick", "sine.out -> file.y"]
blocks.timer = { type = "basic:Timer", config = { period = 0.0001, count = 3 } }
blocks.sine = { type = "basic:Sine", config = { frequency = 3.0, rate = 100.0, amplitude = 1.0 } }
)");
        write("more.toml", R"(format = 1
[blocks.file]
type = "basic:CsvSink"
config = { path = "out.csv", columns = ["y"] }
)");
    }

    std::string file(const std::string& name) const { return directory() + "/" + name; }

    /// As it is before each run.
    void clean() const
    {
        for (const char* name : {"state", "r", "t.json", "calls"}) {
            fs::remove_all(file(name));
        }
        write("out.csv", "old\n");
    }

    ProcessResult run_preloaded(Arguments arguments, const std::string& name,
                                const std::string& value) const
    {
        arguments.insert(arguments.end(), {"--plugin-path", QUORVAL_BASIC_PLUGIN_DIR});
        ProcessOptions options = command(arguments);
        set_variable(options, "LD_PRELOAD", QUORVAL_TEST_FAULTY_CALLS);
        set_variable(options, name, value);
        // The runtime of the sanitizer wants to be first.
        options.environment.emplace_back("ASAN_OPTIONS", "verify_asan_link_order=0:detect_leaks=0");
        return run_process(options);
    }

    /// The calls of a run in which none fails.
    std::vector<Call> calls_of(const Arguments& arguments) const
    {
        clean();
        const ProcessResult result =
            run_preloaded(arguments, "QUORVAL_TEST_CALL_LOG", file("calls"));
        EXPECT_EQ(result.status, 0) << result.err;
        std::vector<Call> calls;
        std::map<std::string, int> numbers;
        std::istringstream log(read_file(file("calls")));
        for (std::string name; std::getline(log, name);) {
            calls.push_back({name, numbers[name]++});
        }
        return calls;
    }

    ProcessResult run_with(const Arguments& arguments, const Call& call, int what) const
    {
        clean();
        return run_preloaded(
            arguments, "QUORVAL_TEST_CALL",
            call.name + " " + std::to_string(call.number) + " " + std::to_string(what));
    }

    /// The number of waves in the recording; -1: there is none, or not its beginning.
    int waves() const
    {
        try {
            return static_cast<int>(Quorval::read_recording(file("r")).waves);
        } catch (const Quorval::RecordingError&) {
            return -1;
        }
    }

    /// The file from before, or a whole one of a run that came to its end or was stopped before.
    void expect_old_or_new(const std::string& new_text) const
    {
        const std::string text = read_file(file("out.csv"));
        const bool has_whole_rows = !text.empty() && text.back() == '\n';
        EXPECT_TRUE(text == "old\n" || (has_whole_rows && new_text.rfind(text, 0) == 0)) << text;
    }

    /// The file from before, with whole rows behind it.
    void expect_appended(const std::string& new_text) const
    {
        const std::string text = read_file(file("out.csv"));
        EXPECT_EQ(text.rfind("old\n", 0), 0U) << text;
        EXPECT_EQ(text.back(), '\n') << text;
        EXPECT_EQ(new_text.rfind(text, 0), 0U) << text;
    }

    /// An end in order, with a message unless nothing failed.
    static void expect_orderly_end(const ProcessResult& result)
    {
        EXPECT_TRUE(result.status == 0 || result.status == 1 || result.status == 3)
            << result.status << ", signal " << result.signal << "\n"
            << result.err;
        EXPECT_TRUE(result.status == 0 || result.err.find("error: ") != std::string::npos)
            << result.err;
    }

    /// Runs with each call failing in each way.
    template <class Check>
    void fail_each(const Arguments& arguments, Check check) const
    {
        const std::vector<Call> calls = calls_of(arguments);
        std::size_t number = 0;
        for (const Call& call : calls) {
            for (const int error : kErrors.at(call.name)) {
                if (number++ % QUORVAL_FAULT_STEP == 0) {
                    SCOPED_TRACE(call.name + " " + std::to_string(call.number) + ", errno " +
                                 std::to_string(error));
                    check(run_with(arguments, call, error));
                }
            }
        }
        EXPECT_GT(number, 0U);
    }
};

const Arguments kRun = {"run", "--state", "state", "--record", "r", "--trace", "t.json", "g.toml"};

TEST_F(FailingCalls, EndARunInOrder)
{
    calls_of(kRun);
    const std::string new_text = read_file(file("out.csv"));
    const int all_waves = waves();
    ASSERT_GT(all_waves, 0);

    std::size_t failed = 0;
    fail_each(kRun, [&](const ProcessResult& result) {
        expect_orderly_end(result);
        expect_old_or_new(new_text);
        EXPECT_EQ(result.out, "");
        failed += result.status != 0 ? 1 : 0;
        if (result.status == 0) {
            EXPECT_EQ(read_file(file("out.csv")), new_text) << result.err;
            EXPECT_EQ(waves(), all_waves) << result.err;
        }
    });
    EXPECT_GT(failed, 50U / QUORVAL_FAULT_STEP);
}

TEST_F(FailingCalls, LeaveItsSignalsToARunWhoseRecordingGetsNoThread)
{
    clean();

    const ProcessResult result =
        run_preloaded({"run", "--record", "r", "g.toml"}, "QUORVAL_TEST_CALL",
                      "pthread_create 0 " + std::to_string(EAGAIN));

    quorval_test::expect_result(
        result, 1, "", "quorval: error: 'r' cannot be written: Resource temporarily unavailable\n");
}

#ifdef QUORVAL_HAS_THREADS
TEST_F(FailingCalls, LeaveThoseThreadsToARunThatItGot)
{
    const unsigned wanted = std::min(2U, std::thread::hardware_concurrency());
    clean();

    const ProcessResult result =
        run_preloaded({"run", "--threads", "2", "g.toml"}, "QUORVAL_TEST_CALL",
                      "pthread_create 0 " + std::to_string(EAGAIN));

    quorval_test::expect_result(
        result, 0, "",
        wanted < 2 ? ""
                   : "quorval: warning: the graph has 1 of 2 threads: the system refuses "
                     "more\n");
    EXPECT_NE(read_file(file("out.csv")), "old\n");
}

TEST_F(FailingCalls, LeaveTheThreadOfItsRecordingToARun)
{
    const unsigned wanted = std::min(2U, std::thread::hardware_concurrency());
    clean();

    const ProcessResult result =
        run_preloaded({"run", "--threads", "2", "--record", "r", "g.toml"}, "QUORVAL_TEST_CALL",
                      "pthread_create 1 " + std::to_string(EAGAIN));

    quorval_test::expect_result(
        result, 0, "",
        wanted < 2 ? ""
                   : "quorval: warning: the graph has 1 of 2 threads: the system refuses "
                     "more\n");
    EXPECT_GT(waves(), 0);
}
#endif

TEST_F(FailingCalls, LeaveWholeRowsInAFileThatGrows)
{
    const Arguments run = {"run", "--set", "file.append=true", "g.toml"};
    calls_of(run);
    const std::string new_text = read_file(file("out.csv"));

    fail_each(run, [&](const ProcessResult& result) {
        expect_orderly_end(result);
        expect_appended(new_text);
        EXPECT_TRUE(result.status != 0 || read_file(file("out.csv")) == new_text) << result.err;
    });
}

TEST_F(FailingCalls, EndACheckInOrder)
{
    fail_each({"check", "g.toml"}, [](const ProcessResult& result) {
        const bool is_well = result.status == 0;
        expect_orderly_end(result);
        EXPECT_EQ(result.out,
                  is_well ? "3 blocks, 2 connections: no problem found\n" : std::string());
        EXPECT_EQ(result.err.find("error: ") == std::string::npos, is_well) << result.err;
    });
}

TEST_F(FailingCalls, AtWhichARunIsKilledLeaveWholeFiles)
{
    const std::vector<Call> calls = calls_of(kRun);
    const std::string new_text = read_file(file("out.csv"));
    int before = -1;
    std::size_t survivors = 0;
    for (std::size_t at = 0; at < calls.size(); at += QUORVAL_FAULT_STEP) {
        for (const int what : {kDiesBefore, kDiesBehind}) {
            SCOPED_TRACE((what == kDiesBefore ? "before " : "behind ") + calls[at].name + " " +
                         std::to_string(calls[at].number));
            const ProcessResult result = run_with(kRun, calls[at], what);

            // How often it waits is up to the clock.
            const bool is_dead = result.signal == SIGKILL;
            EXPECT_TRUE(is_dead || result.status == 0) << result.signal << "\n" << result.err;
            survivors += is_dead ? 0 : 1;
            expect_old_or_new(new_text);
            if (calls[at].name == "pwrite") {
                // What one of them has brought into the recording stays there.
                EXPECT_GE(waves(), before);
                before = waves();
            }
        }
    }
    EXPECT_LE(survivors, calls.size() / 10);
    EXPECT_GE(before, 0);
}

}  // namespace
