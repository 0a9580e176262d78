// How much a link takes at once, and what it does by itself, by a clock that the test moves.
#include <quorval/runtime/tools.h>
#include "link/link.h"
#include "loop/descriptor_ports.h"
#include "runtime/link/server.h"
#include "runtime/support/fakes.h"
#include "schedule/wave.h"
#include "support/scopes.h"
#include "support/support.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

using namespace Quorval;
using namespace Quorval::runtime;
using namespace std::chrono_literals;
using quorval_test::FakeBlock;
using quorval_test::LogRecorder;
using quorval_test::NoStandardInput;
using quorval_test::Server;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

namespace {

constexpr std::size_t kMostBytes = std::size_t{64} * 1024 * 1024;  // of values, in a direction

Link::Time present;

Link::Time now()
{
    return present;
}

class Nobody final : public IWaveEvents {
public:
    void block_failed(std::uint32_t /*block*/, const std::string& /*text*/) override {}
    void block_is_done(std::uint32_t /*block*/) override {}
};

/// The machine "edge" of the graph "g", with the output "count.out" that "hub" reads, and with
/// values of "far.out" that come in. All of them have to arrive.
class LinkLoadTest : public testing::Test {
protected:
    LinkLoadTest()
    {
        network_.nodes.push_back({"count", &block_});
        network_.exits.push_back({0, "out", &output_, true});
        network_.entries.push_back(
            {"far", "out", std::make_shared<RemoteOutput>("out", Datatype("string")), true});
        description_.host = "127.0.0.1";
        description_.broker = server_.url();
        description_.port =
            std::stoi(description_.broker.substr(description_.broker.rfind(':') + 1));
        make();
    }

    void make()
    {
        present = 100s;
        link_ = std::make_unique<Link>(Link::Setting{description_, "g", "edge", {"edge", "hub"}},
                                       network_, plugins_, poller_, now);
    }

    void wait() { link_->take(poller_.wait(link_->next_time() > present)); }

    void turn_until(const std::function<bool()>& is_over)
    {
        for (link_->prepare(); !is_over(); link_->prepare()) {
            wait();
        }
    }

    void turn_until_values_wait(std::uint64_t count)
    {
        turn_until([&] { return link_->statistics().at(1).longest_queue >= count; });
    }

    /// Has the link work while the broker does its part.
    void turn_until_said(std::size_t messages, const std::function<void()>& broker)
    {
        std::thread thread(broker);
        turn_until([&] { return log_.texts().size() >= messages; });
        thread.join();
    }

    void stand()
    {
        turn_until_said(1, [this] { server_.serve(3); });
        EXPECT_THAT(log_.texts(),
                    ElementsAre("the link over the broker " + description_.broker + " stands"));
        log_.clear();
    }

    /// A value that comes in.
    static std::string value(std::uint64_t number, std::size_t bytes = 1)
    {
        return Server::message("quorval/g/value/far/out", "string", 1, number,
                               std::string(bytes, 'x'));
    }

    void give(const std::string& value)
    {
        output_.write(value);
        static_cast<ITriggerWatcher&>(*link_).has_value(0);
    }

    /// How many values came in that had come before.
    std::uint64_t duplicates() const { return link_->statistics().at(1).duplicates; }

    std::string away(const std::string& why) const
    {
        return "the broker " + description_.broker + " is away: " + why + "; values wait for it";
    }

