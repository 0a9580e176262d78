#include "link/topics.h"

#include <gtest/gtest.h>

using Quorval::runtime::client_name;
using Quorval::runtime::machine_topic;
using Quorval::runtime::value_topic;

TEST(Topics, NameValuesMachinesAndClients)
{
    EXPECT_EQ(value_topic("g", "left/gain", "out"), "quorval/g/value/left/gain/out");
    EXPECT_EQ(machine_topic("g", "edge"), "quorval/g/machine/edge");
    EXPECT_EQ(client_name("g", "edge"), "quorval-g-edge");
}

TEST(Topics, HideWhatHasAMeaningInThem)
{
    EXPECT_EQ(value_topic("g", "a", "+#/%\x01\xC3"), "quorval/g/value/a/%2B%23%2F%25%01%C3");
    EXPECT_EQ(value_topic("g", "a", " !~\x7F"), "quorval/g/value/a/%20!~%7F");
}
