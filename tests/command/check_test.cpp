#include "command/command_test.h"

#include <csignal>
#include <optional>
#include <string>

namespace {

using quorval_test::CommandTest;
using quorval_test::expect_result;
using quorval_test::expect_wrong_use;
using quorval_test::Process;
using quorval_test::ProcessOptions;
using quorval_test::ProcessResult;
using quorval_test::run_process;

constexpr const char* kGood = R"(format = 1
connections = ["count.out -> print.in"]
blocks.count.type = "numbers:Count"
blocks.print.type = "numbers:Print"
)";

/// An input that is not connected: a warning.
constexpr const char* kDoubtful = R"(format = 1
blocks.print.type = "numbers:Print"
)";

constexpr const char* kWrong = R"(format = 1
connections = ["count.out -> print.im"]
blocks.count.type = "numbers:Cuont"
blocks.print.type = "numbers:Print"
)";

class Check : public CommandTest {
protected:
    Check()
    {
        write("good.toml", kGood);
        write("doubtful.toml", kDoubtful);
        write("wrong.toml", kWrong);
    }

    /// Checks a graph of one block that makes trouble.
    ProcessResult check_trouble(const std::string& where, const std::string& what) const
    {
        write("trouble.toml",
              "format = 1\n"
              "blocks.a.type = \"kind\"\n"
              "superblocks.kind.blocks.b = { type = \"trouble:Trouble\", config = { where = \"" +
                  where + "\", what = \"" + what + "\" } }\n");
        return run({"check", "trouble.toml"});
    }
};

TEST_F(Check, FindsNoProblem)
{
    expect_result(run({"check", "good.toml"}), 0, "2 blocks, 1 connections: no problem found\n",
                  "");
}

TEST_F(Check, ShowsWarningsAndSucceeds)
{
    expect_result(run({"check", "doubtful.toml"}), 0, "",
                  "doubtful.toml:2:8: warning: print.in is not connected\n");
}

TEST_F(Check, LetsWarningsCountWhenItIsStrict)
{
    expect_result(run({"check", "--strict", "doubtful.toml"}), 3, "",
                  "doubtful.toml:2:8: warning: print.in is not connected\n");
    expect_result(run({"check", "--strict", "good.toml"}), 0,
                  "2 blocks, 1 connections: no problem found\n", "");
}

TEST_F(Check, ShowsErrors)
{
    expect_result(run({"check", "wrong.toml"}), 3, "",
                  "wrong.toml:2:16: error: block 'print' has no input 'im'; it has in\n"
                  "wrong.toml:3:21: error: plug-in 'numbers' has no block type 'Cuont'; "
                  "it has Count, Double, Interrupt, Odd, Print\n");
}

TEST_F(Check, TakesSeveralFiles)
{
    write("more.toml", "format = 1\nblocks.count.config.count = 5\n");

    expect_result(run({"check", "good.toml", "more.toml"}), 0,
                  "2 blocks, 1 connections: no problem found\n", "");
}

TEST_F(Check, PrintsJson)
{
    expect_result(run({"check", "--json", "good.toml"}), 0, "[]\n", "");
    expect_result(run({"check", "--json", "doubtful.toml"}), 0,
                  "[\n"
                  "  {\n"
                  "    \"column\": 8,\n"
                  "    \"file\": \"doubtful.toml\",\n"
                  "    \"line\": 2,\n"
                  "    \"severity\": \"warning\",\n"
                  "    \"text\": \"print.in is not connected\"\n"
                  "  }\n"
                  "]\n",
                  "");
}

TEST_F(Check, PrintsAssignmentsInJsonWithoutAPlace)
{
    expect_result(run({"check", "--json", "--set", "nobody.key=1", "good.toml"}), 3,
                  "[\n"
                  "  {\n"
                  "    \"file\": \"--set nobody.key\",\n"
                  "    \"severity\": \"error\",\n"
                  "    \"text\": \"there is no block 'nobody'\"\n"
                  "  }\n"
                  "]\n",
                  "");
}

