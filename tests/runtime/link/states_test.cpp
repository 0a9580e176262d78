// What a link does from its first attempt to connect to its end.
#include <quorval/runtime/tools.h>
#include "link/link.h"
#include "runtime/link/link_and_server.h"
#include "runtime/link/server.h"
#include "runtime/support/fakes.h"
#include "support/support.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

using namespace Quorval;
using namespace Quorval::runtime;
using namespace std::chrono_literals;
using quorval_test::Server;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

namespace {

class LinkStatesTest : public quorval_test::LinkAndServer {
protected:
    LinkStatesTest() { make(); }

    /// Until the link stands, whatever it says before.
    /// @param questions  that it asks the broker
    void stand_again(int questions = 2)
    {
        work([=] { server_.serve(questions); },
             [this] { return !log_.texts().empty() && log_.texts().back() == standing(); });
    }

    /// Whether it waits for its next attempt to connect, and not to look after a connection.
    bool is_away() const
    {
        return link_->next_time() > present && link_->next_time() < present + 5s;
    }

    /// What it has published on the present connection, from where the server has read. Ends it.
    std::vector<std::string> published()
    {
        link_.reset();
        std::vector<std::string> packets;
        try {
            while (true) {
                packets.push_back(server_.read(Server::kPublish));
            }
        } catch (const std::runtime_error&) {
            return packets;
        }
    }

    /// Of what the link has published.
    static std::string receipt(const std::string& packet, char reason = 0)
    {
        const std::size_t topic = 2 + static_cast<unsigned char>(packet[1]);
        return Server::packet(0x40, packet.substr(topic, 2) + reason + '\0');
    }
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

TEST_F(LinkStatesTest, WaitsLongerAndLongerForABroker)
{
    std::vector<Link::Time> pauses;
    for (int attempt = 0; attempt < 11; ++attempt) {
        link_->prepare();
        present += 30s;
        link_->prepare();
        pauses.push_back(link_->next_time().value() - present);
        present = link_->next_time().value();
    }

    EXPECT_THAT(pauses, ElementsAre(100ms, 200ms, 400ms, 800ms, 1600ms, 3200ms, 6400ms, 12800ms,
                                    25600ms, 30s, 30s));
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
        work_until_said(1, [&, reason = reason] { server_.answer_connect({'\0', reason, '\0'}); });

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
    work([this] { server_.refuse(); }, [this] { return link_->next_time() == present + 200ms; });

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
        for (const char reason : {'\x80', '\x87'}) {
            server_.answer_subscriptions(1, reason);
        }
    });

    const std::string refusal = "the broker refuses to tell of machines: ";
    EXPECT_THAT(log_.texts(),
                ElementsAre(refusal + "Unspecified error", refusal + "Not authorized",
                            "the link over the broker " + description_.broker + " stands"));
}

TEST_F(LinkStatesTest, SaysWhyTheBrokerEndedTheConnection)
{
    stand();
    work_until_said(1, [this] { server_.send(Server::packet(0xE0, std::string("\x80\0", 2))); });

    EXPECT_THAT(log_.texts(), ElementsAre(away("Unspecified error")));
}

TEST_F(LinkStatesTest, DoesNotTellOfMachinesWithoutEnd)
{
    stand();
    work(
        [this] {
            server_.read(Server::kPublish);  // that the machine is online
            for (int count = 0; count < 50; ++count) {
                server_.send(Server::message("quorval/g/machine/hub", "x", 1, 1,
                                             count % 2 == 0 ? "online" : "offline"));
            }
            server_.drop();
        },
        [this] {
            return !log_.texts().empty() && log_.texts().back() == away("The connection was lost");
        });

    // Twelve and the end of the connection.
    EXPECT_EQ(log_.texts().size(), 13U);
}

TEST_F(LinkStatesTest, SaysAtTheBrokerThatItIsThere)
{
    stand();
    work(
        [this] {
            EXPECT_NE(server_.read(Server::kPublish).find("quorval/g/machine/edge"),
                      std::string::npos);
            EXPECT_EQ(server_.first(), 0x33U);
            server_.drop();
        },
        [this] { return !log_.texts().empty(); });
}

