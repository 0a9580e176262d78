// Plug-ins that do in each operation what they must not.
#include "command/command_test.h"

#include <gtest/gtest.h>

#include <sys/wait.h>

#include <csignal>
#include <filesystem>
#include <string>
#include <utility>
#include <vector>

namespace {

namespace fs = std::filesystem;

using quorval_test::CommandTest;
using quorval_test::expect_result;
using quorval_test::Process;
using quorval_test::ProcessOptions;
using quorval_test::ProcessResult;
using quorval_test::run_process;

/// Where a block makes trouble, what it is called in messages, and what it writes until then.
struct Operation {
    std::string where;
    std::string name;
    std::string out;
};

const std::vector<Operation> kWhileLoaded = {{"constructor", "create", ""},
                                             {"setup", "create", ""}};
const std::vector<Operation> kWhileRunning = {
    {"start", "start", ""}, {"run", "run", "b started\n"}, {"stop", "stop", "b started\n"}};

class HostilePlugin : public CommandTest {
protected:
    /// A graph of one block, `a/b`, that makes trouble.
    void write_trouble(const std::string& where, const std::string& what) const
    {
        write("hostile.toml",
              "format = 1\n"
              "blocks.a.type = \"kind\"\n"
              "superblocks.kind.blocks.b = { type = \"trouble:Trouble\", config = { where = \"" +
                  where + "\", what = \"" + what + "\", step = 1 } }\n");
    }

    ProcessResult run_trouble(const std::string& where, const std::string& what) const
    {
        write_trouble(where, what);
        // A time may be over before a block runs; one that runs is the last source when it is done.
        return where == "run" ? run({"run", "hostile.toml"})
                              : run({"run", "--for", "1ms", "hostile.toml"});
    }

    /// Has the files of a running graph read again after a change.
    void reload(const Process& process) const
    {
        std::string text = quorval_test::read_file(directory() + "/hostile.toml");
        text.replace(text.find("step = 1"), 8, "step = 2");
        write("hostile.toml", text);
        process.send(SIGHUP);
    }

    /// What becomes of a run whose block makes trouble while it is changed.
    ProcessResult change(const std::string& what) const
    {
        write_trouble("reconfigure", what);
        Process process(command({"run", "hostile.toml"}));
        EXPECT_TRUE(process.wait_for("b started\n"));
        reload(process);
        return without_emulator(process.wait());
    }
};

/// A name with control characters, of one byte and of two.
class HostileName : public CommandTest {
protected:
    /// What becomes of a command; NAME in the text is the name with numbers in their place.
    struct Case {
        std::vector<std::string> command;
        int status;
        std::string err;
    };

    HostileName()
    {
        write("g.toml", "format = 1\nblocks.a.type = \"trouble:Trouble\"\n");
        write("include.toml", "format = 1\ninclude = [\"a\\n\\u001b\\u009b\"]\n");
        write("link.toml", R"(format = 1
machines.edge = {}
blocks.a = { type = "trouble:Trouble", machine = "edge" }
link = { broker = "mqtts://127.0.0.1", ca = "a\n\u001b\u009b" }
)");
    }

    void expect(const Case& one) const
    {
        const std::string place = "NAME";
        std::string err = one.err;
        for (auto at = err.find(place); at != std::string::npos; at = err.find(place)) {
            err.replace(at, place.size(), "a\\x0A\\x1B\\xC2\\x9B");
        }
        SCOPED_TRACE(testing::PrintToString(one.command));
        expect_result(run(one.command), one.status, "", err + "\n");
    }