TEST_F(Check, TakesAssignments)
{
    expect_result(run({"check", "--set", "count.count=5", "--set=print.prefix=x", "good.toml"}), 0,
                  "2 blocks, 1 connections: no problem found\n", "");
    expect_result(run({"check", "--set", "nobody.key=1", "good.toml"}), 3, "",
                  "--set nobody.key: error: there is no block 'nobody'\n");
}

TEST_F(Check, RefusesAnAssignmentWithoutItsForm)
{
    for (const std::string text : {"count", "count.count", "=1", "[x]", ""}) {
        expect_wrong_use(run({"check", "--set", text, "good.toml"}),
                         "'" + text + "' is not of the form PATH.KEY=VALUE");
    }
}

TEST_F(Check, LooksForPluginsWhereItIsTold)
{
    ProcessOptions options =
        command({"check", "--plugin-path", "nowhere:" QUORVAL_TEST_PLUGIN_DIR, "good.toml"});
    options.environment.emplace_back("QUORVAL_PLUGIN_DIR", std::nullopt);

    expect_result(run_process(options), 0, "2 blocks, 1 connections: no problem found\n", "");
}

TEST_F(Check, TakesAFileWhoseNameLooksLikeAnOption)
{
    write("--strict", kGood);
    write("[a,b]", kGood);

    expect_result(run({"check", "--", "--strict"}), 0,
                  "2 blocks, 1 connections: no problem found\n", "");
    expect_result(run({"check", "[a,b]"}), 0, "2 blocks, 1 connections: no problem found\n", "");
}

TEST_F(Check, KeepsWhatBlocksPrintOffStandardOutput)
{
    const ProcessResult result = check_trouble("constructor", "say");

    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.out, "1 blocks, 0 connections: no problem found\n");
    EXPECT_NE(result.err.find("said by b\n"), std::string::npos) << result.err;
}

TEST_F(Check, DoesNotStartBlocks)
{
    expect_result(check_trouble("start", "crash"), 0, "1 blocks, 0 connections: no problem found\n",
                  "");
}

TEST_F(Check, NamesTheBlockThatCrashes)
{
    expect_result(check_trouble("constructor", "crash"), 3, "",
                  "quorval: fatal: block 'a/b' crashed in create: signal 11 (SIGSEGV)\n");
    expect_result(check_trouble("setup", "crash"), 3, "",
                  "quorval: fatal: block 'a/b' crashed in create: signal 11 (SIGSEGV)\n");
    expect_result(check_trouble("destructor", "crash"), 3, "",
                  "quorval: fatal: block 'a/b' crashed in destroy: signal 11 (SIGSEGV)\n");
}

TEST_F(Check, NamesThePluginThatCrashes)
{
    write("crashes.toml", "format = 1\nblocks.a.type = \"crashes:A\"\n");

    expect_result(run({"check", "crashes.toml"}), 3, "",
                  "quorval: fatal: plug-in 'crashes' crashed while it was loaded: "
                  "signal 11 (SIGSEGV)\n");
}

TEST_F(Check, NamesWhoEndsTheProcess)
{
    write("exits.toml", "format = 1\nblocks.a.type = \"exits:A\"\n");

    expect_result(check_trouble("constructor", "exit"), 3, "",
                  "quorval: fatal: block 'a/b' called exit in create\n");
    expect_result(run({"check", "exits.toml"}), 3, "",
                  "quorval: fatal: plug-in 'exits' called exit while it was loaded\n");
    expect_result(check_trouble("destructor", "exit"), 3, "",
                  "quorval: fatal: block 'a/b' called exit in destroy\n");
    expect_result(check_trouble("constructor", "quick exit"), 3, "",
                  "quorval: fatal: block 'a/b' called exit in create\n");
    for (const char* what : {"sudden exit", "sudden exit 3"}) {
        expect_result(check_trouble("constructor", what), 3, "",
                      "quorval: fatal: block 'a/b' called exit in create\n");
    }
    for (const char* where : {"constructor", "setup", "destructor"}) {
        for (const char* what : {"system exit", "system exit 3"}) {
            expect_result(check_trouble(where, what), 3, "",
                          "quorval: error: a plug-in ended the process without exit()\n");
        }
    }
}

