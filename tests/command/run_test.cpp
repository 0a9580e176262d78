#include "command/command_test.h"

#include <nlohmann/json.hpp>

#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <regex>
#include <string>
#include <utility>
#include <vector>

namespace {

namespace fs = std::filesystem;

using quorval_test::CommandTest;
using quorval_test::expect_result;
using quorval_test::expect_wrong_use;
using quorval_test::Process;
using quorval_test::ProcessOptions;
using quorval_test::ProcessResult;
using quorval_test::run_process;

class Run : public CommandTest {
protected:
    Run()
    {
        write("numbers.toml", R"(format = 1
connections = ["count.out -> double.in", "double.out -> print.in"]
blocks.count.type = "numbers:Count"
blocks.double.type = "numbers:Double"
blocks.print.type = "numbers:Print"
)");
    }

    /// Writes a graph of one block, `a/b`, that makes trouble.
    void write_trouble(const std::string& where, const std::string& what,
                       const std::string& more = "") const
    {
        write(
            "trouble.toml",
            "format = 1\n" + more +
                "blocks.a.type = \"kind\"\n"
                "superblocks.kind.blocks.b = { type = \"trouble:Trouble\", config = { where = \"" +
                where + "\", what = \"" + what + "\" } }\n");
    }

    /// Runs it. A time may be over before a block runs; one that runs is the last source when it is
    /// done.
    ProcessResult run_trouble(const std::string& where, const std::string& what) const
    {
        write_trouble(where, what);
        return where == "run" ? run({"run", "trouble.toml"})
                              : run({"run", "--for", "1ms", "trouble.toml"});
    }
};

TEST_F(Run, RunsAGraphUntilItsLastSourceIsDone)
{
    expect_result(run({"run", "numbers.toml"}), 0, "2\n4\n6\n", "");
}

TEST_F(Run, TakesAssignments)
{
    expect_result(
        run({"run", "--set", "count.count=1", "--set", "print.prefix=twice ", "numbers.toml"}), 0,
        "twice 2\n", "");
    expect_wrong_use(run({"run", "--set", "count", "numbers.toml"}),
                     "'count' is not of the form PATH.KEY=VALUE");
}

TEST_F(Run, MergesItsFiles)
{
    write("more.toml", "format = 1\nblocks.count.config.count = 2\n");

    expect_result(run({"run", "numbers.toml", "more.toml"}), 0, "2\n4\n", "");
}

TEST_F(Run, ShowsWhatIsWrongAndStartsNothing)
{
    write("more.toml", "format = 1\nblocks.odd.typ = \"numbers:Odd\"\n");

    expect_result(run({"run", "numbers.toml", "more.toml"}), 3, "",
                  "more.toml:2:12: error: unknown key 'typ'; did you mean 'type'?\n");
}

TEST_F(Run, ShowsWarningsUnlessItIsQuiet)
{
    write("more.toml", "format = 1\nblocks.odd.type = \"numbers:Odd\"\n");

    expect_result(run({"run", "numbers.toml", "more.toml"}), 0, "2\n4\n6\n",
                  "more.toml:2:8: warning: odd.in is not connected\n");
    expect_result(run({"run", "-q", "numbers.toml", "more.toml"}), 0, "2\n4\n6\n", "");
}

TEST_F(Run, RefusesForRootWhatOthersMayWriteTo)
{
    const bool is_root = ::geteuid() == 0;
    const std::string refusal = " is writable by others: refused for root\n";
    fs::permissions(directory() + "/numbers.toml", fs::perms(0666));
    const ProcessResult file = run({"run", "numbers.toml"});
    fs::permissions(directory() + "/numbers.toml", fs::perms(0644));
    fs::create_directory(directory() + "/plugins");
    fs::copy_file(QUORVAL_TEST_PLUGIN_DIR "/numbers.so", directory() + "/plugins/numbers.so");
    fs::permissions(directory() + "/plugins", fs::perms(0777));
    const ProcessResult plugins = run({"inspect", "--plugin-path", "plugins", "numbers"});

    EXPECT_EQ(file.status, is_root ? 3 : 0);
    EXPECT_EQ(file.err,
              is_root ? "numbers.toml:1:1: error: 'numbers.toml'" + refusal : std::string());
    EXPECT_EQ(plugins.status, is_root ? 3 : 0);
    EXPECT_EQ(plugins.err, is_root ? "quorval: error: 'plugins'" + refusal : std::string());
}

TEST_F(Run, ReportsAGraphInWhichNothingWouldEverRun)
{
    write("still.toml", "format = 1\nblocks.odd.type = \"numbers:Odd\"\n");

    expect_result(run({"run", "--quiet", "still.toml"}), 3, "",
                  "quorval: error: the graph has no source: nothing would ever run\n");
}

TEST_F(Run, FailsWhenABlockFails)
{
    expect_result(run_trouble("start", "throw"), 1, "",
                  "quorval: error: block 'a/b' failed in start: no luck\n");
    expect_result(run_trouble("run", "throw"), 1, "b started\nb stopped\n",
                  "quorval: error: block 'a/b' failed in run: no luck\n");
    expect_result(run_trouble("constructor", "throw"), 3, "",
                  "trouble.toml:3:38: error: block 'a/b' cannot be created: no luck\n");
}

TEST_F(Run, NamesTheBlockThatCrashesAndDiesOfTheSignal)
{
    for (const std::string where : {"start", "run", "stop"}) {
        const ProcessResult result = run_trouble(where, "crash");

        EXPECT_EQ(result.signal, SIGSEGV);
        EXPECT_EQ(result.err,
                  "quorval: fatal: block 'a/b' crashed in " + where + ": signal 11 (SIGSEGV)\n");
    }
}

TEST_F(Run, NamesTheBlockThatEndsTheProcess)
{
    expect_result(run_trouble("run", "exit"), 1, "b started\n",
                  "quorval: fatal: block 'a/b' called exit in run\n");
    expect_result(run_trouble("constructor", "exit"), 3, "",
                  "quorval: fatal: block 'a/b' called exit in create\n");
    expect_result(run_trouble("destructor", "exit"), 1, "b started\nb stopped\n",
                  "quorval: fatal: block 'a/b' called exit in destroy\n");
}

TEST_F(Run, ShowsWhatIsLoggedWhileABlockEndsTheProcess)
{
    expect_result(run_trouble("run", "log and exit"), 1, "b started\n",
                  "quorval: warning: a/b: the last word\n"
                  "quorval: fatal: block 'a/b' called exit in run\n");
}

TEST_F(Run, NamesThePluginThatEndsTheProcessFromAThread)
{
    expect_result(run_trouble("run", "exit in thread"), 1, "b started\n",
                  "quorval: fatal: plug-in 'trouble' called exit\n");
    expect_result(run_trouble("constructor", "exit in thread"), 3, "",
                  "quorval: fatal: plug-in 'trouble' called exit\n");
}

TEST_F(Run, EndsInOrderWhereAPluginLeftAThreadBehind)
{
    for (const std::string where : {"constructor", "run", "stop"}) {
        expect_result(run_trouble(where, "leave thread"), 0, "b started\nb stopped\n", "");
    }
}

TEST_F(Run, EndsInOrderWhereAThreadOfAPluginLogs)
{
#ifdef QUORVAL_HAS_THREADS
    const std::string most = "2";
#else
    const std::string most = "1";
#endif
    constexpr int kRuns = 4;
    write_trouble("constructor", "leave talk");
    for (int turn = 0; turn < kRuns; ++turn) {
        for (const std::string& threads : {std::string("1"), most}) {
            expect_result(run({"run", "--threads", threads, "--for", "1ms", "trouble.toml"}), 0,
                          "b started\nb stopped\n", "");
        }
    }
}

TEST_F(Run, NamesTheBlockWhoseDestructorCrashes)
{
    write_trouble("destructor", "crash");
    write("more.toml", R"(format = 1
blocks.b.type = "numbers:Odd"
blocks.a-b.type = "numbers:Odd"
superblocks.kind.blocks.a.type = "numbers:Odd"
superblocks.kind.blocks.c.type = "numbers:Odd"
)");

    const ProcessResult result = run({"run", "-q", "--for", "1ms", "trouble.toml", "more.toml"});

    EXPECT_EQ(result.signal, SIGSEGV);
    EXPECT_EQ(result.err, "quorval: fatal: block 'a/b' crashed in destroy: signal 11 (SIGSEGV)\n");
}

TEST_F(Run, FindsWordsForAnExceptionWithoutAny)
{
    expect_result(run_trouble("start", "throw nothing"), 1, "",
                  "quorval: error: block 'a/b' failed in start: an exception without a text\n");
    expect_result(run_trouble("constructor", "throw nothing"), 3, "",
                  "trouble.toml:3:38: error: block 'a/b' cannot be created: an exception without a "
                  "text\n");
}

TEST_F(Run, FailsWhenAFileReachesTheLimitOfItsSize)
{
    ProcessOptions options = command({"run", "numbers.toml"});
    options.out_file = directory() + "/out";
    options.command.insert(options.command.begin(),
                           {"sh", "-c", "ulimit -f 0 && exec \"$@\"", "sh"});

    expect_result(run_process(options), 1, "",
                  "quorval: error: cannot write to standard output: File too large\n");
}

TEST_F(Run, ShowsMessagesByTheirLevel)
{
    write_trouble("run", "say");
    const std::string out = "b started\nsaid by b\nb stopped\n";
    const std::string warning = "quorval: warning: a/b: a warning\n";
    const std::string note = "quorval: a/b: a note\n";
    const std::string detail = "quorval: debug: a/b: a detail\n";

    expect_result(run({"run", "trouble.toml"}), 0, out, warning);
    expect_result(run({"run", "-q", "trouble.toml"}), 0, out, "");
    const ProcessResult verbose = run({"run", "-v", "trouble.toml"});
    EXPECT_NE(verbose.err.find(warning + note), std::string::npos) << verbose.err;
    EXPECT_EQ(verbose.err.find(detail), std::string::npos);
    for (const std::vector<std::string>& options :
         {std::vector<std::string>{"-vv"}, {"-v", "--verbose"}}) {
        std::vector<std::string> arguments = {"run", "trouble.toml"};
        arguments.insert(arguments.end(), options.begin(), options.end());
        const ProcessResult details = run(arguments);
        EXPECT_NE(details.err.find(warning + note + detail), std::string::npos) << details.err;
    }
}

TEST_F(Run, StopsInOrderOnASignal)
{
    write_trouble("", "");
    for (const int signal : {SIGINT, SIGTERM}) {
        Process process(command({"run", "trouble.toml"}));
        ASSERT_TRUE(process.wait_for("b started\n"));

        process.send(signal);

        expect_result(process.wait(), 0, "b started\nb stopped\n", "");
    }
}

TEST_F(Run, StopsOnASignalThatWasBlockedWhereItWasStarted)
{
    write_trouble("", "");
    ProcessOptions options = command({"run", "trouble.toml"});
    options.command.insert(options.command.begin(), {"env", "--block-signal"});
    Process process(options);
    ASSERT_TRUE(process.wait_for("b started\n"));

    process.send(SIGTERM);

    expect_result(process.wait(), 0, "b started\nb stopped\n", "");
}

TEST_F(Run, StopsOnASignalWhereABlockBlocksIt)
{
    for (const auto& [where, operation] :
         {std::pair("constructor", "create"), {"setup", "create"}, {"start", "start"}}) {
        write_trouble(where, "block");
        Process process(command({"run", "trouble.toml"}));
        ASSERT_TRUE(process.wait_for("b started\n"));

        process.send(SIGTERM);

        expect_result(
            process.wait(), 0, "b started\nb stopped\n",
            std::string("quorval: warning: a/b: block 'a/b' blocked SIGINT, SIGTERM, SIGHUP "
                        "in ") +
                operation + ": taken back\n");
    }
}

TEST_F(Run, StopsOnASignalWhereABlockBlocksItWhileItRuns)
{
    write_trouble("run", "block");
    write("more.toml", "format = 1\nblocks.z.type = \"trouble:Trouble\"\n");
    Process process(command({"run", "trouble.toml", "more.toml"}));
    ASSERT_TRUE(process.wait_for("taken back\n"));

    process.send(SIGTERM);

    expect_result(process.wait(), 0, "z started\nb started\nb stopped\nz stopped\n",
                  "quorval: warning: a block blocked SIGINT, SIGTERM, SIGHUP: taken back\n");
}

TEST_F(Run, IsEndedBySignalsWhileItReadsAPipe)
{
    const std::string pipe = directory() + "/pipe.toml";
    ASSERT_EQ(::mkfifo(pipe.c_str(), 0600), 0);
    for (const int signal : {SIGINT, SIGTERM}) {
        const int writer = ::open(pipe.c_str(), O_RDWR | O_CLOEXEC);
        write("first.toml", "format = 1\ninclude = [\"pipe.toml\"]\n");
        Process process(command({"run", "first.toml"}));
        // Read means that the wait for more has begun or will.
        ASSERT_EQ(::write(writer, "#", 1), 1);
        for (int left = 1; left > 0;) {
            ASSERT_EQ(::ioctl(writer, FIONREAD, &left), 0);
        }

        process.send(signal);

        expect_result(process.wait(), 0, "", "");
        ::close(writer);
    }
}

TEST_F(Run, DoesNotWaitForAWriterOfAPipe)
{
    ASSERT_EQ(::mkfifo((directory() + "/pipe.toml").c_str(), 0600), 0);

    expect_result(run({"run", "pipe.toml"}), 3, "", "pipe.toml:1:1: error: missing key 'format'\n");
}

/// With a block that prints the column `y` of a pipe.
class RunOfAPipe : public Run {
protected:
    RunOfAPipe()
    {
        ::mkfifo(pipe_.c_str(), 0600);
        // The other block is started behind this one.
        write_trouble("", "",
                      "connections = [\"source.out -> print.in\"]\n"
                      "blocks.source.type = \"basic:CsvSource\"\n"
                      "blocks.source.config = { path = \"" +
                          pipe_ +
                          "\", column = \"y\" }\n"
                          "blocks.print.type = \"basic:Print\"\n");
    }

