// The commands that ask a running graph, and what they ask it.
#include "command/command_test.h"
#include "command/terminal.h"
#include "runtime/control/fake_bus.h"

#include <gtest/gtest.h>
#include <systemd/sd-bus.h>

#include <sys/wait.h>

#include <algorithm>
#include <atomic>
#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <utility>
#include <vector>

namespace {

using quorval_test::CommandTest;
using quorval_test::expect_result;
using quorval_test::expect_wrong_use;
using quorval_test::FakeBus;
using quorval_test::Process;
using quorval_test::ProcessOptions;
using quorval_test::ProcessResult;
using quorval_test::refuse;
using quorval_test::run_process;
using quorval_test::ScopedEnvironment;
using quorval_test::Terminal;
using Texts = std::vector<std::string>;

/// The arguments of a call that are texts, also those in a list of pairs.
std::string read_texts(sd_bus_message* call)
{
    const char* first = "";
    const char* second = "";
    if (sd_bus_message_has_signature(call, "a{ss}") == 0) {
        sd_bus_message_read(call, "s", &first);
        return first;
    }
    std::string text;
    sd_bus_message_enter_container(call, 'a', "{ss}");
    while (sd_bus_message_read(call, "{ss}", &first, &second) > 0) {
        text += (text.empty() ? "" : ", ") + std::string(first) + "=" + second;
    }
    return text;
}

/// One graph, `g`, on the user's bus.
class Remote : public CommandTest {
protected:
    Remote()
    {
        bus_.on("ListNames", [](sd_bus_message* call) {
            return sd_bus_reply_method_return(call, "as", 2, "org.quorval.graph.g", ":1.5");
        });
    }

    /// Has calls answered with a text, and noted.
    void answer(const std::string& name, const std::string& text)
    {
        bus_.on(name, [this, name, text](sd_bus_message* call) {
            note(name, call);
            return sd_bus_reply_method_return(call, "s", text.c_str());
        });
    }
    /// Likewise with nothing.
    void obey(const std::string& name)
    {
        bus_.on(name, [this, name](sd_bus_message* call) {
            note(name, call);
            return sd_bus_reply_method_return(call, "");
        });
    }

    /// What was called, when the bus has ended.
    Texts calls()
    {
        bus_.stop();
        return calls_;
    }

    FakeBus bus_;

private:
    void note(const std::string& name, sd_bus_message* call)
    {
        calls_.push_back(name + "(" + read_texts(call) + ")");
    }

