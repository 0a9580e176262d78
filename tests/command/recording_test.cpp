// Recordings from the command line.
#include <quorval/runtime/recording.h>
#include "command/command_test.h"

#include <sqlite3.h>

#include <chrono>
#include <csignal>
#include <ctime>
#include <filesystem>
#include <iomanip>
#include <sstream>
#include <string>
#include <vector>

namespace {

namespace fs = std::filesystem;

using quorval_test::CommandTest;
using quorval_test::expect_result;
using quorval_test::expect_wrong_use;
using quorval_test::Process;
using quorval_test::ProcessOptions;
using quorval_test::ProcessResult;
using quorval_test::read_file;
using quorval_test::run_process;
using Arguments = std::vector<std::string>;

class RecordingCommand : public CommandTest {
protected:
    RecordingCommand() { write_graph("0.0001", 50); }

    /// A sine, its ticks `period` seconds apart.
    void write_graph(const std::string& period, int count) const
    {
        write("sine.toml", R"(format = 1
connections = ["timer.tick -> sine.tick", "sine.out -> scale.in", "scale.out -> print.in"]
blocks.timer = { type = "basic:Timer", config = { period = )" +
                               period + ", count = " + std::to_string(count) + R"( } }
blocks.sine = { type = "basic:Sine", config = { frequency = 3.0, rate = 100.0, amplitude = 1.0 } }
blocks.scale = { type = "basic:Scale", config.factor = 2.0 }
blocks.print.type = "basic:Print"
)");
    }

    ProcessOptions command_with_basic(Arguments arguments) const
    {
        arguments.insert(arguments.end(), {"--plugin-path", QUORVAL_BASIC_PLUGIN_DIR});
        return command(arguments);
    }
    ProcessResult run_with_basic(const Arguments& arguments) const
    {
        return run_process(command_with_basic(arguments));
    }

    std::string file(const std::string& name) const { return directory() + "/" + name; }

    /// Changes the recording `r`.
    void change(const std::string& sql) const
    {
        sqlite3* database = nullptr;
        EXPECT_EQ(sqlite3_open(file("r").c_str(), &database), SQLITE_OK);
        EXPECT_EQ(sqlite3_exec(database, sql.c_str(), nullptr, nullptr, nullptr), SQLITE_OK);
        sqlite3_close(database);
    }

    std::uint64_t count_waves() const
    {
        try {
            return Quorval::read_recording(file("r")).waves;
        } catch (const Quorval::RecordingError&) {
            return 0;
        }
    }
};

TEST_F(RecordingCommand, ReplaysWhatWasRecordedBitForBit)
{
    const ProcessResult live = run_with_basic({"run", "--record", "r", "sine.toml"});
    ASSERT_EQ(live.status, 0) << live.err;
    ASSERT_EQ(count_waves(), 50U);

    expect_result(run_with_basic({"replay", "r", "sine.toml"}), 0, live.out, "");
    expect_result(run_with_basic({"replay", "--fast", "r", "sine.toml"}), 0, live.out, "");
}

TEST_F(RecordingCommand, ReplaysFastWhatTookHours)
{
    const ProcessResult live = run_with_basic({"run", "--record", "r", "sine.toml"});
    change("UPDATE part_1 SET time = time + wave * 3600000000000 WHERE id > 0");

    expect_result(run_with_basic({"replay", "--fast", "r", "sine.toml"}), 0, live.out, "");
}

TEST_F(RecordingCommand, ReplaysOnSeveralThreadsWhereTheBuildHasThem)
{
    const ProcessResult live = run_with_basic({"run", "--record", "r", "sine.toml"});
    ASSERT_EQ(live.status, 0) << live.err;
#ifdef QUORVAL_HAS_THREADS
    const std::string most = "2";
#else
    const std::string most = "1";
#endif

    expect_result(run_with_basic({"replay", "--fast", "--threads", most, "r", "sine.toml"}), 0,
                  live.out, "");
    expect_wrong_use(run({"replay", "--threads", "0", "r", "sine.toml"}),
                     "--threads has to be a number from 1 to 256, not '0'");
}

/// A recording is replayed in a graph with one block more.
class ReplayWithTrouble : public RecordingCommand {
protected:
    ReplayWithTrouble()
    {
        EXPECT_EQ(run_with_basic({"run", "--record", "r", "sine.toml"}).status, 0);
    }

