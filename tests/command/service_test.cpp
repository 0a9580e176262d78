// What `quorval run` tells a manager of services, and the unit that it comes with.
#include "command/command_test.h"
#include "command/notify_socket.h"

#include <gmock/gmock.h>

#include <csignal>
#include <fstream>
#include <iterator>
#include <regex>
#include <string>
#include <utility>
#include <vector>

namespace {

using quorval_test::CommandTest;
using quorval_test::expect_result;
using quorval_test::NotifySocket;
using quorval_test::Process;
using quorval_test::ProcessOptions;
using quorval_test::run_process;
using testing::HasSubstr;
using testing::Not;

constexpr const char* kReady = "READY=1\nSTATUS=running, 1 blocks";
constexpr const char* kStopping = "STOPPING=1\nSTATUS=stopping";

class Service : public CommandTest {
protected:
    Service() { write("idle.toml", "format = 1\nblocks.a.type = \"trouble:Trouble\"\n"); }

    /// `quorval run`, started by the manager.
    ProcessOptions service(const std::string& file) const
    {
        ProcessOptions options = command({"run", file});
        set_variable(options, "NOTIFY_SOCKET", directory() + "/notify");
        return options;
    }

    /// Those up to the stop. All have to be taken: a socket that is full holds the process up.
    int count_signs_of_life() const
    {
        int count = 0;
        std::string message = socket.take();
        for (; message == "WATCHDOG=1"; message = socket.take()) {
            ++count;
        }
        EXPECT_EQ(message, kStopping);
        return count;
    }

    NotifySocket socket{directory() + "/notify"};
};

TEST_F(Service, TellsThatItIsReadyAndThatItStops)
{
    Process process(service("idle.toml"));

    EXPECT_EQ(socket.take(), kReady);
    process.send(SIGTERM);
    EXPECT_EQ(socket.take(), kStopping);

    expect_result(process.wait(), 0, "a started\na stopped\n", "");
}

TEST_F(Service, TellsWhatAReplayDoes)
{
    write("numbers.toml",
          "format = 1\nconnections = [\"count.out -> print.in\"]\n"
          "blocks = { count.type = \"numbers:Count\", print.type = \"numbers:Print\" }\n");
    expect_result(run({"run", "--record", "r", "numbers.toml"}), 0, "1\n2\n3\n", "");
    ProcessOptions options = command({"replay", "r", "numbers.toml"});
    set_variable(options, "NOTIFY_SOCKET", directory() + "/notify");

    expect_result(run_process(options), 0, "1\n2\n3\n", "");

    EXPECT_EQ(socket.take_present(), "READY=1\nSTATUS=running, 2 blocks");
    EXPECT_EQ(socket.take_present(), kStopping);
}

TEST_F(Service, FindsAManagerWhoseSocketIsNoFile)
{
    const std::string name = "quorval" + directory() + "/notify";
    const NotifySocket abstract(std::string(1, '\0') + name);
    ProcessOptions options = command({"run", "idle.toml"});
    set_variable(options, "NOTIFY_SOCKET", "@" + name);
    Process process(options);

    EXPECT_EQ(abstract.take(), kReady);

    process.send(SIGTERM);
    EXPECT_EQ(process.wait().status, 0);
}

TEST_F(Service, RunsWithoutAManagerThatCanBeTold)
{
    for (const std::string& name :
         {std::string("x"), directory() + "/none", std::string(200, '/')}) {
        ProcessOptions options = command({"run", "bad.toml"});
        set_variable(options, "NOTIFY_SOCKET", name);
        write("bad.toml",
              "format = 1\nblocks.a = { type = \"trouble:Trouble\", config = { where = \"start\", "
              "what = \"throw\" } }\n");

        expect_result(run_process(options), 1, "",
                      "quorval: error: block 'a' failed in start: no luck\n");
    }
}

TEST_F(Service, DoesNotLoadWhatASmallGraphDoesNotNeed)
{
    Process process(service("idle.toml"));
    EXPECT_EQ(socket.take(), kReady);

    std::ifstream maps("/proc/" + std::to_string(process.id()) + "/maps");
    const std::string mapped((std::istreambuf_iterator<char>(maps)), {});

    EXPECT_THAT(mapped, HasSubstr("libquorval-runtime"));
    for (const char* library : {"libsystemd", "libsqlite3", "libmosquitto"}) {
        EXPECT_THAT(mapped, Not(HasSubstr(library)));
    }
#ifdef QUORVAL_LOADS_TBB
    EXPECT_THAT(mapped, Not(HasSubstr("libtbb")));
#endif
    process.send(SIGTERM);
    EXPECT_EQ(process.wait().status, 0);
}

TEST_F(Service, IsNotReadyWhereABlockFailsToStart)
{
    write("bad.toml",
          "format = 1\nblocks.a = { type = \"trouble:Trouble\", config = { where = \"start\", "
          "what = \"throw\" } }\n");
    Process process(service("bad.toml"));

    EXPECT_EQ(socket.take(), kStopping);

    expect_result(process.wait(), 1, "", "quorval: error: block 'a' failed in start: no luck\n");
}

TEST_F(Service, TellsOfAReload)
{
    Process process(service("idle.toml"));
    EXPECT_EQ(socket.take(), kReady);

    write("idle.toml", "format = 1\nblocks.a = { type = \"trouble:Trouble\", config.step = 2 }\n");
    process.send(SIGHUP);

    const std::string reloading = socket.take();
    EXPECT_TRUE(std::regex_match(
        reloading,
        std::regex("RELOADING=1\nMONOTONIC_USEC=[0-9]+\nSTATUS=reading its files again")))
        << reloading;
    EXPECT_EQ(socket.take(), kReady);
    process.send(SIGTERM);
    expect_result(process.wait(), 0, "a started\na reconfigured: step 2\na stopped\n", "");
}

TEST_F(Service, ShowsThatItsLoopIsAlive)
{
    ProcessOptions options = service("idle.toml");
    set_variable(options, "WATCHDOG_USEC", "2000");
    Process process(options);

    EXPECT_EQ(socket.take(), kReady);
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(socket.take(), "WATCHDOG=1");
    }
    process.send(SIGTERM);
    count_signs_of_life();