    ProcessOptions command_line() const
    {
        return command({"run", "--plugin-path", QUORVAL_BASIC_PLUGIN_DIR, "trouble.toml"});
    }

    std::string pipe_ = directory() + "/in.csv";
};

TEST_F(RunOfAPipe, IsEndedBySignalsWhileNobodyWrites)
{
    Process process(command_line());
    ASSERT_TRUE(process.wait_for("b started\n"));

    process.send(SIGTERM);

    expect_result(process.wait(), 0, "b started\nb stopped\n", "");
}

TEST_F(RunOfAPipe, GivesRowsAsTheyAreWritten)
{
    Process process(command_line());
    ASSERT_TRUE(process.wait_for("b started\n"));
    const int writer = ::open(pipe_.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC);

    for (const std::string text : {"y\n12\n", "34\n"}) {
        EXPECT_EQ(::write(writer, text.data(), text.size()), static_cast<ssize_t>(text.size()));
        EXPECT_TRUE(process.wait_for(text.substr(text.size() - 3)));
    }

    process.send(SIGTERM);
    expect_result(process.wait(), 0, "b started\n12\n34\nb stopped\n", "");
    ::close(writer);
}

TEST_F(Run, IsNotStartedAfterASignal)
{
    write_trouble("constructor", "wait");
    Process process(command({"run", "trouble.toml"}));
    ASSERT_TRUE(process.wait_for("waiting\n"));

    process.send(SIGINT);

    expect_result(process.wait(), 0, "", "waiting\n");
}

TEST_F(Run, DiesOfASecondSignalWhenABlockHangs)
{
    write_trouble("stop", "hang");
    Process process(command({"run", "trouble.toml"}));
    ASSERT_TRUE(process.wait_for("b started\n"));

    process.send(SIGTERM);
    ASSERT_TRUE(process.wait_for("hanging\n"));
    process.send(SIGTERM);

    EXPECT_EQ(process.wait().signal, SIGTERM);
}

TEST_F(Run, ReadsItsFilesAgainOnSighup)
{
    write("live.toml", "format = 1\nblocks.a = { type = \"trouble:Trouble\", config.step = 1 }\n");
    Process process(command({"run", "live.toml"}));
    ASSERT_TRUE(process.wait_for("a started\n"));

    write("live.toml", "format = 1\nblocks.a = { type = \"trouble:Trouble\", config.step = 2 }\n");
    process.send(SIGHUP);
    ASSERT_TRUE(process.wait_for("a reconfigured: step 2\n"));
    process.send(SIGINT);

    expect_result(process.wait(), 0, "a started\na reconfigured: step 2\na stopped\n", "");
}

TEST_F(Run, StopsAfterATime)
{
    write_trouble("", "");

    expect_result(run({"run", "--for", "1ms", "trouble.toml"}), 0, "b started\nb stopped\n", "");
}

TEST_F(Run, RefusesWhatIsNoDuration)
{
    for (const std::string text : {"10", "s", "0s", "-1s", "1.5s", "10 s", "10d", "9999999999h"}) {
        expect_wrong_use(run({"run", "--for=" + text, "numbers.toml"}),
                         "--for has to be a duration such as 500ms, 10s or 5m, not '" + text + "'");
    }
}

TEST_F(Run, RefusesWhatIsNoNumberOfThreads)
{
    for (const std::string text : {"0", "-1", "257", "two", "2x", "99999999999"}) {
        expect_wrong_use(run({"run", "--threads=" + text, "numbers.toml"}),
                         "--threads has to be a number from 1 to 256, not '" + text + "'");
    }
}

TEST_F(Run, RunsOnSeveralThreadsWhereTheBuildHasThem)
{
    expect_result(run({"run", "--threads", "1", "numbers.toml"}), 0, "2\n4\n6\n", "");
#ifdef QUORVAL_HAS_THREADS
    expect_result(run({"run", "--threads", "2", "numbers.toml"}), 0, "2\n4\n6\n", "");
#else
    expect_wrong_use(run({"run", "--threads", "2", "numbers.toml"}),
                     "this build has one thread alone: it was made without QUORVAL_WITH_THREADS");
#endif
}

// An emulator has a path of libraries of its own.
#ifndef QUORVAL_IS_EMULATED
TEST_F(Run, HasNoBusWhereItsLibraryCannotBeLoaded)
{
    const std::string library = directory() + "/libsystemd.so.0";
    ProcessOptions options = command({"run", "--bus", "user", "numbers.toml"});
    set_variable(options, "LD_LIBRARY_PATH", directory());
    write("libsystemd.so.0", "");

    expect_result(
        run_process(options), 1, "",
        "quorval: error: libsystemd.so.0 cannot be loaded: " + library + ": file too short\n");
}

#ifdef QUORVAL_LOADS_TBB
TEST_F(Run, SaysWhatIsWrongWithTheLibraryOfThreads)
{
    const std::string library = directory() + "/libtbb.so.12";
    ProcessOptions options = command({"run", "--threads", "2", "numbers.toml"});
    set_variable(options, "LD_LIBRARY_PATH", directory());
    const auto expect_error = [&options](const std::string& text) {
        expect_result(run_process(options), 1, "", "quorval: error: " + text + "\n");
    };

    write("libtbb.so.12", "");
    expect_error("libtbb.so.12 cannot be loaded: " + library + ": file too short");

    std::filesystem::copy_file(QUORVAL_TEST_PLUGIN_DIR "/numbers.so", library,
                               std::filesystem::copy_options::overwrite_existing);
    expect_error("libtbb.so.12 has no _ZN3tbb6detail2r18allocateERPNS0_2d117small_object_poolEm");
}
#endif
#endif

TEST_F(Run, KeepsStateWhereItIsTold)
{
    write_trouble("", "");

    EXPECT_EQ(run({"run", "--for", "1ms", "--state", "state", "trouble.toml"}).status, 0);

    const fs::path made = fs::path(directory()) / "state" / "a.b";
    EXPECT_EQ(fs::status(made).permissions(), fs::perms::owner_all);
}

TEST_F(Run, KeepsStateInTheFirstOfStateDirectory)
{
    write_trouble("", "");
    ProcessOptions options = command({"run", "--for", "1ms", "trouble.toml"});
    options.environment.emplace_back("STATE_DIRECTORY",
                                     directory() + "/first:" + directory() + "/second");

    EXPECT_EQ(run_process(options).status, 0);

    EXPECT_TRUE(fs::is_directory(fs::path(directory()) / "first" / "a.b"));
    EXPECT_FALSE(fs::exists(fs::path(directory()) / "second"));
}

TEST_F(Run, ShowsStatisticsAtItsEnd)
{
    const ProcessResult result = run({"run", "--stats", "numbers.toml"});

    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.out, "2\n4\n6\n");
    const std::string time = " +[0-9.]+ (ns|us|ms|s)";
    EXPECT_TRUE(std::regex_match(result.err, std::regex("block +runs +failures +total +max +99 %\n"
                                                        "count +3 +0" +
                                                        time + time + time +
                                                        "\n"
                                                        "double +3 +0" +
                                                        time + time + time +
                                                        "\n"
                                                        "print +3 +0" +
                                                        time + time + time + "\n")))
        << result.err;
}

