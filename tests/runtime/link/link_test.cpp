// Graphs on two machines, each a process, with a broker between them.
#include "command/command_test.h"
#include "runtime/link/broker.h"
#include "support/process.h"

#include <gtest/gtest.h>

#include <csignal>
#include <memory>
#include <numeric>
#include <string>
#include <vector>

namespace quorval_test {

namespace {

constexpr const char* kStands = "stands\n";

class LinkTest : public CommandTest {
protected:
    /// Numbers are counted on `edge` and printed on `hub`.
    void write_graph(const Broker& broker, int count, const std::string& delivery,
                     const std::string& more = "") const
    {
        write("g.toml",
              "format = 1\nmachines = { edge = {}, hub = {} }\n" + broker.link() +
                  "blocks.count = { type = \"numbers:Count\", machine = \"edge\", "
                  "config.count = " +
                  std::to_string(count) +
                  " }\n"
                  "blocks.print = { type = \"numbers:Print\", machine = \"hub\", config.flush = "
                  "true }\n" +
                  more + "[[connections]]\nfrom = \"count.out\"\nto = \"print.in\"\ndelivery = \"" +
                  delivery + "\"\n");
    }

    /// Two machines that wait for each other's values for ever.
    void write_waiting_graph(const std::string& link) const
    {
        write("g.toml",
              "format = 1\nmachines = { edge = {}, hub = {} }\n" + link + waiting_blocks());
    }

    /// They keep their machines running.
    static std::string waiting_blocks()
    {
        return "blocks.a = { type = \"numbers:Double\", machine = \"edge\" }\n"
               "blocks.b = { type = \"numbers:Double\", machine = \"hub\" }\n"
               "[[connections]]\nfrom = \"a.out\"\nto = \"b.in\"\n"
               "[[connections]]\nfrom = \"b.out\"\nto = \"a.in\"\n";
    }

    std::unique_ptr<Process> start(const std::string& machine) const
    {
        return std::make_unique<Process>(command({"run", "-v", "--machine", machine, "g.toml"}));
    }

    ProcessResult run_machine(const std::string& machine) const
    {
        return run({"run", "--machine", machine, "g.toml"});
    }

    static ProcessResult stop(Process& process)
    {
        process.send(SIGTERM);
        return process.wait();
    }

    static std::string numbers(int from, int to)
    {
        std::string text;
        for (int number = from; number <= to; ++number) {
            text += std::to_string(number) + "\n";
        }
        return text;
    }
};

}  // namespace

TEST_F(LinkTest, CarriesAllValues)
{
    Broker broker(directory());
    write_graph(broker, 2000, "all");
    const auto hub = start("hub");
    ASSERT_TRUE(hub->wait_for(kStands));

    const ProcessResult edge = run_machine("edge");
    ASSERT_TRUE(hub->wait_for("\n2000\n"));
    const ProcessResult result = stop(*hub);

    expect_result(edge, 0, "", "");
    EXPECT_EQ(result.out, numbers(1, 2000));
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.err.find("lost"), std::string::npos) << result.err;
}

TEST_F(LinkTest, GivesThePresentValueToWhoJoinsLate)
{
    Broker broker(directory());
    write_graph(broker, 20, "latest");

    expect_result(run_machine("edge"), 0, "", "");
    const auto hub = start("hub");
    ASSERT_TRUE(hub->wait_for("20\n"));

    EXPECT_EQ(stop(*hub).out, "20\n");
}

TEST_F(LinkTest, KeepsAllValuesForAMachineThatWasThere)
{
    Broker broker(directory());
    write_graph(broker, 50, "all");
    const auto before = start("hub");
    ASSERT_TRUE(before->wait_for(kStands));
    stop(*before);

    expect_result(run_machine("edge"), 0, "", "");
    broker.stop();
    broker.restart();
    const auto hub = start("hub");
    ASSERT_TRUE(hub->wait_for("\n50\n"));

    EXPECT_EQ(stop(*hub).out, numbers(1, 50));
}

TEST_F(LinkTest, SaysThatValuesGoNowhere)
{
    Broker broker(directory());
    write_graph(broker, 3, "all");

    expect_result(run_machine("edge"), 0, "",
                  "quorval: warning: values of count.out go nowhere: no reader was there yet\n");
}