    const std::string name_ = "a\n\x1b\xc2\x9b";
};

TEST_F(HostileName, HasNumbersInPlaceOfControlCharactersInThePlacesOfErrors)
{
    const std::string unreadable = "error: cannot read: No such file or directory";
    const std::string no_block = "error: there is no block 'NAME'";
    for (const Case& one : std::vector<Case>{
             {{"check", name_}, 3, "NAME:1:1: " + unreadable},
             {{"run", "g.toml", name_}, 3, "NAME:1:1: " + unreadable},
             {{"config", "show", name_}, 3, "NAME: " + unreadable},
             {{"check", "--set", name_ + ".x=1", "g.toml"}, 3, "--set NAME.x: " + no_block},
             {{"run", "--record", "r", "--outputs", name_, "g.toml"},
              3,
              "--outputs NAME: " + no_block}}) {
        expect(one);
    }
}

TEST_F(HostileName, HasNumbersInPlaceOfControlCharactersInTexts)
{
    const std::string missing = ": No such file or directory";
    const std::string error = "quorval: error: ";
    for (const Case& one : std::vector<Case>{
             {{"check", "include.toml"},
              3,
              "include.toml:2:12: error: 'NAME' cannot be read" + missing},
             {{"replay", name_, "g.toml"}, 3, error + "'NAME' cannot be read" + missing},
             {{"run", "--machine", name_, "g.toml"}, 2, error + "there is no machine 'NAME'"},
             {{"run", "--record", "none/" + name_, "g.toml"},
              1,
              error + "cannot record into 'none/NAME'" + missing},
             {{"run", "--trace", "none/" + name_, "g.toml"},
              1,
              error + "'none/NAME' cannot be written" + missing},
             {{"run", "--machine", "edge", "link.toml"},
              1,
              error + "the link cannot be used: cannot read 'NAME'" + missing}}) {
        expect(one);
    }
}

TEST_F(HostilePlugin, IsNamedWhereItThrowsWhatIsNoException)
{
    for (const Operation& one : kWhileLoaded) {
        expect_result(run_trouble(one.where, "throw number"), 3, "",
                      "hostile.toml:3:38: error: block 'a/b' cannot be created: an unknown "
                      "exception\n");
    }
    for (const Operation& one : kWhileRunning) {
        const std::string stopped = one.where == "run" ? "b stopped\n" : "";
        expect_result(
            run_trouble(one.where, "throw number"), 1, one.out + stopped,
            "quorval: error: block 'a/b' failed in " + one.name + ": an unknown exception\n");
    }
}

TEST_F(HostilePlugin, RunsOnWhereItThrowsWhileItIsChanged)
{
    for (const auto& [what, text] :
         {std::pair("throw", "no luck"), std::pair("throw number", "an unknown exception")}) {
        write_trouble("reconfigure", what);
        Process process(command({"run", "hostile.toml"}));
        ASSERT_TRUE(process.wait_for("b started\n"));

        reload(process);
        ASSERT_TRUE(process.wait_for(std::string("applied: block 'a/b': ") + text + "\n"));
        process.send(SIGTERM);

        const ProcessResult result = process.wait();
        EXPECT_EQ(result.status, 0);
        EXPECT_EQ(result.out, "b started\nb stopped\n");
        EXPECT_EQ(result.err,
                  "quorval: error: block 'a/b' failed in reconfigure: " + std::string(text) +
                      "\nquorval: error: the changed files are not applied: block "
                      "'a/b': " +
                      text + "\n");
    }
}

TEST_F(HostilePlugin, IsNamedWhereItEndsTheProcessWhileItIsLoaded)
{
    write("crashes.toml", "format = 1\nblocks.b.type = \"crashes:Any\"\n");
    write("exits.toml", "format = 1\nblocks.b.type = \"exits:Any\"\n");

    const ProcessResult result = run({"run", "crashes.toml"});
    EXPECT_EQ(result.signal, SIGSEGV);
    EXPECT_EQ(result.err,
              "quorval: fatal: plug-in 'crashes' crashed while it was loaded: signal 11 "
              "(SIGSEGV)\n");
    expect_result(run({"run", "exits.toml"}), 3, "",
                  "quorval: fatal: plug-in 'exits' called exit while it was loaded\n");
}

TEST_F(HostilePlugin, IsNamedWhereItEndsTheProcessWhileItIsChanged)
{
    const ProcessResult crashed = change("crash");
    EXPECT_EQ(crashed.signal, SIGSEGV);
    EXPECT_EQ(crashed.err,
              "quorval: fatal: block 'a/b' crashed in reconfigure: signal 11 (SIGSEGV)\n");
    const ProcessResult aborted = change("abort");
    EXPECT_EQ(aborted.signal, SIGABRT);
    EXPECT_EQ(aborted.err,
              "quorval: fatal: block 'a/b' crashed in reconfigure: signal 6 (SIGABRT)\n");
    for (const char* what : {"exit", "quick exit"}) {
        expect_result(change(what), 1, "b started\n",
                      "quorval: fatal: block 'a/b' called exit in reconfigure\n");
    }
}

TEST_F(HostilePlugin, IsNamedWhereItEndsTheProcess)
{
    for (const char* what : {"exit", "quick exit", "sudden exit", "sudden exit 3"}) {
        for (const Operation& one : kWhileLoaded) {
            expect_result(run_trouble(one.where, what), 3, "",
                          "quorval: fatal: block 'a/b' called exit in create\n");
        }
        for (const Operation& one : kWhileRunning) {
            expect_result(run_trouble(one.where, what), 1, one.out,
                          "quorval: fatal: block 'a/b' called exit in " + one.name + "\n");
        }
        expect_result(run_trouble("destructor", what), 1, "b started\nb stopped\n",
                      "quorval: fatal: block 'a/b' called exit in destroy\n");
    }
}

TEST_F(HostilePlugin, LetsAProcessOfItsOwnExit)
{
    expect_result(run_trouble("run", "exit in child"), 0, "b started\nchild 5\nb stopped\n", "");
}

TEST_F(HostilePlugin, IsNamedWhereItAborts)
{
    std::vector<Operation> operations = kWhileLoaded;
    operations.insert(operations.end(), kWhileRunning.begin(), kWhileRunning.end());
    operations.push_back({"destructor", "destroy", ""});
    for (const Operation& one : operations) {
        const ProcessResult result = run_trouble(one.where, "abort");

        EXPECT_EQ(result.signal, SIGABRT);
        EXPECT_EQ(result.err,
                  "quorval: fatal: block 'a/b' crashed in " + one.name + ": signal 6 (SIGABRT)\n");
    }
}

TEST_F(HostilePlugin, IsNamedWhereItLeavesDescriptorsOpen)
{
    for (const char* where : {"constructor", "setup", "start", "stop", "destructor"}) {
        expect_result(
            run_trouble(where, "leave open"), 0, "b started\nb stopped\n",
            "quorval: warning: block 'a/b' left a descriptor open: 'anon_inode:[eventfd]'\n");
    }
    expect_result(run_trouble("run", "leave open"), 0, "b started\nb stopped\n",
                  "quorval: warning: a block left a descriptor open: 'anon_inode:[eventfd]'\n");
}

TEST_F(HostilePlugin, IsNamedWhereItLeavesDescriptorsOpenAndFails)
{
    const std::string warning =
        "quorval: warning: block 'a/b' left a descriptor open: 'anon_inode:[eventfd]'\n";

    expect_result(run_trouble("constructor", "leave open and throw"), 3, "",
                  warning + "hostile.toml:3:38: error: block 'a/b' cannot be created: no luck\n");
    expect_result(run_trouble("start", "leave open and throw"), 1, "",
                  "quorval: error: block 'a/b' failed in start: no luck\n" + warning);
}

TEST_F(HostilePlugin, EndsTheRunWhereItClosesTheDescriptorsOfOthers)
{
    const std::string it_closed = "it closed a descriptor that is not its own\n";
    expect_result(run_trouble("constructor", "close all"), 3, "",
                  "hostile.toml:3:38: error: block 'a/b' cannot be created: " + it_closed);
    expect_result(run_trouble("start", "close all"), 1, "b started\nb stopped\n",
                  "quorval: error: block 'a/b' failed in start: " + it_closed);
    write_trouble("run", "close all");
    write("more.toml", "format = 1\nblocks.waits.type = \"trouble:Trouble\"\n");
    expect_result(
        run({"run", "--for", "1h", "hostile.toml", "more.toml"}), 1,
        "waits started\nb started\nb stopped\nwaits stopped\n",
        "quorval: error: the graph cannot run on: cannot set the timer: Bad file descriptor\n");
    expect_result(
        run({"run", "hostile.toml", "more.toml"}), 1,
        "waits started\nb started\nb stopped\nwaits stopped\n",
        "quorval: error: the graph cannot run on: cannot wait for descriptors, of which a "
        "block may have closed one that is not its own: Bad file descriptor\n");
    for (const char* where : {"stop", "destructor"}) {
        EXPECT_EQ(run_trouble(where, "close all").status, 0) << where;
    }
}

TEST_F(HostilePlugin, KeepsTheStatusOfARunWhoseMessagesItStops)
{
    expect_result(run_trouble("start", "close error"), 0, "b started\nb stopped\n", "");
}

TEST_F(HostilePlugin, IsEndedByASecondSignalWhereItNeverComesBack)
{
    for (const char* where : {"constructor", "start", "run"}) {
        write_trouble(where, "spin");
        Process process(command({"run", "hostile.toml"}));
        ASSERT_TRUE(process.wait_for("spinning\n"));

        process.send(SIGINT);
        // One that comes together with the first is taken with it.
        siginfo_t end = {};
        while (end.si_pid == 0) {
            process.send(SIGTERM);
            ASSERT_EQ(
                ::waitid(P_PID, static_cast<id_t>(process.id()), &end, WEXITED | WNOHANG | WNOWAIT),
                0);
        }

        EXPECT_EQ(process.wait().signal, SIGTERM) << where;
    }
}

TEST_F(HostilePlugin, RunsOnWhereItsFileIsReplaced)
{
    const std::string plugins = directory() + "/plugins";
    fs::create_directory(plugins);
    fs::copy_file(QUORVAL_TEST_PLUGIN_DIR "/trouble.so", plugins + "/trouble.so");
    write("hostile.toml",
          "format = 1\nblocks.b = { type = \"trouble:Trouble\", config.step = 1 }\n");
    const ProcessOptions options = command({"run", "--plugin-path", plugins, "hostile.toml"});
    Process process(options);
    ASSERT_TRUE(process.wait_for("b started\n"));

    write("other.so", "no plug-in");
    fs::rename(directory() + "/other.so", plugins + "/trouble.so");
    reload(process);
    ASSERT_TRUE(process.wait_for("b reconfigured: step 2\n"));
    process.send(SIGTERM);

    expect_result(process.wait(), 0, "b started\nb reconfigured: step 2\nb stopped\n", "");
}

}  // namespace