TEST_F(Run, ShowsStatisticsWhereABlockFailed)
{
    write_trouble("run", "throw");

    const ProcessResult result = run({"run", "--stats", "trouble.toml"});

    EXPECT_EQ(result.status, 1);
    EXPECT_NE(result.err.find("\na/b       1         1 "), std::string::npos) << result.err;
}

TEST_F(Run, WritesATrace)
{
    expect_result(run({"run", "--trace", "trace.json", "numbers.toml"}), 0, "2\n4\n6\n", "");

    const auto events = nlohmann::json::parse(quorval_test::read_file(directory() + "/trace.json"));
    std::vector<std::string> names;
    for (const auto& event : events) {
        names.push_back(event["ph"].get<std::string>() + " " + event["name"].get<std::string>());
    }
    EXPECT_EQ(names, (std::vector<std::string>{"M process_name", "X count", "X double", "X print",
                                               "C wave", "X count", "X double", "X print", "C wave",
                                               "X count", "X double", "X print", "C wave"}));
}

TEST_F(Run, FailsWhenTheTraceCannotBeWritten)
{
    expect_result(run({"run", "--trace", "no/trace.json", "numbers.toml"}), 1, "",
                  "quorval: error: 'no/trace.json' cannot be written: No such file or directory\n");
    expect_result(run({"run", "--trace", "/dev/full", "numbers.toml"}), 1, "2\n4\n6\n",
                  "quorval: error: '/dev/full' cannot be written: No space left on device\n");
}

