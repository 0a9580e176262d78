#include "link/mqtt_client.h"

#include "runtime/link/broker.h"
#include "runtime/link/server.h"
#include "support/support.h"

#include <gtest/gtest.h>

#include <poll.h>

#include <cstddef>
#include <cstdint>
#include <new>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

using Quorval::runtime::LinkDescription;
using Quorval::runtime::MqttClient;
using Quorval::runtime::Stamp;
using quorval_test::Broker;
using quorval_test::expect_throw;
using quorval_test::Server;
using quorval_test::TemporaryDirectory;

namespace {

LinkDescription link_to(const std::string& url)
{
    LinkDescription link;
    link.host = "127.0.0.1";
    link.port = std::stoi(url.substr(url.rfind(':') + 1));
    return link;
}

/// Waits for the next packet and reads it.
void read_one(MqttClient& client)
{
    constexpr int kPatienceMilliseconds = 60'000;
    pollfd one = {client.fd(), POLLIN, 0};
    ASSERT_EQ(::poll(&one, 1, kPatienceMilliseconds), 1);
    client.read();
}

void write_all(MqttClient& client)
{
    while (client.wants_write()) {
        client.write();
    }
}

TEST(MqttClient, ThrowsWhatItsReceiverThrewWhenTheLibraryHasReturned)
{
    Server server;
    std::vector<std::string> topics;
    MqttClient client(link_to(server.url()), {"quorval-g-hub", "will", "offline", 1, false},
                      [&](const char* topic, const Stamp& /*stamp*/, std::string_view /*bytes*/) {
                          topics.emplace_back(topic);
                          if (topics.size() == 1) {
                              throw std::bad_alloc();
                          }
                      });
    client.connect();
    write_all(client);
    server.welcome();
    read_one(client);
    ASSERT_TRUE(client.take_news().answer);

    server.send(Server::message("a", "int32", 1, 1, "") + Server::message("b", "int32", 1, 2, ""));
    EXPECT_THROW(read_one(client), std::bad_alloc);
    client.read();

    EXPECT_EQ(topics, (std::vector<std::string>{"a", "b"}));
}

TEST(MqttClient, RefusesWhatNoBrokerCanBeTold)
{
    const auto make = [](const LinkDescription& link) {
        const MqttClient client(link, {"quorval-g-hub", "will", "offline", 1, false},
                                [](const char*, const Stamp&, std::string_view) {});
    };
    LinkDescription user;
    user.user = "a\x01";
    expect_throw<std::runtime_error>([&] { make(user); },
                                     "the user cannot be used: Malformed UTF-8");
    LinkDescription half;
    half.is_encrypted = true;
    half.cert = "/dev/null";
    expect_throw<std::runtime_error>([&] { make(half); },
                                     "cannot read '/dev/null': not a regular file");
    half.cert = "/proc/self/maps";
    expect_throw<std::runtime_error>(
        [&] { make(half); },
        "the certificates cannot be used: Invalid function arguments provided");
}

/// A message whose stamp is made of any texts.
std::string message(const std::string& start, const std::string& number)
{
    const std::string properties = "\x26" + Server::text("type") + Server::text("int32") + "\x26" +
                                   Server::text("start") + Server::text(start) + "\x26" +
                                   Server::text("number") + Server::text(number);
    return Server::packet(0x30, Server::text("a") + Server::length(properties.size()) + properties);
}

TEST(MqttClient, TakesStampsThatAreWhole)
{
    struct Case {
        std::string start;
        std::string number;
        std::uint64_t expected;
    };
    const std::vector<Case> cases = {
        {"1", "2", 2},   {"18446744073709551615", "3", 3},
        {"0", "2", 0},   {"x", "2", 0},
        {"12x", "2", 0}, {"18446744073709551616", "2", 0},
        {"", "2", 0},    {"1", "-2", 0},
        {"1", "2 ", 0},  {"1", "", 0},
    };
    Server server;
    std::vector<std::uint64_t> numbers;
    MqttClient client(link_to(server.url()), {"quorval-g-hub", "will", "offline", 1, false},
                      [&](const char* /*topic*/, const Stamp& stamp, std::string_view /*bytes*/) {
                          numbers.push_back(stamp.number);
                      });
    client.connect();
    write_all(client);
    server.welcome();
    read_one(client);

    for (const Case& one : cases) {
        numbers.clear();
        server.send(message(one.start, one.number));
        read_one(client);

        EXPECT_EQ(numbers, std::vector<std::uint64_t>{one.expected})
            << one.start << ", " << one.number;
    }
}

TEST(MqttClient, RefusesWhatIsLargerThanTheBrokerTakes)
{
    const TemporaryDirectory directory;
    const Broker broker(directory.path(), "allow_anonymous true\nmax_packet_size 300\n");
    MqttClient client(link_to(broker.url()), {"quorval-g-edge", "will", "offline", 1, false},
                      [](const char* /*topic*/, const Stamp& /*stamp*/, std::string_view) {});
    client.connect();
    while (!client.take_news().answer) {
        write_all(client);
        read_one(client);
    }

    // As many bytes as there is room for beside the topic, two lengths, the stamp and the rest.
    for (const auto& [keeps_all, most] : {std::pair(true, 280), std::pair(false, 282)}) {
        std::string why;
        for (int size = 200; size <= 300; ++size) {
            const auto message =
                client.publish("t", std::string(static_cast<std::size_t>(size), 'x'), {"", 1, 0},
                               keeps_all, false, why);
            EXPECT_EQ(message.has_value(), size <= most) << size << ": " << why;
        }
        EXPECT_EQ(why, "a packet of " + std::to_string(300 + 300 - most) +
                           " bytes is more than the 300 that the broker takes");
    }

    std::size_t published = 0;
    for (const std::size_t all = 81 + 83; published < all;) {
        write_all(client);
        const MqttClient::News news = client.take_news();
        ASSERT_FALSE(news.end);
        published += news.published.size();
        if (published < all && news.published.empty()) {
            read_one(client);
        }
    }
}

}  // namespace
