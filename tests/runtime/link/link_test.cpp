// Graphs on two machines, each a process, with a broker between them.
#include "command/command_test.h"
#include "runtime/link/broker.h"
#include "runtime/link/certificate.h"
#include "runtime/link/server.h"
#include "support/process.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

namespace quorval_test {

namespace {

constexpr const char* kStands = "stands\n";
constexpr const char* kTlsFailed = "TLS failed; a certificate or a key may be wrong";

class LinkTest : public CommandTest {
protected:
    /// Numbers are counted on `edge` and printed on `hub`.
    void write_graph(const std::string& link, int count, const std::string& delivery,
                     const std::string& more = "") const
    {
        write("g.toml",
              "format = 1\nmachines = { edge = {}, hub = {} }\n" + link +
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

    static int count(const std::string& text, const std::string& part)
    {
        int count = 0;
        for (auto at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) {
            ++count;
        }
        return count;
    }

    /// The sum of the numbers that stand behind `before` and in front of `after`.
    static int sum(const std::string& text, const std::string& before, const std::string& after)
    {
        int sum = 0;
        for (auto at = text.find(before); at != std::string::npos; at = text.find(before, at + 1)) {
            std::size_t length = 0;
            const std::string rest = text.substr(at + before.size());
            if (rest.find_first_of("0123456789") == 0) {
                const int number = std::stoi(rest, &length);
                sum += rest.compare(length, after.size(), after) == 0 ? number : 0;
            }
        }
        return sum;
    }

    /// How many values were lost by the messages.
    static int lost(const std::string& messages)
    {
        return sum(messages, "warning: ", " values of count.out are lost") +
               sum(messages, "(", " more since the last)") +
               sum(messages, "warning: ", " more values of count.out are lost");
    }

    /// As the codec has it.
    static std::string int32(int value)
    {
        return {'\1', static_cast<char>(value), '\0', '\0', '\0'};
    }

    /// How many values of `count.out` waited at once, by the statistics.
    static int longest_queue(const std::string& messages)
    {
        const std::string name = "-> count.out";
        std::istringstream row(messages.substr(messages.find(name) + name.size()));
        int number = -1;
        for (int column = 0; column < 5; ++column) {
            row >> number;
        }
        return number;
    }

    /// Kilobytes that a process had at once.
    static long most_memory(const Process& process)
    {
        const std::string status = read_file("/proc/" + std::to_string(process.id()) + "/status");
        return std::stol(status.substr(status.find("VmHWM:") + 6));
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
    write_graph(broker.link(), 2000, "all");
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

TEST_F(LinkTest, ShowsWhatWentOverIt)
{
    Broker broker(directory());
    write_graph(broker.link(), 3, "all");
    const auto hub =
        std::make_unique<Process>(command({"run", "-v", "--stats", "--machine", "hub", "g.toml"}));
    ASSERT_TRUE(hub->wait_for(kStands));

    const ProcessResult edge = run({"run", "--stats", "--machine", "edge", "g.toml"});
    ASSERT_TRUE(hub->wait_for("3\n"));

    // How many wait at once depends on when the broker answers.
    EXPECT_NE(edge.err.find("\nlink          values  bytes  lost  gaps  queue\n"
                            "count.out ->       3     15     0     0      "),
              std::string::npos)
        << edge.err;
    const std::string err = stop(*hub).err;
    EXPECT_NE(err.find("\n-> count.out       3     15     0     0      "), std::string::npos)
        << err;
}

TEST_F(LinkTest, GivesThePresentValueToWhoJoinsLate)
{
    Broker broker(directory());
    write_graph(broker.link(), 20, "latest");

    expect_result(run_machine("edge"), 0, "", "");
    const auto hub = start("hub");
    ASSERT_TRUE(hub->wait_for("20\n"));

    EXPECT_EQ(stop(*hub).out, "20\n");
}

TEST_F(LinkTest, KeepsAllValuesForAMachineThatWasThere)
{
    Broker broker(directory());
    write_graph(broker.link(), 50, "all");
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
    write_graph(broker.link(), 3, "all");

    expect_result(run_machine("edge"), 0, "",
                  "quorval: warning: values of count.out go nowhere: no reader was there yet\n");
}

TEST_F(LinkTest, CarriesAllValuesOverARestartOfTheBroker)
{
    const int count = std::string(QUORVAL_EMULATOR).empty() ? 100'000 : 10'000;
    Broker broker(directory());
    // A machine that stops would wait a few seconds only for its queue to be sent.
    write_graph(broker.link(), count, "all", "link.queue = 200000\n" + waiting_blocks());
    const auto hub = start("hub");
    ASSERT_TRUE(hub->wait_for(kStands));
    const auto edge = start("edge");

    ASSERT_TRUE(hub->wait_for("\n" + std::to_string(count / 5) + "\n"));
    broker.stop();
    broker.restart();
    ASSERT_TRUE(hub->wait_for("\n" + std::to_string(count) + "\n"));

    EXPECT_EQ(stop(*edge).status, 0);
    EXPECT_EQ(stop(*hub).out, numbers(1, count));
}

TEST_F(LinkTest, CountsWhatABrokerLosesThatIsKilled)
{
    const int count = 50'000;
    Broker broker(directory());
    write_graph(broker.link(), count, "all", "link.queue = 200000\n" + waiting_blocks());
    const auto hub = start("hub");
    ASSERT_TRUE(hub->wait_for(kStands));
    const auto edge = start("edge");

    // What it sent behind the save comes twice, and what it got is gone.
    ASSERT_TRUE(hub->wait_for("\n" + std::to_string(count / 100) + "\n"));
    broker.save();
    ASSERT_TRUE(hub->wait_for("\n" + std::to_string(count / 40) + "\n"));
    broker.kill();
    broker.restart();
    ASSERT_TRUE(hub->wait_for("\n" + std::to_string(count) + "\n"));

    EXPECT_EQ(stop(*edge).status, 0);
    const ProcessResult result = stop(*hub);
    EXPECT_EQ(result.status, 0);
    std::istringstream lines(result.out);
    int last = 0;
    int printed = 0;
    for (int number = 0; lines >> number; ++printed) {
        EXPECT_GT(number, last);
        last = number;
    }
    EXPECT_EQ(printed + lost(result.err), count) << result.err;
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

    const ProcessResult result = stop(*hub);
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(count(result.err, " is away: "), 1) << result.err;
}

TEST_F(LinkTest, SaysWhatDidNotFitIntoItsQueue)
{
    Broker broker(directory());
    write_graph(broker.link(), 100, "all", "link.queue = 10\n" + waiting_blocks());
    const auto hub = start("hub");
    ASSERT_TRUE(hub->wait_for(kStands));
    broker.stop();

    const auto edge = start("edge");
    ASSERT_TRUE(edge->wait_for(" values of count.out are lost: the queue of 10 values is full"));
    ASSERT_TRUE(edge->wait_for(" is away: "));
    broker.restart();
    ASSERT_TRUE(hub->wait_for("100\n"));

    EXPECT_EQ(lost(stop(*edge).err), 90);
    EXPECT_EQ(stop(*hub).out, numbers(91, 100));
}

TEST_F(LinkTest, SaysThatTheBrokerDoesNotTakeAValue)
{
    const std::string name(200, 'x');
    const Broker broker(directory(), "allow_anonymous true\nmax_packet_size 250\n");
    write("g.toml", "format = 1\nmachines = { edge = {}, hub = {} }\n" + broker.link() + "blocks." +
                        name +
                        " = { type = \"numbers:Count\", machine = \"edge\", config.count = 1 }\n"
                        "blocks.print = { type = \"numbers:Print\", machine = \"hub\" }\n"
                        "[[connections]]\nfrom = \"" +
                        name + ".out\"\nto = \"print.in\"\ndelivery = \"all\"\n");

    expect_result(run_machine("edge"), 0, "",
                  "quorval: warning: 1 values of " + name +
                      ".out are lost: a packet of 288 bytes is more than the 250 that the broker "
                      "takes\n");
}

TEST_F(LinkTest, WaitsSomeSecondsForItsQueueAtTheEnd)
{
    Broker broker(directory());
    write_graph(broker.link(), 3, "all");
    broker.stop();

    expect_result(run_machine("edge"), 0, "",
                  "quorval: warning: the broker " + broker.url() +
                      " is away: Connection refused; values wait for it\n"
                      "quorval: warning: 3 values of count.out are lost: the graph stopped before "
                      "they were sent\n");
}

TEST_F(LinkTest, WaitsForABrokerThatRefusesItAfterAll)
{
    Broker broker(directory());
    write_waiting_graph(broker.link());
    const auto hub = start("hub");
    ASSERT_TRUE(hub->wait_for(kStands));
    broker.stop();
    broker.restart("allow_anonymous false\n");

    // Its first attempt may have met no broker.
    ASSERT_TRUE(hub->wait_for(" is away: "));
    broker.stop();
    broker.restart("allow_anonymous true\n");
    ASSERT_TRUE(hub->wait_for(" is back\n"));

    EXPECT_EQ(stop(*hub).status, 0);
}

TEST_F(LinkTest, DropsWhatStrangersPublish)
{
    Broker broker(directory());
    write_graph(broker.link(), 3, "all");
    const auto hub = start("hub");
    ASSERT_TRUE(hub->wait_for(kStands));

    broker.publish("quorval/g/value/count/out", "garbage");
    broker.publish("quorval/g/machine/edge", "garbage");
    broker.publish("quorval/g/machine/", "online");
    ASSERT_TRUE(
        hub->wait_for("1 values of count.out are lost: a message has no type, start and "
                      "number\n"));
    expect_result(run_machine("edge"), 0, "", "");
    ASSERT_TRUE(hub->wait_for("3\n"));

    EXPECT_EQ(stop(*hub).out, numbers(1, 3));
}

TEST_F(LinkTest, TellsOfAMachineThatStops)
{
    Broker broker(directory());
    write_waiting_graph(broker.link());
    const auto hub = start("hub");
    ASSERT_TRUE(hub->wait_for(kStands));
    const auto edge = start("edge");
    ASSERT_TRUE(hub->wait_for("quorval: machine 'edge' is online\n"));

    EXPECT_EQ(stop(*edge).status, 0);
    ASSERT_TRUE(hub->wait_for("quorval: warning: machine 'edge' is offline\n"));

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

TEST_F(LinkTest, EndsTheEarlierOfTwoRunsThatComeBack)
{
    for (const char* delivery : {"all", "latest"}) {
        Broker broker(directory());
        write_graph(broker.link(), 3, delivery, waiting_blocks());
        const auto first = start("hub");
        ASSERT_TRUE(first->wait_for(kStands));
        broker.stop();
        const auto second = start("hub");
        ASSERT_TRUE(second->wait_for(" is away: "));

        broker.restart();
        const ProcessResult result = first->wait();
        EXPECT_EQ(result.status, 1) << delivery;
        EXPECT_NE(result.err.find("quorval: error: another 'quorval-g-hub' has taken the place at "
                                  "the broker\n"),
                  std::string::npos)
            << delivery << "\n"
            << result.err;

        EXPECT_TRUE(second->wait_for(kStands)) << delivery;
        EXPECT_EQ(stop(*second).status, 0) << delivery;
    }
}

TEST_F(LinkTest, IsTheLaterOneWhereTheClockWasSetBack)
{
    const std::string future = "9000000000000000000";
    Server server;
    write_waiting_graph(server.link());
    const auto hub = start("hub");

    server.welcome();
    const std::string own = server.read(Server::kSubscribe);
    server.send(Server::message("quorval/g/machine/hub", "x", std::stoull(future), 1, "offline"));
    server.send(Server::answer_to(own));
    server.answer_subscriptions(2);

    EXPECT_NE(server.read(Server::kPublish).find("9000000000000000001"), std::string::npos);
    // Its last will says so too, from the next connection on.
    server.accept();
    EXPECT_NE(server.read(Server::kConnect).find("9000000000000000001"), std::string::npos);
    server.drop();
    EXPECT_EQ(stop(*hub).status, 0);
}

TEST_F(LinkTest, EndsARunWhosePlaceIsTakenWhereItMayNotSubscribe)
{
    const std::string takes_ten_bytes("\0\0\5\x27\0\0\0\12", 8);
    const std::string topic = "quorval/g/machine/hub";
    Server server;
    write_waiting_graph(server.link());
    const auto hub = start("hub");
    server.serve(3);
    // Nothing is left to be sent again.
    const std::string online = server.read(Server::kPublish);
    server.send(Server::packet(0x40, online.substr(Server::text(topic).size(), 2)));

    server.accept();
    server.read(Server::kConnect);
    server.send(Server::packet(0x20, takes_ten_bytes) +
                Server::message(topic, "x", 9'000'000'000'000'000'000U, 1, "online"));

    const ProcessResult result = hub->wait();
    EXPECT_EQ(result.status, 1);
    EXPECT_NE(result.err.find("quorval: error: another 'quorval-g-hub' has taken the place at the "
                              "broker\n"),
              std::string::npos)
        << result.err;
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
        "quorval: error: the broker " + broker.url() + " refuses the connection: Not authorized\n";

    write_waiting_graph(broker.link() + "link.user = \"me\"\nlink.password_file = \"wrong\"\n");
    expect_result(run_machine("hub"), 1, "", text);
    write_waiting_graph(broker.link() + "link.user = \"me\"\nlink.password_file = \"nowhere\"\n");
    expect_result(run_machine("hub"), 1, "",
                  "quorval: error: the link cannot be used: cannot read 'nowhere': No such file or "
                  "directory\n");
    write_waiting_graph(broker.link() + "link.user = \"me\"\nlink.password_file = \"password\"\n");
    const auto hub = start("hub");
    EXPECT_TRUE(hub->wait_for(kStands));
    EXPECT_EQ(stop(*hub).status, 0);
}

// --- brokers that are none ---

TEST_F(LinkTest, WaitsForABrokerBehindTlsThatEndsEachConnection)
{
    Server server;
    write_waiting_graph(server.link("mqtts"));
    const auto hub = start("hub");

    // As a proxy does whose broker is away.
    for (int count = 0; count < 5; ++count) {
        server.accept();
    }

    const ProcessResult result = stop(*hub);
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(count(result.err, " is away: "), 1) << result.err;
    EXPECT_EQ(count(result.err, "refuses"), 0) << result.err;
}

TEST_F(LinkTest, TriesMoreAndMoreSeldomWhereItIsAcceptedAndDropped)
{
    constexpr int kAttempts = 6;
    constexpr std::chrono::milliseconds kPauses(100 + 200 + 400 + 800 + 1600);
    Server server;
    write_waiting_graph(server.link());
    const auto begin = std::chrono::steady_clock::now();
    const auto hub = start("hub");

    for (int count = 0; count < kAttempts; ++count) {
        server.welcome();
    }

    EXPECT_GE(std::chrono::steady_clock::now() - begin, kPauses);
    const ProcessResult result = stop(*hub);
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(count(result.err, " is away: "), 1) << result.err;
    EXPECT_EQ(count(result.err, " is back"), 0) << result.err;
}

TEST_F(LinkTest, SaysThatABrokerEndedTheConnection)
{
    Server server;
    write_waiting_graph(server.link());
    const auto hub = start("hub");

    server.welcome();
    server.send(Server::packet(0xE0, std::string(2, '\0')));

    EXPECT_TRUE(hub->wait_for(" is away: it ended the connection; values wait for it\n"));
    EXPECT_EQ(stop(*hub).status, 0);
}

TEST_F(LinkTest, TakesWhatIsAValueOfTheOutputAlone)
{
    constexpr std::uint64_t kStart = 5;
    Server server;
    write_graph(server.link() + "link.limit = 1000\n", 3, "all");
    const auto hub = start("hub");
    server.serve(3);

    const auto send = [&](const std::string& type, std::uint64_t number, const std::string& value) {
        server.send(Server::message("quorval/g/value/count/out", type, kStart, number, value, 1));
    };
    send("int32", 1, int32(1));
    send("string", 2, int32(2));
    send("int32", 3, "x");
    send("int32", 4, std::string(1001, 'x'));
    send("int32", 5, int32(5));
    send("int32", 1, int32(1));
    send("int32", 5, int32(5));
    send("int32", UINT64_MAX, int32(6));
    send("int32", 6, int32(7));
    ASSERT_TRUE(hub->wait_for("7\n"));
    server.drop();

    const ProcessResult result = stop(*hub);
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.out, "1\n5\n6\n7\n");
    // The value of another type is one, and the gap that it leaves is another.
    EXPECT_EQ(lost(result.err), 4) << result.err;
}

TEST_F(LinkTest, BearsWhatNobodyAskedFor)
{
    Server server;
    write_graph(server.link(), 3, "all");
    const auto hub = start("hub");
    server.serve(3);

    const std::string value = int32(1);
    for (int count = 0; count < 10'000; ++count) {
        const std::string name = std::to_string(count);
        server.send(Server::message("quorval/g/machine/stranger" + name, "x", 1, 1, "online"));
        server.send(Server::message("quorval/other/value/count/out", "int32", 1, 1, value));
        server.send(Server::message("quorval/g/value/count/out" + name, "int32", 1, 1, value));
        server.send(Server::packet(0x40, std::string("\x12\x34", 2)));
    }
    server.send(Server::packet(0x90, std::string("\0\1\0", 3) + std::string(100'000, '\x87')));
    std::string properties;
    for (int count = 0; count < 1000; ++count) {
        properties += "\x26" + Server::text("type") + Server::text(std::string(60, 't'));
    }
    server.send(Server::packet(0x30, Server::text("quorval/g/value/count/out") +
                                         Server::length(properties.size()) + properties));
    server.send(Server::message("quorval/g/value/count/out", "int32", 1, 1, value));
    ASSERT_TRUE(hub->wait_for("1\n"));
    server.drop();

    const ProcessResult result = stop(*hub);
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(count(result.err, "stranger"), 0);
    // One of them for the message with many properties.
    EXPECT_EQ(count(result.err, "\n"), 5) << result.err;
}

TEST_F(LinkTest, BearsGarbage)
{
    const std::vector<std::string> garbage = {
        "HTTP/1.1 502 Bad Gateway\r\n\r\n",
        std::string(10'000, '\0'),
        std::string(10'000, '\xFF'),
        // A packet of 256 MiB that does not come.
        std::string("\x30\xFF\xFF\xFF\x7F") + std::string(1000, 'x'),
        Server::packet(0x20, "\1"),
    };
    Server server;
    write_graph(server.link(), 3, "all");
    const auto hub = start("hub");

    for (std::size_t at = 0; at < garbage.size(); ++at) {
        if (at % 2 == 0) {
            server.accept();
            server.read(Server::kConnect);
        } else {
            server.serve(3);
        }
        server.send(garbage[at]);
    }
    server.serve(3);
    server.send(Server::message("quorval/g/value/count/out", "int32", 1, 1, int32(1)));
    ASSERT_TRUE(hub->wait_for("1\n"));
    server.drop();

    EXPECT_EQ(stop(*hub).status, 0);
}

TEST_F(LinkTest, HoldsLargeValuesBack)
{
    constexpr std::size_t kSize = std::size_t{4} * 1024 * 1024;
    constexpr int kCount = 200;
    constexpr long kMostKilobytes = 600'000;  // with room for what sanitizers hold back
    Server server;
    write_graph(server.link(), 3, "all");
    const auto hub = start("hub");
    server.serve(3);

    for (int number = 1; number <= kCount; ++number) {
        const auto stamp = static_cast<std::uint64_t>(number);
        ASSERT_TRUE(server.send(Server::message("quorval/g/value/count/out", "int32", 1, stamp,
                                                std::string(kSize, 'x'))));
    }
    server.send(Server::message("quorval/g/value/count/out", "int32", 1, kCount + 1, int32(1)));
    ASSERT_TRUE(hub->wait_for("1\n"));

    EXPECT_LT(most_memory(*hub), kMostKilobytes);
    server.drop();
    const ProcessResult result = stop(*hub);
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(lost(result.err), kCount) << result.err;
}

TEST_F(LinkTest, CountsWhatItTookAndDidNotRun)
{
    Server server;
    write("g.toml", "format = 1\nmachines = { edge = {}, hub = {} }\n" + server.link() +
                        "blocks.count = { type = \"numbers:Count\", machine = \"edge\" }\n"
                        "blocks.end = { type = \"numbers:Interrupt\", machine = \"hub\" }\n"
                        "[[connections]]\nfrom = \"count.out\"\nto = \"end.in\"\n"
                        "delivery = \"all\"\n");
    const auto hub = start("hub");
    server.serve(3);

    std::string messages;
    for (const std::uint64_t number : {1, 2, 3}) {
        messages += Server::message("quorval/g/value/count/out", "int32", 1, number, int32(0), 1);
    }
    server.send(messages);

    // The first one ends the run.
    ASSERT_TRUE(hub->wait_for(" values of count.out are lost: "));
    server.drop();
    const ProcessResult result = hub->wait();
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(lost(result.err), 2) << result.err;
}

TEST_F(LinkTest, SendsWhatWaitsWhereItStopsWhileTheBrokerAnswers)
{
    constexpr int kCount = 400;  // more than an output may have waiting
    Server server;
    write("g.toml", "format = 1\nmachines = { edge = {}, hub = {} }\n" + server.link() +
                        "blocks.count = { type = \"numbers:Count\", machine = \"edge\" }\n"
                        "blocks.end = { type = \"numbers:Interrupt\", machine = \"hub\" }\n"
                        "blocks.one = { type = \"numbers:Count\", machine = \"hub\", "
                        "config.count = 1 }\n"
                        "blocks.show = { type = \"numbers:Print\", machine = \"hub\", "
                        "config.flush = true }\n"
                        "blocks.print = { type = \"numbers:Print\", machine = \"edge\" }\n"
                        "[[connections]]\nfrom = \"count.out\"\nto = \"end.in\"\n"
                        "delivery = \"all\"\n"
                        "[[connections]]\nfrom = \"one.out\"\nto = \"show.in\"\n"
                        "[[connections]]\nfrom = \"one.out\"\nto = \"print.in\"\n");
    const auto hub = start("hub");
    server.welcome();
    ASSERT_TRUE(hub->wait_for("1\n"));

    // The first value ends the run; the answers to its subscriptions come behind all values.
    std::string packets;
    for (std::uint64_t number = 1; number <= kCount; ++number) {
        packets += Server::message("quorval/g/value/count/out", "int32", 1, number, int32(0), 1);
    }
    for (int count = 0; count < 3; ++count) {
        packets += Server::answer_to(server.read(Server::kSubscribe));
    }
    server.send(packets);

    EXPECT_NE(server.read(Server::kPublish).find("quorval/g/value/one/out"), std::string::npos);
    EXPECT_NE(server.read(Server::kPublish).find("offline"), std::string::npos);
    server.drop();
    const ProcessResult result = hub->wait();
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(lost(result.err), kCount - 1) << result.err;
}

// --- encrypted ---

class EncryptedLinkTest : public LinkTest {
protected:
    EncryptedLinkTest()
    {
        make_certificate(file("ca"));
        make_certificate(file("stranger"));
        make_signed("broker", "ca");
        make_signed("machine", "ca");
        make_signed("thief", "stranger");
        broker_ = std::make_unique<Broker>(
            directory(), "allow_anonymous true\nrequire_certificate true\ncafile " +
                             file("ca.pem") + "\ncertfile " + file("broker.pem") + "\nkeyfile " +
                             file("broker.key") + "\n");
    }

    /// What a machine needs to connect.
    std::string link(const std::string& authority, const std::string& certificate) const
    {
        return broker_->link("mqtts") + "link.ca = \"" + authority + ".pem\"\n" +
               (certificate.empty() ? ""
                                    : "link.cert = \"" + certificate + ".pem\"\nlink.key = \"" +
                                          certificate + ".key\"\n");
    }

    std::string refusal(const std::string& reason) const
    {
        return "quorval: error: the broker " + broker_->url("mqtts") +
               " refuses the connection: " + reason + "\n";
    }

    /// Gives a key a password.
    void lock(const std::string& name) const
    {
        ProcessOptions options;
        options.command = {"/usr/bin/openssl",  "pkey",    "-in",
                           file(name + ".key"), "-aes256", "-passout",
                           "pass:secret",       "-out",    file("locked.key")};
        const ProcessResult result = run_process(options);
        EXPECT_EQ(result.status, 0) << result.err;
        std::filesystem::rename(file("locked.key"), file(name + ".key"));
    }

private:
    std::string file(const std::string& name) const { return directory() + "/" + name; }

    void make_signed(const std::string& name, const std::string& authority) const
    {
        make_certificate(
            file(name),
            {"-CA", file(authority + ".pem"), "-CAkey", file(authority + ".key"), "-addext",
             "subjectAltName=IP:127.0.0.1", "-addext", "basicConstraints=CA:FALSE"});
    }

protected:
    std::unique_ptr<Broker> broker_;
};

TEST_F(EncryptedLinkTest, CarriesAllValues)
{
    write_graph(link("ca", "machine"), 2000, "all");
    const auto hub = start("hub");
    ASSERT_TRUE(hub->wait_for(kStands));

    expect_result(run_machine("edge"), 0, "", "");
    ASSERT_TRUE(hub->wait_for("\n2000\n"));

    EXPECT_EQ(stop(*hub).out, numbers(1, 2000));
}

TEST_F(EncryptedLinkTest, WaitsForTheBroker)
{
    write_waiting_graph(link("ca", "machine"));
    broker_->stop();
    const auto hub = start("hub");

    EXPECT_TRUE(hub->wait_for(" is away: Connection refused; values wait for it\n"));
    broker_->restart();
    EXPECT_TRUE(hub->wait_for(" is back\n"));

    const ProcessResult result = stop(*hub);
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(count(result.err, " is away: "), 1) << result.err;
}

TEST_F(EncryptedLinkTest, StaysWithinItsLimitsInAFlood)
{
    write_graph(link("ca", "machine"), 20'000, "all", "link.queue = 200000\n");
    const auto before = start("hub");
    ASSERT_TRUE(before->wait_for(kStands));
    stop(*before);
    expect_result(run_machine("edge"), 0, "", "");

    const auto hub =
        std::make_unique<Process>(command({"run", "--stats", "--machine", "hub", "g.toml"}));
    ASSERT_TRUE(hub->wait_for("\n20000\n"));
    const ProcessResult result = stop(*hub);

    EXPECT_EQ(lost(result.err), 0) << result.err;
    EXPECT_EQ(count(result.out, "\n"), 20'000);
    EXPECT_LE(longest_queue(result.err), 100) << result.err;
}

TEST_F(EncryptedLinkTest, StaysWithinItsLimitsWhereRecordsHoldManyMessages)
{
    const int count = 20'000;
    // As a proxy packs them that ends TLS in front of a broker. It says nothing of subscriptions.
    std::string flood = Server::packet(0x20, std::string(3, '\0'));
    for (int number = 1; number <= count; ++number) {
        flood +=
            Server::message("quorval/g/value/count/out", "int32", 1,
                            static_cast<std::uint64_t>(number), int32(number == count ? 2 : 1));
    }
    write("flood", flood);
    const std::string hold = directory() + "/hold";
    ASSERT_EQ(::mkfifo(hold.c_str(), 0600), 0);
    const std::string url = Server().url("mqtts");
    write_graph("link.broker = \"" + url + "\"\nlink.ca = \"ca.pem\"\n", 3, "all");
    ProcessOptions options;
    options.directory = directory();
    options.command = {"/bin/sh", "-c",
                       "cat flood hold | openssl s_server -quiet -naccept 1 -cert broker.pem -key "
                       "broker.key -accept " +
                           url.substr(url.find("127."))};
    Process proxy(options);
    const int held = ::open(hold.c_str(), O_RDWR | O_CLOEXEC);  // the proxy ends with it

    auto hub = std::make_unique<Process>(command({"run", "--stats", "--machine", "hub", "g.toml"}));
    EXPECT_TRUE(hub->wait_for("2\n"));
    ::close(held);
    const ProcessResult result = stop(*hub);

    EXPECT_EQ(LinkTest::count(result.out, "\n"), count);
    EXPECT_LE(longest_queue(result.err), 100) << result.err;
}

TEST_F(EncryptedLinkTest, EndsWhereTheBrokerHasAnotherCertificate)
{
    write_waiting_graph(link("stranger", "machine"));

    expect_result(run_machine("hub"), 1, "", refusal(kTlsFailed));
}

TEST_F(EncryptedLinkTest, EndsWhereTheBrokerDoesNotAcceptItsCertificate)
{
    for (const char* certificate : {"", "thief"}) {
        SCOPED_TRACE(certificate);
        write_waiting_graph(link("ca", certificate));

        expect_result(run_machine("hub"), 1, "", refusal(kTlsFailed));
    }
}

TEST_F(EncryptedLinkTest, EndsWhereItsKeyCannotBeUsed)
{
    write_waiting_graph(link("ca", "machine"));

    // Nobody is asked for a password.
    lock("machine");
    expect_result(run_machine("hub"), 1, "", refusal(kTlsFailed));

    write("machine.key", "no key");
    expect_result(run_machine("hub"), 1, "", refusal(kTlsFailed));
}

}  // namespace quorval_test