TEST_F(Run, FailsWhenTheOutputOfBlocksCannotBeWritten)
{
    ProcessOptions options = command({"run", "numbers.toml"});
    options.out_file = "/dev/full";

    expect_result(run_process(options), 1, "",
                  "quorval: error: cannot write to standard output: No space left on device\n");
    // What went wrong when it was written is known to nobody at the end.
    options = command({"run", "--set", "print.flush=true", "numbers.toml"});
    options.out_file = "/dev/full";
    expect_result(run_process(options), 1, "",
                  "quorval: error: cannot write to standard output: Input/output error\n");
}

TEST_F(Run, ShowsProgressOnATerminal)
{
    ProcessOptions options = command({"run", "--set", "count.count=4", "numbers.toml"});
    options.err_is_terminal = true;

    const ProcessResult result = run_process(options);

    EXPECT_EQ(result.status, 0);
    // How often it is shown is up to the clock; the first report is, and the line is wiped.
    EXPECT_EQ(result.err.rfind("\r\033[Kcount: 25 %\r", 0), 0U) << result.err;
    EXPECT_EQ(result.err.substr(result.err.size() - 4), "\r\033[K");
}

}  // namespace

namespace {

constexpr const char* kMachines = R"(format = 1
connections = ["count.out -> print.in"]
machines = { edge = {}, hub = {} }
blocks.count = { type = "numbers:Count", machine = "edge", config.count = 2 }
blocks.print = { type = "numbers:Print", machine = "hub" }
)";

}  // namespace

TEST_F(Run, NeedsTheNameOfAMachineWhereThereAreSeveral)
{
    write("machines.toml", kMachines);

    expect_wrong_use(run({"run", "machines.toml"}),
                     "one of the machines edge, hub has to be named with --machine, or --local be "
                     "given");
    expect_wrong_use(run({"run", "--machine", "hup", "machines.toml"}),
                     "there is no machine 'hup'; did you mean 'hub'?");
    expect_wrong_use(run({"run", "--machine", "hub", "--local", "machines.toml"}),
                     "--machine and --local exclude each other");
}

TEST_F(Run, RunsAllMachinesInOneProcess)
{
    write("machines.toml", kMachines);

    expect_result(run({"run", "--local", "machines.toml"}), 0, "1\n2\n", "");
}