TEST_F(LinkStatesTest, SendsTwentyValuesBeforeOneArrived)
{
    description_.queue = 100;
    make();
    stand();
    for (int count = 0; count < 30; ++count) {
        give("value");
    }
    for (int count = 0; count < 3; ++count) {
        link_->prepare();
    }

    EXPECT_EQ(link_->statistics().at(0).values, 20U);
    EXPECT_EQ(link_->statistics().at(0).longest_queue, 30U);
}

TEST_F(LinkStatesTest, SaysOnceThatValuesGoNowhere)
{
    stand();
    give("one");
    give("two");
    work_until_said(1, [this] {
        server_.read(Server::kPublish);  // that the machine is online
        std::string receipts;
        for (int count = 0; count < 2; ++count) {
            receipts += receipt(server_.read(Server::kPublish), '\x10');
        }
        server_.send(receipts);
    });
    link_->begin_end();
    work(
        [this] {
            const std::string packet = server_.read(Server::kPublish);
            EXPECT_NE(packet.find("offline"), std::string::npos);
            server_.send(receipt(packet));
            server_.read(Server::kDisconnect);
            server_.drop();
        },
        [this] { return link_->is_finished(); });
    link_->end();

    EXPECT_THAT(log_.texts(),
                ElementsAre("values of count.out go nowhere: no reader was there yet"));
    EXPECT_EQ(link_->statistics().at(0).values, 2U);
    EXPECT_EQ(link_->statistics().at(0).lost, 0U);
    EXPECT_FALSE(link_->next_time().has_value());
}

/// The machine also has values of "far.out" come in, all of them.
class LinkStatesWithEntryTest : public LinkStatesTest {
protected:
    LinkStatesWithEntryTest()
    {
        add_entry();
        make();
    }
};

TEST_F(LinkStatesWithEntryTest, SaysThatItsSessionIsGone)
{
    stand_again(3);
    work_until_said(2, [this] {
        server_.read(Server::kPublish);
        server_.drop();
    });
    log_.clear();
    present += 100ms;
    stand_again(3);

    const std::string broker = "the broker " + description_.broker;
    EXPECT_THAT(log_.texts(), ElementsAre("the broker has begun a new session", broker + " is back",
                                          "the link over " + broker + " stands"));
}

TEST_F(LinkStatesWithEntryTest, ReadsNoMoreThanAHundredValuesAhead)
{
    stand_again(3);
    log_.clear();
    work(
        [this] {
            std::string messages;
            for (std::uint64_t number = 1; number <= 150; ++number) {
                messages += value(number, 1, 1);
            }
            server_.send(messages);
        },
        [this] { return link_->statistics().at(1).longest_queue >= 100; });
    for (int count = 0; count < 10; ++count) {
        link_->prepare();
        EXPECT_EQ(link_->next_time(), Link::Time(0));
        link_->take({});
    }
    EXPECT_EQ(link_->statistics().at(1).longest_queue, 100U);

    // What it drops at its end makes room.
    link_->begin_end();
    link_->prepare();
    while (link_->statistics().at(1).lost < 150) {
        link_->take(poller_.wait(link_->next_time() > present));
        link_->prepare();
    }
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
    const std::vector<std::pair<char, std::string>> reasons = {{'\x80', "Unspecified error"},
                                                               {'\x97', "Quota exceeded"}};
    for (const auto& [reason, text] : reasons) {
        make();
        stand();
        give("value");
        work_until_said(1, [this, reason = reason] {
            server_.read(Server::kPublish);  // that the machine is online
            server_.send(receipt(server_.read(Server::kPublish), reason));
        });

        EXPECT_THAT(
            log_.texts(),
            ElementsAre("1 values of count.out are lost: the broker refuses them: " + text));
        EXPECT_EQ(link_->statistics().at(0).values, 0U);
        EXPECT_EQ(link_->statistics().at(0).lost, 1U);
    }
}

