// Members whose classes were compiled without type information, by both compilers.
#include <quorval/pluginloader.h>
#include <quorval/superblock.h>
#include "support/support.h"

#include <gtest/gtest.h>

#include <string>
#include <tuple>
#include <vector>

struct Quorval::InitTools {};

namespace {

using Quorval::Block;
using Quorval::Connection;
using Quorval::InitTools;
using Quorval::PluginLoader;
using Quorval::Superblock;
using quorval_test::ScopedEnvironment;
using Texts = std::vector<std::string>;

/// The parameter is the file of a plug-in.
class SuperblockWithoutTypeInformation : public ::testing::TestWithParam<const char*> {
protected:
    void add(Superblock& graph, const std::string& type, const std::string& name)
    {
        graph.add_block(loader_.create(type, {}, name));
    }

private:
    const ScopedEnvironment directory_{"QUORVAL_PLUGIN_DIR", QUORVAL_TEST_PLUGIN_DIR};
    const InitTools tools_{};
    const PluginLoader loader_{GetParam(), tools_};
};

TEST_P(SuperblockWithoutTypeInformation, ListsTheBlocksOfItsMembers)
{
    Superblock graph("graph");
    add(graph, "Plain", "a");
    add(graph, "Graph", "b");
    add(graph, "Shortened", "c");
    add(graph, "Plain", "d");

    Texts names;
    for (const Block* block : graph.get_blocks()) {
        names.push_back(block->get_name());
    }

    EXPECT_EQ(names, (Texts{"a", "inner", "d"}));
}

TEST_P(SuperblockWithoutTypeInformation, ListsTheConnectionsOfItsMembers)
{
    Superblock graph("graph");
    add(graph, "Plain", "a");
    add(graph, "Graph", "b");
    add(graph, "Shortened", "c");

    const std::vector<Connection> connections = graph.get_connections();

    ASSERT_EQ(connections.size(), 3U);
    for (const Connection& connection : connections) {
        EXPECT_EQ(std::get<0>(connection).get_name(), "inner");
        EXPECT_EQ(std::get<1>(connection), "out");
    }
}

INSTANTIATE_TEST_SUITE_P(Compilers, SuperblockWithoutTypeInformation,
                         ::testing::Values(QUORVAL_NO_RTTI_PLUGINS));

}  // namespace
