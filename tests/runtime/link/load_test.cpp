// How much a link takes at once, and what it does by itself, by a clock that the test moves.
#include <quorval/runtime/tools.h>
#include "link/link.h"
#include "loop/descriptor_ports.h"
#include "runtime/link/link_and_server.h"
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
#include <memory>
#include <string>
#include <thread>

using namespace Quorval;
using namespace Quorval::runtime;
using namespace std::chrono_literals;
using quorval_test::NoStandardInput;
using quorval_test::Server;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

namespace {

constexpr std::size_t kMostBytes = std::size_t{64} * 1024 * 1024;  // of values, in a direction

class Nobody final : public IWaveEvents {
public:
    void block_failed(std::uint32_t /*block*/, const std::string& /*text*/) override {}
    void block_is_done(std::uint32_t /*block*/) override {}
};

/// With values that come in.
class LinkLoadTest : public quorval_test::LinkAndServer {
protected:
    LinkLoadTest()
    {
        add_entry();
        make();
    }

    void turn_until_values_wait(std::uint64_t count)
    {
        turn_until([&] { return link_->statistics().at(1).longest_queue >= count; });
    }

    void stand()
    {
        LinkAndServer::stand(3);
        link_->prepare();
    }

    /// How many values came in that had come before.
    std::uint64_t duplicates() const { return link_->statistics().at(1).duplicates; }
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
    work_until_said(1, [&] {
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

    work_until_said(1, [this] {
        server_.accept();
        server_.send("HTTP/1.1 400 Bad Request\r\n\r\n");
    });

    EXPECT_THAT(log_.texts(), ElementsAre(away("TLS failed")));
}

}  // namespace