TEST_F(LinkStatesTest, SendsSixtyFourMebibytesBeforeOneArrived)
{
    stand();
    for (int count = 0; count < 5; ++count) {
        give(std::string(description_.limit - 9, 'x'));  // with what stands around it
    }
    work_until_said(1, [this] {
        server_.read(Server::kPublish);  // that the machine is online
        std::string first = server_.read(Server::kPublish);
        for (int count = 1; count < 4; ++count) {
            server_.read(Server::kPublish);
        }
        server_.send(receipt(first, '\x97'));
    });
    EXPECT_EQ(link_->statistics().at(0).values, 3U);

    link_->prepare();
    EXPECT_EQ(link_->statistics().at(0).values, 4U);
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

TEST_F(LinkStatesWithEntryTest, AsksForItsOwnTopicFirst)
{
    std::vector<std::string> questions;
    work_until_said(1, [&] {
        server_.welcome();
        for (int count = 0; count < 3; ++count) {
            const std::string packet = server_.read(Server::kSubscribe);
            questions.push_back(packet.substr(3));
            server_.send(Server::answer_to(packet));
        }
    });

    // All values, and of machines what the broker keeps too.
    EXPECT_THAT(questions, ElementsAre(Server::text("quorval/g/machine/edge") + '\0',
                                       Server::text("quorval/g/machine/+") + '\0',
                                       Server::text("quorval/g/value/far/out") + '\x21'));
}

TEST_F(LinkStatesTest, AsksAgainForWhatWasNotAnswered)
{
    work(
        [this] {
            server_.welcome();
            server_.read(Server::kSubscribe);
            server_.read(Server::kSubscribe);
            server_.drop();
        },
        [this] { return is_away(); });
    present += 100ms;
    work(
        [this] {
            server_.serve(2);
            server_.drop();
        },
        [this] { return is_away(); });

    const std::string broker = "the broker " + description_.broker;
    EXPECT_THAT(log_.texts(), ElementsAre(away("The connection was lost"), broker + " is back",
                                          "the link over " + broker + " stands",
                                          away("The connection was lost")));
}

TEST_F(LinkStatesTest, WaitsForABrokerThatTakesNoQuestion)
{
    const std::string takes_ten_bytes("\0\0\5\x27\0\0\0\12", 8);
    work_until_said(1, [&] {
        server_.accept();
        server_.read(Server::kConnect);
        server_.send(Server::packet(0x20, takes_ten_bytes) +
                     Server::message("quorval/g/machine/hub", "x", 1, 1, "online"));
    });

    EXPECT_THAT(
        log_.texts(),
        ElementsAre(
            "machine 'hub' is online",
            away("it cannot be asked for machines: Packet larger than supported by the server")));
    EXPECT_EQ(link_->next_time(), present + 100ms);
}

TEST_F(LinkStatesTest, WaitsLongerWhereItDoesNotStandAsLongAsItWaited)
{
    std::vector<Link::Time> pauses;
    for (const Link::Time stood :
         {Link::Time(0), Link::Time(200ms) - 1ns, Link::Time(400ms), Link::Time(0)}) {
        stand_again();
        present += stood;
        work(
            [this] {
                server_.read(Server::kPublish);  // that the machine is online
                server_.drop();
            },
            [this] { return is_away(); });
        pauses.push_back(link_->next_time().value() - present);
        present = link_->next_time().value();
    }

    EXPECT_THAT(pauses, ElementsAre(100ms, 200ms, 100ms, 200ms));
}

TEST_F(LinkStatesTest, ReadsNothingOfAConnectionThatItHasLeft)
{
    link_->prepare();
    work(
        [this] {
            server_.welcome();
            std::string answers;
            for (int count = 0; count < 1000; ++count) {
                answers += Server::packet(0xD0, "");
            }
            server_.send(answers);
        },
        [this] { return link_->next_time() == Link::Time(0); });

    present += 30s;
    link_->prepare();

    EXPECT_THAT(log_.texts(), ElementsAre(away("it does not answer")));
    EXPECT_EQ(link_->next_time(), present + 100ms);
    EXPECT_THAT(poller_.wait(false), IsEmpty());
}

TEST_F(LinkStatesTest, SendsTheLatestValueAgain)
{
    network_.exits[0].keeps_all = false;
    make();
    stand();
    give("value");
    work(
        [this] {
            server_.read(Server::kPublish);  // that the machine is online
            server_.read(Server::kPublish);
            server_.drop();
        },
        [this] { return is_away(); });
    present += 100ms;
    stand_again();
    link_->prepare();

    const std::vector<std::string> packets = published();
    ASSERT_FALSE(packets.empty());
    EXPECT_NE(packets.back().find("quorval/g/value/count/out"), std::string::npos);
    EXPECT_EQ(server_.first(), 0x31U);
}

TEST_F(LinkStatesTest, LeavesTheBrokerInOrderWhereALaterRunIsThere)
{
    stand();
    work(
        [this] {
            server_.send(Server::message("quorval/g/machine/edge", "x", UINT64_MAX, 1, "online"));
        },
        [this] { return !link_->failure().empty(); });

    EXPECT_EQ(link_->failure(), "another 'quorval-g-edge' has taken the place at the broker");
    EXPECT_TRUE(link_->is_finished());
    EXPECT_EQ(link_->next_time(), Link::Time(0));
    link_.reset();
    EXPECT_EQ(server_.read(Server::kDisconnect), "");  // without a reason
}

TEST_F(LinkStatesTest, WaitsForABrokerThatRefusesItWhereItsPlaceIsTaken)
{
    stand();
    work_until_said(1, [this] { server_.send(Server::packet(0xE0, std::string("\x8E\0", 2))); });
    log_.clear();
    present += 100ms;

    work_until_said(1, [this] { server_.refuse(); });

    EXPECT_THAT(log_.texts(), ElementsAre(away("Not authorized")));
    EXPECT_EQ(link_->failure(), "");
}

/// The start in a packet.
std::string start_in(const std::string& packet)
{
    const std::size_t at = packet.find(Server::text("start")) + Server::text("start").size();
    return packet.substr(at + 2, static_cast<unsigned char>(packet[at + 1]));
}

TEST_F(LinkStatesTest, IsLaterThanAnyOtherRunThatCanBeFollowed)
{
    for (const std::uint64_t other : {UINT64_MAX - 1, UINT64_MAX}) {
        make();
        std::string before;
        work_until_said(1, [&, other = other] {
            server_.accept();
            before = start_in(server_.read(Server::kConnect));
            server_.send(Server::packet(0x20, std::string(3, '\0')) +
                         Server::message("quorval/g/machine/edge", "x", other, 1, "online"));
            server_.answer_subscriptions(2);
        });

        const std::vector<std::string> packets = published();
        ASSERT_FALSE(packets.empty()) << other;
        EXPECT_EQ(start_in(packets[0]), other == UINT64_MAX ? before : "18446744073709551615");
    }
}

TEST_F(LinkStatesTest, LeavesABrokerThatDoesNotTakeItsGoodbye)
{
    const std::string takes_forty_bytes("\0\0\5\x27\0\0\0\x28", 8);  // which questions have
    work_until_said(1, [&] {
        server_.answer_connect(takes_forty_bytes);
        server_.answer_subscriptions(2);
    });

    link_->begin_end();
    link_->prepare();

    EXPECT_TRUE(link_->is_finished());
    link_.reset();
    EXPECT_EQ(server_.read(Server::kDisconnect), "");  // without a reason
}

TEST_F(LinkStatesWithEntryTest, CountsWhatItTookAndNobodyTookAtTheEnd)
{
    stand_again(3);
    log_.clear();
    work([this] { server_.send(value(1)); },
         [this] { return link_->statistics().at(1).longest_queue == 1; });

    link_->begin_end();
    link_->end();

    EXPECT_THAT(log_.texts(), ElementsAre("1 values of far.out are lost: the graph stopped before "
                                          "it took them"));
}

/// Values that wait count once, however many come behind them.
TEST_F(LinkStatesWithEntryTest, ReadsValuesAheadAsFarAsTheirBytesGo)
{
    constexpr std::size_t kSize = std::size_t{16} * 1024;
    stand_again(3);
    work(
        [this] {
            std::string messages;
            for (std::uint64_t number = 1; number <= 99; ++number) {
                messages += value(number, kSize);
            }
            server_.send(messages);
        },
        [this] { return link_->statistics().at(1).longest_queue == 99; });

    EXPECT_EQ(link_->statistics().at(1).lost, 0U);
}

TEST_F(LinkStatesWithEntryTest, ReadsNoMoreThanSixtyFourMebibytesAhead)
{
    stand_again(3);
    work(
        [this] {
            for (std::uint64_t number = 1; number <= 4; ++number) {
                server_.send(value(number, description_.limit));
            }
            server_.send(value(5));
        },
        [this] { return link_->statistics().at(1).longest_queue >= 4; });
    for (int count = 0; count < 10; ++count) {
        link_->prepare();
        link_->take({});
    }

    EXPECT_EQ(link_->statistics().at(1).longest_queue, 4U);
}

}  // namespace