    ProcessOptions replay(const std::string& where, const std::string& what,
                          const Arguments& more = {}) const
    {
        write("more.toml",
              "format = 1\nblocks.a = { type = \"trouble:Trouble\", config = { where = \"" + where +
                  "\", what = \"" + what + "\" } }\nblocks.odd.type = \"numbers:Odd\"\n");
        Arguments arguments = {"replay", "--fast", "-q", "r", "sine.toml", "more.toml"};
        arguments.insert(arguments.end(), more.begin(), more.end());
        return command_with_basic(arguments);
    }
};

TEST_F(ReplayWithTrouble, IsNotStartedAfterASignal)
{
    Process process(replay("constructor", "wait"));
    ASSERT_TRUE(process.wait_for("waiting\n"));

    process.send(SIGINT);

    expect_result(process.wait(), 0, "", "waiting\n");
}

TEST_F(ReplayWithTrouble, NamesTheBlockThatCrashes)
{
    const ProcessResult result = without_emulator(run_process(replay("start", "crash")));

    EXPECT_EQ(result.signal, SIGSEGV);
    EXPECT_EQ(result.err, "quorval: fatal: block 'a' crashed in start: signal 11 (SIGSEGV)\n");
}

TEST_F(ReplayWithTrouble, KeepsStateWhereItIsTold)
{
    expect_result(run_process(replay("start", "throw", {"--state", "state"})), 1, "",
                  "quorval: error: block 'a' failed in start: no luck\n");

    EXPECT_TRUE(fs::is_directory(file("state") + "/a"));
}

TEST_F(ReplayWithTrouble, RefusesAMachineWhereAllAreHere)
{
    expect_wrong_use(run_process(replay("", "", {"--local", "--machine", "hub"})),
                     "--machine and --local exclude each other");
}

TEST_F(RecordingCommand, ReplaysOutputsThatWereNamed)
{
    const ProcessResult live =
        run_with_basic({"run", "--record", "r", "--outputs", "sine.out,scale.out", "sine.toml"});
    ASSERT_EQ(live.status, 0) << live.err;

    expect_result(run_with_basic({"replay", "--fast", "r", "sine.toml"}), 0, live.out, "");
}

TEST_F(RecordingCommand, ShowsWhatAFileHolds)
{
    run_with_basic({"run", "--record", "r", "sine.toml"});

    const Quorval::RecordingInfo info = Quorval::read_recording(file("r"));
    const std::time_t begin = std::chrono::system_clock::to_time_t(info.begin);
    std::ostringstream expected;
    expected << "graph: sine\nbegin: " << std::put_time(std::gmtime(&begin), "%Y-%m-%d %H:%M:%S")
             << " UTC\nwaves: 50 in " << std::fixed << std::setprecision(3)
             << std::chrono::duration<double>(info.duration).count()
             << " s\nwhole: yes\ntimer.tick (int64): 50 values, 450 bytes\n";

    expect_result(run({"recording", "show", "r"}), 0, expected.str(), "");
}

TEST_F(RecordingCommand, ShowsThatWavesAreMissing)
{
    run_with_basic({"run", "--record", "r", "sine.toml"});
    EXPECT_EQ(run({"recording", "show", "r"}).out.find("missing"), std::string::npos);
    change("UPDATE part_1 SET wave = wave + 1 WHERE wave > 6; UPDATE recording SET waves = 51");

    EXPECT_NE(run({"recording", "show", "r"}).out.find("\nmissing waves: 1\nwhole: yes\n"),
              std::string::npos);
}

TEST_F(RecordingCommand, RefusesAFileThatIsThere)
{
    write("r", "mine");

    expect_result(run_with_basic({"run", "--record", "r", "sine.toml"}), 1, "",
                  "quorval: error: cannot record into 'r': File exists\n");
    EXPECT_EQ(read_file(file("r")), "mine");
}

TEST_F(RecordingCommand, RefusesOutputsThatAreNotThere)
{
    expect_result(run_with_basic(
                      {"run", "--record", "r", "--outputs", "sine.out,sine.ou,x.out", "sine.toml"}),
                  3, "",
                  "--outputs sine.ou: error: block 'sine' has no output 'ou'; it has out\n"
                  "--outputs x.out: error: there is no block 'x'\n");
    expect_result(run_with_basic({"run", "--record", "r", "--outputs", "sine.out,", "sine.toml"}),
                  3, "", "--outputs : error: there is no block ''\n");
    EXPECT_FALSE(fs::exists(file("r")));
}

TEST_F(RecordingCommand, RefusesAMachineThatIsNotThere)
{
    run_with_basic({"run", "--record", "r", "sine.toml"});

    expect_wrong_use(run_with_basic({"replay", "--machine", "hub", "r", "sine.toml"}),
                     "there is no machine 'hub'");
}

TEST_F(RecordingCommand, RefusesWhatIsNoRecording)
{
    const std::string text = "quorval: error: 'sine.toml' is no recording\n";
    expect_result(run_with_basic({"replay", "sine.toml", "sine.toml"}), 3, "", text);
    expect_result(run({"recording", "show", "sine.toml"}), 3, "", text);
    expect_result(run({"recording", "show", "none"}), 3, "",
                  "quorval: error: 'none' cannot be read: No such file or directory\n");
}

TEST_F(RecordingCommand, RefusesWrongUse)
{
    expect_wrong_use(run({"run", "--outputs", "a.out", "sine.toml"}), "--outputs needs --record");
    expect_wrong_use(run({"run", "--record", "", "sine.toml"}),
                     "--record needs the name of a file");
    expect_wrong_use(run({"replay"}), "a recording is missing");
    expect_wrong_use(run({"replay", "r"}), "a graph file is missing");
    expect_wrong_use(run({"recording"}), "an action is missing: show");
    expect_wrong_use(run({"recording", "shows", "r"}),
                     "unknown action 'shows'; did you mean 'show'?");
    expect_wrong_use(run({"recording", "show"}), "a recording is missing");
    expect_wrong_use(run({"recording", "show", "r", "s"}), "'s' is too much");
}

TEST_F(RecordingCommand, LeavesAFileThatCanBeReplayedWhenItIsKilled)
{
    write_graph("0.001", 0);
    Process process(command_with_basic({"run", "--record", "r", "sine.toml"}));
    while (count_waves() == 0) {
        ASSERT_TRUE(process.wait_for("\n"));
    }
    process.send(SIGKILL);
    const ProcessResult live = process.wait();
    ASSERT_EQ(live.signal, SIGKILL);

    const ProcessResult replayed = run_with_basic({"replay", "--fast", "r", "sine.toml"});

    EXPECT_EQ(replayed.status, 0);
    EXPECT_EQ(replayed.err, "quorval: warning: 'r' was cut off: the last wave in it is " +
                                std::to_string(count_waves()) + "\n");
    EXPECT_FALSE(replayed.out.empty());
    EXPECT_EQ(replayed.out, live.out.substr(0, replayed.out.size()));
    for (const auto& entry : fs::directory_iterator(directory())) {
        EXPECT_TRUE(entry.path().filename() == "r" || entry.path().filename() == "sine.toml");
    }
}

TEST_F(RecordingCommand, TellsOfAFullDiskAndRunsOn)
{
    write_graph("0.000001", 20'000);
    ProcessOptions options = command_with_basic({"run", "--record", "r", "sine.toml"});
    options.command.insert(options.command.begin(),
                           {"bash", "-c", "trap '' XFSZ; ulimit -f 400; exec \"$@\"", "bash"});
    options.out_file = "/dev/null";

    const ProcessResult result = run_process(options);

    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.err, "quorval: error: 'r' cannot be written: disk I/O error\n");
    EXPECT_EQ(run({"recording", "show", "r"}).status, 0);
}

}  // namespace