    LogRecorder log_{LOGLEVEL_INFO};
    Server server_;
    LinkDescription description_;
    FakeBlock block_{"count"};
    OutPort<std::string> output_{"out", Datatype("string")};
    Network network_;
    InitTools tools_;
    PluginSet plugins_{{}, tools_};
    Poller poller_;
    std::unique_ptr<Link> link_;
};

// --- how much ---

TEST_F(LinkLoadTest, ReadsSixtyFourMessagesAtOnce)
{
    stand();
    std::string messages;
    for (int count = 0; count < 150; ++count) {
        messages += value(1);
    }
    server_.send(messages);

    link_->take(poller_.wait(true));
    EXPECT_EQ(duplicates(), 63U);
    link_->take({});
    EXPECT_EQ(duplicates(), 127U);
    link_->take({});
    EXPECT_EQ(duplicates(), 149U);
}

/// Behind each value comes one that came before, which is read where there is room for more.
TEST_F(LinkLoadTest, ReadsAheadUntilTheBytesOfValuesAreTooMany)
{
    description_.limit = kMostBytes;
    make();
    DescriptorPorts ports(network_);
    Nobody nobody;
    Wave wave(network_, ports, nobody);
    const auto send = [this](std::uint64_t number, std::size_t bytes) {
        server_.send(value(number, bytes) + value(1));
    };
    const auto turn_until_read = [this](std::uint64_t count) {
        turn_until([&] { return duplicates() >= count; });
    };
    const auto expect_no_room = [this](std::uint64_t read) {
        for (int count = 0; count < 10; ++count) {
            wait();
            link_->prepare();
        }
        EXPECT_EQ(duplicates(), read);
    };

    stand();
    send(1, 1);
    send(2, 2);
    std::thread broker([&] { send(3, kMostBytes - 4); });
    turn_until_read(3);
    broker.join();
    send(4, 1);
    turn_until_values_wait(4);
    expect_no_room(3);

    link_->feed(wave);  // the first one: there is room for a byte
    turn_until_read(4);
    send(6, 3);  // the one that is missing shows that it was read
    turn_until([this] { return link_->statistics().at(1).gaps == 1; });
    expect_no_room(4);
    link_->feed(wave);  // the second one: there is room for none
    expect_no_room(4);
    link_->feed(wave);
    turn_until_read(5);
}

TEST_F(LinkLoadTest, HasTheGraphTakeAValueAtOnce)
{
    stand();
    EXPECT_EQ(link_->next_time(), 110s);

    server_.send(value(1));
    turn_until_values_wait(1);

    EXPECT_EQ(link_->next_time(), Link::Time(0));
}

// --- what it does by itself ---

TEST_F(LinkLoadTest, LooksAfterItsConnectionAllTheTime)
{
    link_->prepare();
    EXPECT_EQ(link_->next_time(), 110s);

    stand();
    for (int count = 0; count < 6; ++count) {
        present += 10s;
        link_->prepare();
        EXPECT_EQ(link_->next_time(), present + 10s);
    }

    EXPECT_THAT(log_.texts(), IsEmpty());
}

TEST_F(LinkLoadTest, TellsLaterOfAMachineThatItDidNotTellOfAtOnce)
{
    stand();
    std::string messages;
    for (int count = 0; count < 13; ++count) {
        messages += Server::message("quorval/g/machine/hub", "x", 1, 1,
                                    count % 2 == 0 ? "online" : "offline");
    }
    server_.send(messages + value(1));
    turn_until_values_wait(1);
    EXPECT_EQ(log_.texts().size(), 12U);
    log_.clear();

    present += 10s;
    link_->prepare();

    EXPECT_THAT(log_.texts(), ElementsAre("machine 'hub' is online"));
}

// --- the socket ---

TEST_F(LinkLoadTest, WorksWithoutAStandardInput)
{
    constexpr std::size_t kTooMuchToWriteAtOnce = std::size_t{12} * 1024 * 1024;
    const NoStandardInput none;

    stand();
    give(std::string(kTooMuchToWriteAtOnce, 'x'));
    turn_until_said(1, [&] {
        server_.read(Server::kPublish);  // that the machine is online
        EXPECT_GT(server_.read(Server::kPublish).size(), kTooMuchToWriteAtOnce);
        server_.send(Server::message("quorval/g/machine/hub", "x", 1, 1, "online"));
    });

    EXPECT_THAT(log_.texts(), ElementsAre("machine 'hub' is online"));
    link_.reset();  // before standard input is back
}

TEST_F(LinkLoadTest, WaitsForNothingOfABrokerThatDidNotAnswer)
{
    link_->prepare();
    server_.accept();
    present += 30s;
    link_->prepare();
    server_.send(Server::packet(0x20, std::string(3, '\0')));

    EXPECT_THAT(log_.texts(), ElementsAre(away("it does not answer")));
    EXPECT_EQ(poller_.wait(false).size(), 0U);
}

TEST_F(LinkLoadTest, WaitsForNothingAtItsEnd)
{
    link_->prepare();
    server_.accept();
    link_->begin_end();
    link_->prepare();
    server_.send(Server::packet(0x20, std::string(3, '\0')));

    EXPECT_TRUE(link_->is_finished());
    EXPECT_EQ(poller_.wait(false).size(), 0U);
}

TEST_F(LinkLoadTest, SaysThatABrokerDoesNotSpeakTls)
{
    description_.is_encrypted = true;
    make();

    turn_until_said(1, [this] {
        server_.accept();
        server_.send("HTTP/1.1 400 Bad Request\r\n\r\n");
    });

    EXPECT_THAT(log_.texts(), ElementsAre(away("TLS failed")));
}

}  // namespace
