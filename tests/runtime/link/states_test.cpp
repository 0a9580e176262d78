// A link and a broker that does what the test wants, by a clock that the test moves.
#include <quorval/runtime/tools.h>
#include "link/link.h"
#include "runtime/link/server.h"
#include "runtime/support/fakes.h"
#include "support/support.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

using namespace Quorval;
using namespace Quorval::runtime;
using namespace std::chrono_literals;
using quorval_test::FakeBlock;
using quorval_test::LogRecorder;
using quorval_test::Server;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

namespace {

Link::Time present;

Link::Time now()
{
    return present;
}

/// The machine "edge" of the graph "g", with the output "count.out" that "hub" reads.
class LinkStatesTest : public testing::Test {
protected:
    LinkStatesTest()
    {
        network_.nodes.push_back({"count", &block_});
        network_.exits.push_back({0, "out", &output_, true});
        make();
    }

    void make(const std::string& host = "127.0.0.1")
    {
        present = 100s;
        description_.host = host;
        description_.broker = server_.url();
        description_.port =
            std::stoi(description_.broker.substr(description_.broker.rfind(':') + 1));
        link_ = std::make_unique<Link>(Link::Setting{description_, "g", "edge", {"edge", "hub"}},
                                       network_, plugins_, poller_, now);
        log_.clear();
    }

    /// Has the link work while the broker does its part, until something has come of it.
    void work(const std::function<void()>& broker, const std::function<bool()>& is_over)
    {
        std::thread thread(broker);
        while (!is_over()) {
            link_->prepare();
            link_->take(poller_.wait(link_->next_time() > present));
        }
        thread.join();
    }

    void work_until_said(std::size_t messages, const std::function<void()>& broker)
    {
        work(broker, [&] { return log_.texts().size() >= messages; });
    }

    /// Until the link stands.
    void stand()
    {
        work_until_said(1, [this] { server_.serve(2); });
        EXPECT_THAT(log_.texts(),
                    ElementsAre("the link over the broker " + description_.broker + " stands"));
        log_.clear();
    }

