#include "description/broker.h"

#include <gtest/gtest.h>

using Quorval::runtime::LinkDescription;
using Quorval::runtime::parse_broker;

TEST(Broker, IsAHostAndAPort)
{
    const auto parse = [](const std::string& text) {
        LinkDescription link;
        return parse_broker(text, link) ? link.host + " " + std::to_string(link.port) +
                                              (link.is_encrypted ? " encrypted" : "")
                                        : "refused";
    };

    EXPECT_EQ(parse("mqtt://localhost"), "localhost 1883");
    EXPECT_EQ(parse("mqtts://broker.example"), "broker.example 8883 encrypted");
    EXPECT_EQ(parse("mqtt://10.0.0.1:1"), "10.0.0.1 1");
    EXPECT_EQ(parse("mqtt://[fe80::1%eth0]:65535"), "fe80::1%eth0 65535");
    EXPECT_EQ(parse("mqtt://[::1]"), "::1 1883");
    EXPECT_EQ(parse("mqtt://Broker-1.my_net.Z9:0080"), "Broker-1.my_net.Z9 80");
    EXPECT_EQ(parse("mqtt://aAzZ09"), "aAzZ09 1883");
    for (const char* text : {"",
                             "localhost",
                             "mqtt:/localhost",
                             "mqtt://",
                             "mqtt://a:",
                             "mqtt://a:0",
                             "mqtt://a:65536",
                             "mqtt://a:1x",
                             "mqtt://a/b",
                             "mqtt://[::1",
                             "mqtt://u@a",
                             "mqtt://[::1]x",
                             "mqtt://a b",
                             "MQTT://a",
                             "mqtt://a:99999999999999999999",
                             "mqtt://a:-1",
                             "mqtt://a:+1",
                             "mqtt://a~b",
                             "mqtt://a{",
                             "mqtt://[a/b]",
                             "mqtt://[]"}) {
        EXPECT_EQ(parse(text), "refused") << text;
    }
}

TEST(Broker, IsKeptAsItWasWritten)
{
    LinkDescription link;
    EXPECT_TRUE(parse_broker("mqtt://a", link));
    EXPECT_FALSE(parse_broker("mqtts://b:0", link));

    EXPECT_EQ(link.broker, "mqtt://a");
    EXPECT_EQ(link.host, "a");
    EXPECT_EQ(link.port, 1883);
    EXPECT_FALSE(link.is_encrypted);
}