TEST_F(Check, ReportsASignalThatNobodyCatches)
{
    expect_result(check_trouble("constructor", "kill"), 3, "",
                  "quorval: error: ended by signal 9 (SIGKILL)\n");
}

TEST_F(Check, CanBeInterruptedWhereABlockHangs)
{
    write("hangs.toml",
          "format = 1\n[blocks.a]\ntype = \"trouble:Trouble\"\n"
          "config = { where = \"constructor\", what = \"hang\" }\n");
    Process process(command({"check", "hangs.toml"}));
    ASSERT_TRUE(process.wait_for("hanging\n"));

    process.send(SIGINT);
    const ProcessResult result = process.wait();  // both ends: the child is gone too

    EXPECT_EQ(result.signal, SIGINT);
}

TEST_F(Check, FailsWhenOutputCannotBeWritten)
{
    ProcessOptions options = command({"check", "good.toml"});
    options.out_file = "/dev/full";

    expect_result(run_process(options), 1, "",
                  "quorval: error: cannot write to standard output: No space left on device\n");
}

TEST_F(Check, ShowsTheLineOnATerminal)
{
    write("tab.toml", "format = 1\n\tblocks.\"pr\\u0069nt\".type = \"nothing\"\n");
    ProcessOptions options = command({"check", "tab.toml"});
    options.err_is_terminal = true;
    options.environment.emplace_back("NO_COLOR", "1");

    expect_result(run_process(options), 3, "",
                  "tab.toml:2:29: error: there is no superblock 'nothing'\n"
                  "        blocks.\"pr\\u0069nt\".type = \"nothing\"\n"
                  "                                   ^\n");
}

TEST_F(Check, HasColoursOnATerminal)
{
    ProcessOptions options = command({"check", "doubtful.toml"});
    options.err_is_terminal = true;

    expect_result(run_process(options), 0, "",
                  "doubtful.toml:2:8: \033[1;35mwarning:\033[0m print.in is not connected\n"
                  "blocks.print.type = \"numbers:Print\"\n"
                  "       ^\n");
}

}  // namespace

TEST_F(Check, LooksAtAllMachinesOrAtOne)
{
    write("machines.toml", R"(format = 1
connections = ["count.out -> double.in", "double.out -> print.in"]
machines = { edge = {}, hub = {} }
link.broker = "mqtt://localhost"
blocks.count = { type = "numbers:Count", machine = "edge" }
blocks.double = { type = "numbers:Double", machine = "hub" }
blocks.print = { type = "numbers:Print", machine = "hub" }
)");

    expect_result(run({"check", "machines.toml"}), 0, "3 blocks, 2 connections: no problem found\n",
                  "");
    expect_result(run({"check", "--machine", "hub", "machines.toml"}), 0,
                  "2 blocks, 1 connections: no problem found\n", "");
    write("parted.toml", R"(format = 1
connections = ["count.out -> print.in"]
blocks.count = { type = "numbers:Count", machine = "edge" }
blocks.print = { type = "numbers:Print", machine = "hub" }
[machines]
edge = {}
hub = {}
[link]
)");
    const std::string missing = "parted.toml:8:2: error: missing key 'broker'\n";
    expect_result(run({"check", "parted.toml"}), 3, "", missing);
    expect_result(run({"check", "--machine", "hub", "parted.toml"}), 3, "", missing);
    expect_wrong_use(run({"check", "--machine", "hup", "machines.toml"}),
                     "there is no machine 'hup'; did you mean 'hub'?");
}
