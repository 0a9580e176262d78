// What all commands have in common.
#include "command/command_test.h"

#include <unistd.h>

#include <string>
#include <utility>
#include <vector>

namespace {

using quorval_test::CommandTest;
using quorval_test::expect_result;
using quorval_test::expect_wrong_use;
using quorval_test::ProcessOptions;
using quorval_test::ProcessResult;
using quorval_test::run_process;

using Main = CommandTest;

TEST_F(Main, PrintsItsVersion)
{
    expect_result(run({"--version"}), 0, "quorval " QUORVAL_VERSION "\n", "");
}

TEST_F(Main, PrintsHelpThatListsTheCommands)
{
    const ProcessResult result = run({"--help"});

    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.err, "");
    EXPECT_EQ(result.out.rfind("usage: quorval COMMAND [OPTION...] FILE...\n", 0), 0U);
    for (const char* line :
         {"\n  check                   look ", "\n  graph  ", "\n  run    ", "\n  --version ",
          "\n  -h,--help ", "\nExit status:\n", "\nExample:\n"}) {
        EXPECT_NE(result.out.find(line), std::string::npos) << line << " in\n" << result.out;
    }
}

TEST_F(Main, PrintsHelpForEachCommand)
{
    const std::vector<std::pair<std::string, std::vector<std::string>>> commands = {
        {"check", {"--set", "--plugin-path", "--strict", "--json"}},
        {"graph", {"--set", "--plugin-path", "--format"}},
        {"run",
         {"--set", "--plugin-path", "--state", "--for", "--stats", "--threads", "--trace",
          "-q,--quiet", "-v,--verbose"}},
    };
    for (const auto& [command, options] : commands) {
        SCOPED_TRACE(command);
        const ProcessResult result = run({command, "--help"});

        EXPECT_EQ(result.status, 0);
        EXPECT_EQ(result.err, "");
        EXPECT_EQ(result.out.rfind("usage: quorval " + command + " [OPTION...] FILE...\n\n", 0),
                  0U);
        for (const std::string& option : options) {
            EXPECT_NE(result.out.find("\n  " + option + " "), std::string::npos) << option;
        }
        EXPECT_NE(result.out.find("\nExit status:\n  0  "), std::string::npos);
        EXPECT_NE(result.out.find("\nExample:\n  quorval " + command + " "), std::string::npos);
    }
}

TEST_F(Main, RefusesACommandLineWithoutACommand)
{
    expect_wrong_use(run({}), "a command is missing; 'quorval --help' lists them");
    expect_wrong_use(run({"--"}), "a command is missing; 'quorval --help' lists them");
    expect_wrong_use(run({"--version", "check"}), "'check' is too much");
}

TEST_F(Main, SuggestsTheNearCommand)
{
    expect_wrong_use(run({"chekc"}), "unknown command 'chekc'; did you mean 'check'?");
    expect_wrong_use(run({"rum", "a.toml"}), "unknown command 'rum'; did you mean 'run'?");
    expect_wrong_use(run({"frobnicate"}), "unknown command 'frobnicate'");
    expect_wrong_use(run({""}), "unknown command ''");
    expect_wrong_use(run({"a\nb\x1b"}), "unknown command 'a\\x0Ab\\x1B'");
}

TEST_F(Main, SuggestsTheNearOption)
{
    expect_wrong_use(run({"--versoin"}), "unknown option '--versoin'; did you mean '--version'?");
    expect_wrong_use(run({"check", "--strcit", "a.toml"}),
                     "unknown option '--strcit'; did you mean '--strict'?");
    expect_wrong_use(run({"check", "-strict"}),
                     "unknown option '-strict'; did you mean '--strict'?");
    expect_wrong_use(run({"check", "--jsom=1"}), "unknown option '--jsom'; did you mean '--json'?");
    expect_wrong_use(run({"check", "--jsom=", "a"}),
                     "unknown option '--jsom'; did you mean '--json'?");
    expect_wrong_use(run({"check", "--frobnicate"}), "unknown option '--frobnicate'");
    expect_wrong_use(run({"graph", "a.toml", "-x"}), "unknown option '-x'");
    // Of another command.
    expect_wrong_use(run({"graph", "--strict", "a.toml"}), "unknown option '--strict'");
}