    void give(const std::string& value)
    {
        output_.write(value);
        static_cast<ITriggerWatcher&>(*link_).has_value(0);
    }

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

TEST_F(LinkStatesTest, GivesABrokerHalfAMinuteToAnswer)
{
    link_->prepare();
    present += 29s;
    link_->prepare();
    EXPECT_THAT(log_.texts(), IsEmpty());

    present += 1s;
    link_->prepare();
    EXPECT_THAT(log_.texts(), ElementsAre(away("it does not answer")));
    EXPECT_EQ(link_->next_time(), present + 100ms);
}

TEST_F(LinkStatesTest, SaysOnceThatTheBrokerIsAway)
{
    for (int attempt = 0; attempt < 3; ++attempt) {
        link_->prepare();
        present += 30s;
        link_->prepare();
        present = link_->next_time().value();
    }

    EXPECT_THAT(log_.texts(), ElementsAre(away("it does not answer")));
}

TEST_F(LinkStatesTest, WaitsForABrokerThatCannotServeItNow)
{
    const std::vector<std::pair<char, std::string>> reasons = {
        {'\x88', "Server unavailable"},
        {'\x89', "Server busy"},
        {'\x97', "Quota exceeded"},
        {'\x9F', "Connection rate exceeded"},
    };
    for (const auto& [reason, text] : reasons) {
        make();
        work_until_said(1, [&, reason = reason] {
            server_.accept();
            server_.read(Server::kConnect);
            server_.send(Server::packet(0x20, {'\0', reason, '\0'}));
        });

        EXPECT_THAT(log_.texts(), ElementsAre(away(text)));
        EXPECT_EQ(link_->failure(), "");
        EXPECT_EQ(link_->next_time(), present + 100ms);
    }
}

TEST_F(LinkStatesTest, WaitsForABrokerThatRefusesItAfterAll)
{
    stand();
    work_until_said(1, [this] {
        server_.read(Server::kPublish);  // that the machine is online
        server_.drop();
    });
    EXPECT_THAT(log_.texts(), ElementsAre(away("The connection was lost")));

    present += 100ms;
    work(
        [this] {
            server_.accept();
            server_.read(Server::kConnect);
            server_.send(Server::packet(0x20, {'\0', '\x87', '\0'}));
        },
        [this] { return link_->next_time() == present + 200ms; });

    EXPECT_EQ(link_->failure(), "");
    EXPECT_EQ(log_.texts().size(), 1U);
}

TEST_F(LinkStatesTest, SaysThatItsPlaceIsTaken)
{
    stand();
    work_until_said(1, [this] { server_.send(Server::packet(0xE0, std::string("\x8E\0", 2))); });

    EXPECT_THAT(log_.texts(),
                ElementsAre("another 'quorval-g-edge' has taken the place at the broker"));
    EXPECT_EQ(link_->failure(), "");
    EXPECT_EQ(link_->next_time(), present + 100ms);
}

TEST_F(LinkStatesTest, StandsWhereTheBrokerTellsOfNothing)
{
    work_until_said(3, [this] {
        server_.welcome();
        for (int count = 0; count < 2; ++count) {
            server_.send(Server::packet(
                0x90, server_.read(Server::kSubscribe).substr(0, 2) + std::string("\0\x87", 2)));
        }
    });

    const std::string refusal = "the broker refuses to tell of machines: Not authorized";
    EXPECT_THAT(log_.texts(),
                ElementsAre(refusal, refusal,
                            "the link over the broker " + description_.broker + " stands"));
}

TEST_F(LinkStatesTest, LooksAfterAConnectionEveryTenSeconds)
{
    stand();
    link_->prepare();
    const Link::Time next = link_->next_time().value();
    EXPECT_EQ(next, 110s);

    present = next;
    link_->prepare();

    EXPECT_EQ(link_->next_time(), 120s);
}

TEST_F(LinkStatesTest, CountsAValueThatTheBrokerRefusesAsLost)
{
    stand();
    give("value");
    work_until_said(1, [this] {
        server_.read(Server::kPublish);  // that the machine is online
        const std::string packet = server_.read(Server::kPublish);
        const std::size_t topic = 2 + static_cast<unsigned char>(packet[1]);
        server_.send(Server::packet(0x40, packet.substr(topic, 2) + std::string("\x97\0", 2)));
    });

    EXPECT_THAT(log_.texts(), ElementsAre("1 values of count.out are lost: the broker refuses "
                                          "them: Quota exceeded"));
    EXPECT_EQ(link_->statistics().at(0).values, 0U);
    EXPECT_EQ(link_->statistics().at(0).lost, 1U);
}

TEST_F(LinkStatesTest, SaysHowManyValuesMayNotHaveArrived)
{
    stand();
    give("one");
    give("two");
    link_->prepare();
    link_->begin_end();
    link_->end();

    EXPECT_THAT(log_.texts(), ElementsAre("2 values may not have reached the broker"));
}

/// The name service could hold up the end.
TEST_F(LinkStatesTest, LooksForABrokerAtTheEndWhereNobodyHasToBeAskedForIt)
{
    const std::vector<std::pair<std::string, bool>> hosts = {
        {"127.0.0.1", true}, {"::1", true}, {"localhost", true}, {"broker.invalid", false}};
    for (const auto& [host, is_looked_for] : hosts) {
        make(host);
        give("value");

        link_->begin_end();
        link_->prepare();

        EXPECT_EQ(link_->is_finished(), !is_looked_for) << host;
        EXPECT_EQ(link_->next_time().has_value(), is_looked_for) << host;
    }
}

TEST_F(LinkStatesTest, EndsAtOnceWhereNothingIsToBeSent)
{
    link_->begin_end();

    EXPECT_TRUE(link_->is_finished());
    EXPECT_FALSE(link_->next_time().has_value());
    link_->end();
    EXPECT_THAT(log_.texts(), IsEmpty());
}

}  // namespace