    ScopedEnvironment system_{"DBUS_SYSTEM_BUS_ADDRESS", "unix:path=/no/such/bus"};
    Texts calls_;
};

TEST_F(Remote, GetShowsWhatTheGraphTells)
{
    answer("Get", "level = 2\n");

    expect_result(run({"get", "g", "left/gain"}), 0, "level = 2\n", "");

    EXPECT_EQ(calls(), Texts{"Get(left/gain)"});
}

TEST_F(Remote, DescribeShowsJsonInLines)
{
    answer("Describe", R"({"name":"g","blocks":[]})");

    expect_result(run({"describe", "g"}), 0, "{\n  \"blocks\": [],\n  \"name\": \"g\"\n}\n", "");

    EXPECT_EQ(calls(), Texts{"Describe()"});
}

TEST_F(Remote, StopStopsTheGraph)
{
    obey("Stop");

    expect_result(run({"stop", "g"}), 0, "", "");

    EXPECT_EQ(calls(), Texts{"Stop()"});
}

TEST_F(Remote, SetGivesAllValuesAtOnce)
{
    obey("Configure");
    obey("Save");

    expect_result(run({"set", "g", "b.x=1=2", "a/b.c.d=", "a.y='z'"}), 0, "", "");

    EXPECT_EQ(calls(), Texts{"Configure(a.y='z', a/b.c.d=, b.x=1=2)"});
}

TEST_F(Remote, SetSavesWhatItIsToldToKeep)
{
    obey("Configure");
    obey("Save");

    expect_result(run({"set", "--save", "g", "b.x=1"}), 0, "", "");
    expect_result(run({"set", "--save", "g"}), 0, "", "");

    EXPECT_EQ(calls(), (Texts{"Configure(b.x=1)", "Save()", "Save()"}));
}

TEST_F(Remote, SetSavesNothingThatIsRefused)
{
    bus_.on("Configure", refuse("Failed", "no luck"));
    obey("Save");

    expect_result(run({"set", "--save", "g", "b.x=1"}), 1, "", "quorval: error: no luck\n");

    EXPECT_EQ(calls(), Texts());
}

TEST_F(Remote, SetTellsOfAValueThatIsNotUtf8)
{
    expect_result(run({"set", "g", "b.x='\xFF'"}), 1, "",
                  "quorval: error: ''\xEF\xBF\xBD'' is not UTF-8\n");
}

TEST_F(Remote, FindsTheGraphOnTheSystemsBusToo)
{
    const ScopedEnvironment system("DBUS_SYSTEM_BUS_ADDRESS",
                                   std::string(std::getenv("DBUS_SESSION_BUS_ADDRESS")));
    const ScopedEnvironment user("DBUS_SESSION_BUS_ADDRESS", "unix:path=/no/such/bus");
    obey("Stop");

    expect_result(run({"stop", "g"}), 0, "", "");
    expect_result(run({"stop", "--bus", "system", "g"}), 0, "", "");
    expect_result(run({"stop", "--bus", "user", "g"}), 1, "",
                  "quorval: error: the user's bus cannot be reached: No such file or directory\n");
}

TEST_F(Remote, ListShowsNamesAndBusesInColumns)
{
    const ScopedEnvironment system("DBUS_SYSTEM_BUS_ADDRESS",
                                   std::string(std::getenv("DBUS_SESSION_BUS_ADDRESS")));
    bus_.on("ListNames", [](sd_bus_message* call) {
        return sd_bus_reply_method_return(call, "as", 3, "org.quorval.graph.short", ":1.5",
                                          "org.quorval.graph.a_long_one");
    });
    bus_.on("Get", [](sd_bus_message* call) {
        const bool is_long =
            sd_bus_message_get_destination(call) == std::string("org.quorval.graph.a_long_one");
        return sd_bus_reply_method_return(call, "v", "s", is_long ? "a-long\tone" : "short");
    });

    expect_result(run({"list", "--bus", "user"}), 0, "a-long\\x09one  user\nshort       user\n",
                  "");
    expect_result(run({"list"}), 0,
                  "a-long\\x09one  user\nshort       user\n"
                  "a-long\\x09one  system\nshort       system\n",
                  "");
}

TEST_F(Remote, CommandsTellThatThereIsNoSuchGraph)
{
    for (const Texts& command :
         {Texts{"describe", "h"}, Texts{"get", "h", "a"}, Texts{"set", "h", "a.b=1"},
          Texts{"stop", "h"}, Texts{"top", "h"}}) {
        expect_result(run(command), 1, "", "quorval: error: there is no running graph 'h'\n");
    }
}

TEST_F(Remote, CommandsRefuseWrongUse)
{
    for (const auto& [command, text] : std::vector<std::pair<Texts, std::string>>{
             {{"describe"}, "the name of a graph is missing"},
             {{"get"}, "the name of a graph is missing"},
             {{"set"}, "the name of a graph is missing"},
             {{"set", "--save"}, "the name of a graph is missing"},
             {{"stop"}, "the name of a graph is missing"},
             {{"top"}, "the name of a graph is missing"},
             {{"describe", "g", "x"}, "'x' is too much"},
             {{"get", "g", "a", "x"}, "'x' is too much"},
             {{"list", "x"}, "'x' is too much"},
             {{"stop", "g", "x"}, "'x' is too much"},
             {{"top", "g", "x"}, "'x' is too much"},
             {{"get", "g"}, "the path of a block is missing"},
             {{"set", "g"}, "an assignment is missing"},
             {{"set", "g", "a.=1"}, "'a.=1' is not of the form PATH.KEY=VALUE"},
             {{"list", "--bus", "none"}, "--bus has to be one of user, system, not 'none'"},
             {{"run", "--bus", "x", "g.toml"},
              "--bus has to be one of user, system, none, not 'x'"}}) {
        SCOPED_TRACE(testing::PrintToString(command));
        expect_wrong_use(run(command), text);
    }
}

constexpr const char* kEnter = "\033[?1049h\033[?25l";
constexpr const char* kLeave = "\033[?25h\033[?1049l";

/// A graph of two blocks with a link.
class RemoteTop : public Remote {
protected:
    RemoteTop()
    {
        bus_.on("Get", [this](sd_bus_message* call) { return tell_waves(call); });
        bus_.on("Statistics", [this](sd_bus_message* call) {
            return sd_bus_message_get_interface(call) == std::string("org.quorval.Graph1")
                       ? sd_bus_reply_method_return(call, "a(sttttt)", 2, "a", 3ULL, 0ULL, 1000ULL,
                                                    500ULL, 400ULL, "b", 4ULL, 1ULL, total_.load(),
                                                    600ULL, 500ULL)
                       : sd_bus_reply_method_return(call, "a(sbtttttt)", 1, "b.out", 0, 5ULL, 6ULL,
                                                    0ULL, 0ULL, 0ULL, 1ULL);
        });
    }

