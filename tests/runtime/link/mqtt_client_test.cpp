#include "link/mqtt_client.h"

#include "runtime/link/server.h"

#include <gtest/gtest.h>

#include <poll.h>

#include <new>
#include <string>
#include <vector>

using Quorval::runtime::LinkDescription;
using Quorval::runtime::MqttClient;
using Quorval::runtime::Stamp;
using quorval_test::Server;

namespace {

LinkDescription link_to(const Server& server)
{
    LinkDescription link;
    const std::string url = server.url();
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

TEST(MqttClient, ThrowsWhatItsReceiverThrewWhenTheLibraryHasReturned)
{
    Server server;
    std::vector<std::string> topics;
    MqttClient client(link_to(server), {"quorval-g-hub", "will", "offline", 1, false},
                      [&](const char* topic, const Stamp& /*stamp*/, std::string_view /*bytes*/) {
                          topics.emplace_back(topic);
                          if (topics.size() == 1) {
                              throw std::bad_alloc();
                          }
                      });
    client.connect();
    while (client.wants_write()) {
        client.write();
    }
    server.welcome();
    read_one(client);
    ASSERT_TRUE(client.take_news().answer);

    server.send(Server::message("a", "int32", 1, 1, "") + Server::message("b", "int32", 1, 2, ""));
    EXPECT_THROW(read_one(client), std::bad_alloc);
    client.read();

    EXPECT_EQ(topics, (std::vector<std::string>{"a", "b"}));
}

}  // namespace
