#include "control/handles.h"

#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

using Quorval::runtime::bus_name_of;

namespace {

TEST(Handles, NameAGraphOnTheBusByItsName)
{
    const std::vector<std::pair<std::string, std::string>> cases = {
        {"loud", "loud"}, {"Loud", "Loud"}, {"a-b_c-", "a_b_c_"}, {"-a", "_a"},
        {"_a", "_a"},     {"0", "_0"},      {"0x", "_0x"},        {"9-1", "_9_1"},
        {"a1", "a1"},     {"", ""},         {"/1", "/1"},
    };
    for (const auto& [graph, name] : cases) {
        EXPECT_EQ(bus_name_of(graph), "org.quorval.graph." + name) << graph;
    }
}

}  // namespace