    /// On the terminal.
    ProcessOptions top(const Texts& more = {}) const
    {
        Texts arguments = {"top", "--bus", "user", "g"};
        arguments.insert(arguments.end(), more.begin(), more.end());
        ProcessOptions options = command(arguments);
        set_variable(options, "NO_COLOR", "1");
        set_variable(options, "LC_ALL", "C");
        options.terminal = terminal_.file();
        return options;
    }

    /// Waits until a terminal shows what the graph has told.
    void start(Process& process)
    {
        ASSERT_TRUE(terminal_.wait_for("g: 2 blocks, 7 waves\n")) << process.wait().err;
    }

    /// An end in order, that leaves the terminal as it was.
    void expect_end(const ProcessResult& result, const std::string& err)
    {
        expect_result(result, 0, "", err);
        const std::string shown = terminal_.shown();
        const std::string leave = kLeave;
        EXPECT_EQ(shown.rfind(kEnter, 0), 0U);
        EXPECT_EQ(shown.substr(shown.size() - std::min(shown.size(), leave.size())), leave);
    }

    Terminal terminal_;
    std::atomic<std::uint64_t> waves_ = 7;
    std::atomic<std::uint64_t> total_ = 2000;  // ns that "b" took
    std::atomic<int> losses_ = 0;  // so many questions are answered with the end of the connection

private:
    int tell_waves(sd_bus_message* call)
    {
        if (losses_ > 0) {
            --losses_;
            return -EIO;
        }
        return sd_bus_reply_method_return(call, "v", "t", waves_.load());
    }
};

constexpr const char* kTables =
    "block  runs  failures    total     max    99 %\n"
    "b         4         1  2.00 us  600 ns  500 ns\n"
    "a         3         0  1.00 us  500 ns  400 ns\n"
    "link      values  bytes  lost  gaps  queue\n"
    "b.out ->       5      6     0     0      1\n";

TEST_F(RemoteTop, PrintsItsTablesOnceWhereThereIsNoTerminal)
{
    expect_result(run({"top", "g"}), 0, kTables, "");
    expect_result(run_process(top({"--once"})), 0, "", "");
    EXPECT_EQ(terminal_.shown(), kTables);
}

TEST_F(RemoteTop, ShowsTheBlocksUntilQIsTyped)
{
    Process process(top());
    start(process);

    terminal_.type("q");

    expect_end(process.wait(), "");
    const std::string shown = terminal_.shown();
    const std::string frame =
        "\033[H\033[Kg: 2 blocks, 7 waves\n"
        "\033[Kblock   load         runs  failures    total     max    99 %\n"
        "\033[Kb      0.0 %            4         1  2.00 us  600 ns  500 ns\n"
        "\033[Ka      0.0 %            3         0  1.00 us  500 ns  400 ns\n"
        "\033[K\n"
        "\033[Klink      values  bytes  lost  gaps  queue\n"
        "\033[Kb.out ->       5      6     0     0      1\n"
        "\033[J";
    EXPECT_NE(shown.find(frame), std::string::npos) << shown;
}

TEST_F(RemoteTop, ShowsTheLoadSinceTheAnswerBefore)
{
    Process process(top());
    start(process);
    EXPECT_EQ(terminal_.shown().find('#'), std::string::npos);

    total_ = 2001;
    EXPECT_TRUE(terminal_.wait_for("b      0.0 %  #####  "));

    terminal_.type("q");
    expect_end(process.wait(), "");
}

TEST_F(RemoteTop, TakesOtherKeysForNothing)
{
    Process process(top());
    start(process);

    terminal_.type("xy");
    process.send(SIGWINCH);
    waves_ = 8;
    ASSERT_TRUE(terminal_.wait_for("g: 2 blocks, 8 waves"));
    terminal_.type("\4");

    expect_end(process.wait(), "");
}

TEST_F(RemoteTop, EndsOnSignals)
{
    for (const int signal : {SIGINT, SIGTERM, SIGHUP, SIGQUIT}) {
        SCOPED_TRACE(signal);
        ++waves_;
        Process process(top());
        ASSERT_TRUE(terminal_.wait_for("blocks, " + std::to_string(waves_) + " waves\n"));

        process.send(signal);

        expect_end(process.wait(), "");
    }
}

TEST_F(RemoteTop, LeavesTheTerminalAloneWhileItIsSuspended)
{
    Process process(top());
    start(process);

    process.send(SIGTSTP);
    int state = 0;
    ASSERT_EQ(::waitpid(process.id(), &state, WUNTRACED), process.id());
    ASSERT_TRUE(WIFSTOPPED(state));
    process.send(SIGCONT);
    ASSERT_TRUE(terminal_.wait_for(std::string(kLeave) + kEnter));
    terminal_.type("q");

    expect_end(process.wait(), "");
}

TEST_F(RemoteTop, TellsThatTheGraphHasGone)
{
    Process process(top());
    start(process);

    bus_.on("ListNames",
            [](sd_bus_message* call) { return sd_bus_reply_method_return(call, "as", 0); });
    losses_ = 1;

    expect_end(process.wait(), "quorval: graph 'g' has gone\n");
}

TEST_F(RemoteTop, GoesOnWithAGraphThatDoesNotAnswerForAWhile)
{
    Process process(top());
    start(process);

    losses_ = 3;
    waves_ = 8;
    ASSERT_TRUE(terminal_.wait_for("g: 2 blocks, 7 waves, no answer for "));
    ASSERT_TRUE(terminal_.wait_for("g: 2 blocks, 8 waves"));
    terminal_.type("q");

    expect_end(process.wait(), "");
    EXPECT_EQ(terminal_.shown().find("no answer for 1 s"), std::string::npos);
}

TEST_F(RemoteTop, WaitsForAGraphThatHasNotAnsweredYet)
{
    bus_.on("Get", [](sd_bus_message* /*call*/) { return 1; });
    Process process(top());
    ASSERT_TRUE(terminal_.wait_for("\033[H\033[Kg: waiting for its answer\n\033[Kblock  load "));

    terminal_.type("q");

    expect_end(process.wait(), "");
}

TEST_F(RemoteTop, FailsWithAGraphThatHasNeverAnswered)
{
    bus_.on("Get", refuse("Failed", "busy"));

    expect_result(run_process(top()), 1, "", "quorval: error: busy\n");

    EXPECT_NE(terminal_.shown().find(kLeave), std::string::npos);
}

}  // namespace