    EXPECT_EQ(process.wait().status, 0);
}

TEST_F(Service, ShowsNoSignOfLifeWhereTheManagerWatchesAnotherOrNone)
{
    const std::vector<std::pair<std::string, std::string>> variables = {
        {"2000", "1"}, {"", ""}, {"often", ""}, {"36893488147419104", ""}, {"-2000", ""}};
    for (const auto& [time, watched] : variables) {
        SCOPED_TRACE(time);
        ProcessOptions options = service("idle.toml");
        set_variable(options, "WATCHDOG_USEC", time);
        set_variable(options, "WATCHDOG_PID", watched);
        Process process(options);

        EXPECT_EQ(socket.take(), kReady);
        process.send(SIGTERM);

        EXPECT_EQ(count_signs_of_life(), 0);
        EXPECT_EQ(process.wait().status, 0);
    }
}

TEST_F(Service, ShowsThatAReplayIsAlive)
{
    write("ticks.toml",
          "format = 1\nconnections = [\"timer.tick -> print.in\"]\n"
          "blocks.timer = { type = \"basic:Timer\", config = { period = 0.02, count = 5 } }\n"
          "blocks.print = { type = \"basic:Print\", config.type = \"int64\" }\n");
    const std::string plugins = std::string("--plugin-path=") + QUORVAL_BASIC_PLUGIN_DIR;
    ASSERT_EQ(run_process(command({"run", plugins, "--record", "r", "ticks.toml"})).status, 0);
    ProcessOptions options = command({"replay", plugins, "r", "ticks.toml"});
    set_variable(options, "NOTIFY_SOCKET", directory() + "/notify");
    set_variable(options, "WATCHDOG_USEC", "2000");
    Process process(options);

    EXPECT_EQ(socket.take(), "READY=1\nSTATUS=running, 2 blocks");
    EXPECT_GE(count_signs_of_life(), 3);

    expect_result(process.wait(), 0, "1\n2\n3\n4\n5\n", "");
}

}  // namespace