TEST_F(LinkTest, CarriesAllValuesOverARestartOfTheBroker)
{
    constexpr int kCount = 100'000;
    Broker broker(directory());
    // A machine that stops would wait a few seconds only for its queue to be sent.
    write_graph(broker, kCount, "all", "link.queue = 200000\n" + waiting_blocks());
    const auto hub = start("hub");
    ASSERT_TRUE(hub->wait_for(kStands));
    const auto edge = start("edge");

    ASSERT_TRUE(hub->wait_for("\n20000\n"));
    broker.stop();
    broker.restart();
    ASSERT_TRUE(hub->wait_for("\n" + std::to_string(kCount) + "\n"));

    EXPECT_EQ(stop(*edge).status, 0);
    EXPECT_EQ(stop(*hub).out, numbers(1, kCount));
}

TEST_F(LinkTest, WaitsForTheBroker)
{
    Broker broker(directory());
    write_waiting_graph(broker.link());
    broker.stop();
    const auto hub = start("hub");

    ASSERT_TRUE(hub->wait_for(" is away: Connection refused; values wait for it\n"));
    broker.restart();
    ASSERT_TRUE(hub->wait_for(" is back\n"));

    EXPECT_EQ(stop(*hub).status, 0);
}

TEST_F(LinkTest, TellsOfMachinesThatComeAndGo)
{
    Broker broker(directory());
    write_waiting_graph(broker.link());
    const auto hub = start("hub");
    ASSERT_TRUE(hub->wait_for(kStands));

    auto edge = start("edge");
    ASSERT_TRUE(hub->wait_for("quorval: machine 'edge' is online\n"));
    edge->send(SIGKILL);
    ASSERT_TRUE(hub->wait_for("quorval: warning: machine 'edge' is offline\n"));
    edge = start("edge");
    ASSERT_TRUE(hub->wait_for("quorval: warning: machine 'edge' is online\n"));
    EXPECT_EQ(stop(*edge).status, 0);

    EXPECT_EQ(stop(*hub).status, 0);
}

TEST_F(LinkTest, EndsARunWhosePlaceIsTaken)
{
    Broker broker(directory());
    write_waiting_graph(broker.link());
    const auto first = start("hub");
    ASSERT_TRUE(first->wait_for(kStands));

    const auto second = start("hub");
    const ProcessResult result = first->wait();
    ASSERT_TRUE(second->wait_for(kStands));

    EXPECT_EQ(result.status, 1);
    EXPECT_NE(result.err.find("quorval: error: another 'quorval-g-hub' has taken the place at the "
                              "broker\n"),
              std::string::npos)
        << result.err;
    EXPECT_EQ(stop(*second).status, 0);
}

TEST_F(LinkTest, EndsARunThatTheBrokerRefuses)
{
    ProcessOptions options;
    options.command = {"/usr/bin/mosquitto_passwd", "-b", "-c",
                       directory() + "/passwords",  "me", "secret"};
    ASSERT_EQ(run_process(options).status, 0);
    Broker broker(directory(), "password_file " + directory() + "/passwords\n");
    write("password", "secret\n");
    write("wrong", "secrets\n");
    const std::string text =
        "quorval: error: the broker mqtt://127.0.0.1:" + std::to_string(broker.port()) +
        " refuses the connection: Not authorized\n";

    write_waiting_graph(broker.link() + "link.user = \"me\"\nlink.password_file = \"wrong\"\n");
    expect_result(run_machine("hub"), 1, "", text);
    write_waiting_graph(broker.link() + "link.user = \"me\"\nlink.password_file = \"nowhere\"\n");
    expect_result(run_machine("hub"), 1, "",
                  "quorval: error: the link cannot be used: cannot read 'nowhere'\n");
    write_waiting_graph(broker.link() + "link.user = \"me\"\nlink.password_file = \"password\"\n");
    const auto hub = start("hub");
    EXPECT_TRUE(hub->wait_for(kStands));
    EXPECT_EQ(stop(*hub).status, 0);
}

}  // namespace quorval_test