TEST_F(Main, WantsAFile)
{
    for (const char* command : {"check", "graph", "run"}) {
        expect_wrong_use(run({command}), "a graph file is missing");
        expect_wrong_use(run({command, "--"}), "a graph file is missing");
    }
}

TEST_F(Main, WantsTheValuesOfOptions)
{
    expect_wrong_use(run({"check", "a.toml", "--set"}), "'--set' has no value");
    expect_wrong_use(run({"graph", "--format"}), "'--format' has no value");
    expect_wrong_use(run({"run", "--for=", "a.toml"}), "'--for=' has no value");
    expect_wrong_use(run({"check", "--set=", "a.toml"}), "'--set=' has no value");
    expect_wrong_use(run({"check", "--set", "--strict=yes", "a.toml"}),
                     "'--strict=yes' is not of the form PATH.KEY=VALUE");
    expect_wrong_use(run({"check", "--strict", "--set=", "a.toml"}), "'--set=' has no value");
    expect_wrong_use(run({"check", "--set", "a.b=1", "--set=", "a.toml"}), "'--set=' has no value");
    expect_wrong_use(run({"check", "--set=a.b=1", "--set=", "a.toml"}), "'--set=' has no value");
}

TEST_F(Main, RefusesValuesOfFlags)
{
    expect_wrong_use(run({"check", "--strict=yes", "a.toml"}), "'--strict' takes no value");
    expect_wrong_use(run({"run", "--quiet=", "a.toml"}), "'--quiet' takes no value");
    expect_wrong_use(run({"run", "-q=1", "a.toml"}), "'-q' takes no value");
    expect_wrong_use(run({"run", "-h=1"}), "'-h' takes no value");
}

TEST_F(Main, FailsWhenOutputCannotBeWritten)
{
    for (const char* option : {"--help", "--version"}) {
        ProcessOptions options = command({option});
        options.out_file = "/dev/full";
        expect_result(run_process(options), 1, "",
                      "quorval: error: cannot write to standard output: "
                      "No space left on device\n");
    }
}

TEST_F(Main, FailsWhenNobodyReadsItsOutput)
{
    ProcessOptions options = command({"--version"});
    options.command.insert(options.command.begin(),
                           {"env", "--default-signal=PIPE", "bash", "-c",
                            R"(mkfifo pipe; exec 3<>pipe 4>pipe 3<&-; exec "$@" >&4)", "bash"});

    expect_result(run_process(options), 1, "",
                  "quorval: error: cannot write to standard output: Broken pipe\n");
}

TEST_F(Main, FailsWhenStandardOutputIsClosed)
{
    ProcessOptions options = command({"--version"});
    options.closed = {STDOUT_FILENO};

    expect_result(run_process(options), 1, "",
                  "quorval: error: cannot write to standard output: Bad file descriptor\n");
}

TEST_F(Main, WaitsForItsChildrenWhereTheyAreIgnored)
{
    write("empty.toml", "format = 1\n");
    ProcessOptions options = command({"check", "empty.toml"});
    options.command.insert(options.command.begin(), {"env", "--ignore-signal=CHLD"});

    expect_result(run_process(options), 0, "0 blocks, 0 connections: no problem found\n", "");
}

TEST_F(Main, RefusesSetUserIdUse)
{
    ProcessOptions options = command({"--version"});
    set_variable(options, "LD_PRELOAD", QUORVAL_TEST_SECURE);
    // The runtime of the sanitizer wants to be first.
    options.environment.emplace_back("ASAN_OPTIONS", "verify_asan_link_order=0");
    expect_result(run_process(options), 0, "quorval " QUORVAL_VERSION "\n", "");

    for (const char* way : {"secure", "user", "group"}) {
        SCOPED_TRACE(way);
        ProcessOptions others = options;
        others.environment.emplace_back("QUORVAL_TEST_RIGHTS", way);
        expect_wrong_use(run_process(others), "set-user-ID use is refused");
    }
}

}  // namespace
