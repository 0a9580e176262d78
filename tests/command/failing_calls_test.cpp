// Each system call of the command fails in turn, and the command is killed at each.
#include <quorval/runtime/recording.h>
#include "command/faulty_command.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

namespace {

namespace fs = std::filesystem;

using quorval_test::Call;
using quorval_test::FaultyCommand;
using quorval_test::ProcessResult;
using quorval_test::read_file;
using Arguments = std::vector<std::string>;

class FailingCalls : public FaultyCommand {
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

    void clean() override
    {
        for (const char* name : {"state", "r", "t.json"}) {
            fs::remove_all(file(name));
        }
        write("out.csv", "old\n");
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
};

const Arguments kRun = {"run", "--state", "state", "--record", "r", "--trace", "t.json", "g.toml"};

TEST_F(FailingCalls, EndARunInOrder)
{
    calls_of(kRun);
    const std::string new_text = read_file(file("out.csv"));
    const int all_waves = waves();
    ASSERT_GT(all_waves, 0);

    std::size_t failed = 0;
    const Check check = [&](const ProcessResult& result) {
        expect_orderly_end(result);
        expect_old_or_new(new_text);
        EXPECT_EQ(result.out, "");
        failed += result.status != 0 ? 1 : 0;
        if (result.status == 0) {
            EXPECT_EQ(read_file(file("out.csv")), new_text) << result.err;
            EXPECT_EQ(waves(), all_waves) << result.err;
        }
    };
    fail_each(kRun, calls_of(kRun), check);
    EXPECT_GT(failed, 50U / QUORVAL_FAULT_STEP);

    constexpr std::size_t kPairs = 100;
    fail_two(kRun, kPairs / QUORVAL_FAULT_STEP, check);
}

TEST_F(FailingCalls, LeaveItsSignalsToARunWhoseRecordingGetsNoThread)
{
    const ProcessResult result =
        run_with({"run", "--record", "r", "g.toml"}, {"pthread_create", 0}, EAGAIN);

    quorval_test::expect_result(
        result, 1, "", "quorval: error: 'r' cannot be written: Resource temporarily unavailable\n");
}

#ifdef QUORVAL_HAS_THREADS
TEST_F(FailingCalls, LeaveThoseThreadsToARunThatItGot)
{
    const unsigned wanted = std::min(2U, std::thread::hardware_concurrency());

    const ProcessResult result =
        run_with({"run", "--threads", "2", "g.toml"}, {"pthread_create", 0}, EAGAIN);

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

    const ProcessResult result = run_with({"run", "--threads", "2", "--record", "r", "g.toml"},
                                          {"pthread_create", 1}, EAGAIN);

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

    fail_each(run, calls_of(run), [&](const ProcessResult& result) {
        expect_orderly_end(result);
        expect_appended(new_text);
        EXPECT_TRUE(result.status != 0 || read_file(file("out.csv")) == new_text) << result.err;
    });
}

TEST_F(FailingCalls, EndACheckInOrder)
{
    const Arguments check = {"check", "g.toml"};
    fail_each(check, calls_of(check), [](const ProcessResult& result) {
        const bool is_well = result.status == 0;
        expect_orderly_end(result);
        EXPECT_EQ(result.out,
                  is_well ? "3 blocks, 2 connections: no problem found\n" : std::string());
        EXPECT_EQ(result.err.find("error: ") == std::string::npos, is_well) << result.err;
    });
}

TEST_F(FailingCalls, EndAnInspectionInOrder)
{
    const Arguments inspect = {"inspect", "--json", "basic", "Print"};
    const std::vector<Call> calls = calls_of(inspect);
    const std::string whole = run_with(inspect, {"", 0}, EIO).out;
    EXPECT_NE(whole.find("\"Print\""), std::string::npos);

    fail_each(inspect, calls, [](const ProcessResult& result) {
        EXPECT_TRUE(result.status == 0 || result.status == 1 || result.status == 3)
            << result.status << ", signal " << result.signal;
        const bool has_error = result.err.find("quorval: error: ") != std::string::npos;
        EXPECT_EQ(has_error, result.status == 1) << result.err;
        // The note of a file that is not opened for it is left out.
        const bool has_ports = result.out.find("\"inports\": ") != std::string::npos;
        EXPECT_TRUE(has_ports || result.status != 0) << result.out;
    });
    for (const Call& call : calls) {
        if (call.name == "write" || call.name == "waitpid") {
            SCOPED_TRACE(call.name + " " + std::to_string(call.number));
            quorval_test::expect_result(run_with(inspect, call, EINTR), 0, whole, "");
        }
    }
}

TEST_F(FailingCalls, EndADrawingInOrder)
{
    write("dot", "#!/bin/sh\necho drawn\n");
    fs::permissions(file("dot"), fs::perms::owner_all);
    const quorval_test::ScopedEnvironment path("PATH", directory() + ":" + std::getenv("PATH"));
    const Arguments draw = {"graph", "--format", "svg", "g.toml"};

    fail_each(draw, calls_of(draw), [](const ProcessResult& result) {
        expect_orderly_end(result);
        EXPECT_EQ(result.out, result.status == 0 ? "drawn\n" : "");
    });
}

TEST_F(FailingCalls, AreNamedWhereThereIsNoProcessForPlugins)
{
    const std::string no_process = "quorval: error: fork: Resource temporarily unavailable\n";
    for (const Arguments& arguments : {Arguments{"check", "g.toml"}, {"inspect", "basic"}}) {
        quorval_test::expect_result(run_with(arguments, {"fork", 0}, EAGAIN), 1, "", no_process);
    }
    quorval_test::expect_result(run_with({"inspect", "basic"}, {"pipe2", 0}, EMFILE), 1, "",
                                "quorval: error: pipe2: Too many open files\n");
}

TEST_F(FailingCalls, AreNamedWhereAProcessForPluginsIsLost)
{
    const Arguments check = {"check", "g.toml"};

    const ProcessResult lost = run_with(check, {"waitpid", 0}, ECHILD);
    EXPECT_EQ(lost.status, 1);
    EXPECT_EQ(lost.err, "quorval: error: waitpid: No child processes\n");
    quorval_test::expect_result(run_with(check, {"waitpid", 0}, EINTR), 0,
                                "3 blocks, 2 connections: no problem found\n", "");
}

TEST_F(FailingCalls, EndAReplayInOrder)
{
    calls_of({"run", "--record", "r", "g.toml"});
    const std::string new_text = read_file(file("out.csv"));
    fs::rename(file("r"), file("kept"));
    const Arguments replay = {"replay", "--fast", "kept", "g.toml"};

    fail_each(replay, calls_of(replay), [&](const ProcessResult& result) {
        expect_orderly_end(result);
        expect_old_or_new(new_text);
        EXPECT_TRUE(result.status != 0 || read_file(file("out.csv")) == new_text) << result.err;
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
