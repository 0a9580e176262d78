#include "schedule/order.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <random>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

using namespace Quorval;
using namespace Quorval::runtime;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

namespace {

constexpr bool kDelayed = true;

struct Link {
    std::uint32_t from;
    std::uint32_t to;
    bool is_delayed = false;
};

Network make_network(const std::vector<std::string>& paths, const std::vector<Link>& links)
{
    Network network;
    for (const std::string& path : paths) {
        network.nodes.push_back({path});
    }
    for (const Link& link : links) {
        network.wires.push_back({link.from, link.to, nullptr, nullptr, link.is_delayed});
    }
    return network;
}

std::vector<std::string> paths_in_order(const Network& network)
{
    std::vector<std::string> paths;
    for (const std::uint32_t node : find_order(network).nodes) {
        paths.push_back(network.nodes[node].path);
    }
    return paths;
}

/// The number of the connection and the text of each cycle.
std::vector<std::string> cycles_in(const Network& network)
{
    std::vector<std::string> texts;
    for (const Cycle& cycle : find_order(network).cycles) {
        texts.push_back(std::to_string(cycle.wire) + ": " + to_string(cycle, network));
    }
    return texts;
}

/// A ring of so many blocks, in which each block also leads to the one before it.
Network make_tangle(std::uint32_t blocks)
{
    Network network;
    for (std::uint32_t block = 0; block < blocks; ++block) {
        network.nodes.push_back({std::to_string(block)});
        network.wires.push_back({block, (block + 1) % blocks, nullptr, nullptr, false});
    }
    for (std::uint32_t block = 1; block < blocks; ++block) {
        network.wires.push_back({block, block - 1, nullptr, nullptr, false});
    }
    return network;
}

TEST(Order, PutsASourceBeforeItsReaders)
{
    const Network network = make_network({"a", "b", "c"}, {{2, 1}, {1, 0}});

    EXPECT_THAT(paths_in_order(network), ElementsAre("c", "b", "a"));
}

TEST(Order, TakesFreeBlocksByPathInTheOrderOfBytes)
{
    const Network network = make_network({"b", "a/z", "\xc3\xa4", "a-z", "B", "a"}, {});

    EXPECT_THAT(paths_in_order(network), ElementsAre("B", "a", "a-z", "a/z", "b", "\xc3\xa4"));
}

TEST(Order, TakesABlockAsSoonAsItIsFreeAndFirstByPath)
{
    const Network network = make_network({"a", "b", "c", "d"}, {{2, 0}});

    EXPECT_THAT(paths_in_order(network), ElementsAre("b", "c", "a", "d"));
}

TEST(Order, PutsTheReaderOfADelayedConnectionBeforeItsSource)
{
    const Network network = make_network({"a", "b"}, {{0, 1, kDelayed}});

    EXPECT_THAT(paths_in_order(network), ElementsAre("b", "a"));
}

TEST(Order, AllowsALoopThatADelayedConnectionCloses)
{
    const Network network = make_network({"b", "a"}, {{0, 1}, {1, 0, kDelayed}});

    EXPECT_THAT(paths_in_order(network), ElementsAre("b", "a"));
    EXPECT_THAT(cycles_in(network), IsEmpty());
}

TEST(Order, AllowsABlockThatFeedsItselfWithADelay)
{
    const Network network = make_network({"a"}, {{0, 0, kDelayed}});

    EXPECT_THAT(paths_in_order(network), ElementsAre("a"));
    EXPECT_THAT(cycles_in(network), IsEmpty());
}

TEST(Order, CountsSeveralConnectionsBetweenTwoBlocksLikeOne)
{
    const Network network = make_network({"a", "b"}, {{1, 0}, {1, 0}, {1, 0}});

    EXPECT_THAT(paths_in_order(network), ElementsAre("b", "a"));
}

TEST(Order, IsEmptyForAnEmptyNetwork)
{
    EXPECT_THAT(paths_in_order(Network()), IsEmpty());
}

TEST(OrderCycles, BeginWithTheSourceOfTheLastConnection)
{
    const Network network = make_network({"a", "b", "c"}, {{1, 2}, {2, 0}, {0, 1}});

    EXPECT_THAT(cycles_in(network), ElementsAre("2: a -> b -> c -> a"));
}

TEST(OrderCycles, BeginWithTheReaderOfADelayedConnection)
{
    const Network network = make_network({"a", "b"}, {{0, 1}, {0, 1, kDelayed}});

    EXPECT_THAT(cycles_in(network), ElementsAre("1: b -> a -> b"));
}

TEST(OrderCycles, ShowABlockThatFeedsItself)
{
    const Network network = make_network({"a", "b"}, {{0, 1}, {1, 1}});

    EXPECT_THAT(cycles_in(network), ElementsAre("1: b -> b"));
}

TEST(OrderCycles, LeaveOutWhatMerelyWaitsForThem)
{
    const Network network = make_network({"a", "b", "c", "d"}, {{0, 1}, {1, 2}, {2, 1}, {2, 3}});

    EXPECT_THAT(paths_in_order(network), ElementsAre("a"));
    EXPECT_THAT(cycles_in(network), ElementsAre("2: c -> b -> c"));
}

TEST(OrderCycles, AreAllFoundInOneGo)
{
    const Network network =
        make_network({"a", "b", "c", "d"}, {{1, 0}, {2, 3}, {0, 1}, {3, 2}, {0, 2}, {0, 0}});

    EXPECT_THAT(cycles_in(network), ElementsAre("2: a -> b -> a", "3: d -> c -> d", "5: a -> a"));
}

TEST(OrderCycles, AreAllFoundWhenTheyShareBlocks)
{
    const Network network = make_network({"a", "b", "c"}, {{0, 1}, {1, 0}, {1, 2}, {2, 0}});

    EXPECT_THAT(cycles_in(network), ElementsAre("1: b -> a -> b", "3: c -> a -> b -> c"));
}

TEST(OrderCycles, TakeTheShortestWayBack)
{
    const Network network =
        make_network({"a", "b", "c", "d"}, {{0, 1}, {1, 2}, {2, 3}, {0, 3}, {3, 0}});

    EXPECT_THAT(cycles_in(network), ElementsAre("4: d -> a -> d"));
}

TEST(OrderCycles, StayInProportionToALargeTangle)
{
    const Network network = make_tangle(3000);

    const std::vector<Cycle> cycles = find_order(network).cycles;

    std::size_t shown = 0;
    for (const Cycle& cycle : cycles) {
        shown += cycle.nodes.size();
    }
    EXPECT_EQ(cycles.front().nodes.size(), 3000U);
    EXPECT_GT(cycles.size(), 10U);
    EXPECT_LT(shown, 10 * network.wires.size());
}

TEST(OrderCycles, ShowFourTimesAsManyBlocksAsThereAreConnections)
{
    struct Case {
        std::uint32_t blocks;   // of a ring
        std::uint32_t closing;  // so many connections close it
        std::size_t cycles;
    };
    for (const auto& [blocks, closing, cycles] : {Case{8, 14, 11 + 1}, Case{9, 11, 8 + 1}}) {
        Network network;
        for (std::uint32_t block = 0; block < blocks; ++block) {
            network.nodes.push_back({std::to_string(block)});
        }
        for (std::uint32_t block = 1; block < blocks; ++block) {
            network.wires.push_back({block - 1, block, nullptr, nullptr, false});
        }
        for (std::uint32_t wire = 0; wire < closing; ++wire) {
            network.wires.push_back({blocks - 1, 0, nullptr, nullptr, false});
        }

        EXPECT_EQ(find_order(network).cycles.size(), cycles) << blocks;
    }
}

/// What a plain search over the connections, one after the other, finds.
std::vector<std::uint32_t> closing_wires(const Network& network)
{
    const std::size_t count = network.nodes.size();
    std::vector<std::vector<bool>> reaches(count, std::vector<bool>(count));
    for (std::size_t node = 0; node < count; ++node) {
        reaches[node][node] = true;
    }
    std::vector<std::uint32_t> closing;
    for (std::uint32_t index = 0; index < network.wires.size(); ++index) {
        const Wire& wire = network.wires[index];
        const std::uint32_t from = wire.is_delayed ? wire.to : wire.from;
        const std::uint32_t to = wire.is_delayed ? wire.from : wire.to;
        if (wire.is_delayed && from == to) {
            continue;
        }
        if (reaches[to][from]) {
            closing.push_back(index);
            continue;
        }
        for (std::size_t a = 0; a < count; ++a) {
            for (std::size_t b = 0; b < count; ++b) {
                reaches[a][b] = reaches[a][b] || (reaches[a][from] && reaches[to][b]);
            }
        }
    }
    return closing;
}

/// Whether each step of the cycle is a connection, none behind the one that closes it.
bool is_possible(const Cycle& cycle, const Network& network)
{
    for (std::size_t at = 0; at < cycle.nodes.size(); ++at) {
        const std::uint32_t from = cycle.nodes[at];
        const std::uint32_t to = cycle.nodes[(at + 1) % cycle.nodes.size()];
        const auto end = network.wires.begin() + cycle.wire + 1;
        if (std::none_of(network.wires.begin(), end, [from, to](const Wire& wire) {
                return wire.is_delayed ? wire.from == to && wire.to == from
                                       : wire.from == from && wire.to == to;
            })) {
            return false;
        }
    }
    return true;
}

TEST(OrderProperty, FindsThoseConnectionsThatCloseACycleWithTheOnesBefore)
{
    std::mt19937 random(1);
    for (int round = 0; round < 2000; ++round) {
        const std::uint32_t blocks = 1 + random() % 8;
        Network network;
        for (std::uint32_t block = 0; block < blocks; ++block) {
            network.nodes.push_back({std::to_string(random()) + "/" + std::to_string(block)});
        }
        for (std::uint32_t wires = random() % 12; wires > 0; --wires) {
            network.wires.push_back({static_cast<std::uint32_t>(random() % blocks),
                                     static_cast<std::uint32_t>(random() % blocks), nullptr,
                                     nullptr, random() % 4 == 0});
        }

        const Order order = find_order(network);

        std::vector<std::uint32_t> closing;
        for (const Cycle& cycle : order.cycles) {
            closing.push_back(cycle.wire);
            EXPECT_TRUE(is_possible(cycle, network)) << "round " << round;
        }
        EXPECT_EQ(closing, closing_wires(network)) << "round " << round;
        EXPECT_EQ(order.nodes.size() == blocks, closing.empty()) << "round " << round;
    }
}

TEST(Arrange, BringsNodesIntoTheirOrderAndWiresIntoThatOfReadersAndInputs)
{
    OutPortInternal output("out", Datatype("x"));
    InPortInternal first("a", Datatype("x"), true);
    InPortInternal second("b", Datatype("x"), true);
    InPortInternal other("c", Datatype("x"), true);
    Network network;
    network.nodes = {{"last"}, {"middle"}, {"source"}};
    network.wires = {{2, 0, &output, &second, false},
                     {2, 0, &output, &first, false},
                     {2, 1, &output, &other, false},
                     {1, 0, &output, &other, false}};

    arrange(network, find_order(network));

    EXPECT_EQ(network.nodes[0].path, "source");
    EXPECT_EQ(network.nodes[1].path, "middle");
    EXPECT_EQ(network.nodes[2].path, "last");
    std::vector<std::tuple<std::uint32_t, std::uint32_t, InPortInternal*>> wires;
    for (const Wire& wire : network.wires) {
        wires.emplace_back(wire.from, wire.to, wire.input);
    }
    EXPECT_THAT(wires,
                ElementsAre(std::make_tuple(0U, 1U, &other), std::make_tuple(0U, 2U, &first),
                            std::make_tuple(0U, 2U, &second), std::make_tuple(1U, 2U, &other)));
}

TEST(Arrange, FollowsTheBlocksThatOtherMachinesAreConnectedTo)
{
    OutPortInternal output("out", Datatype("x"));
    std::vector<std::unique_ptr<InPortInternal>> inputs;
    Network network;
    network.nodes = {{"z"}, {"a"}};
    for (const std::uint32_t reader : {0U, 1U, 0U, 1U, 0U, 1U}) {
        inputs.push_back(std::make_unique<InPortInternal>("in", Datatype("x"), true));
        network.entry_wires.push_back({0, reader, inputs.back().get(), false});
    }
    network.exits = {{0, "out", &output, false}, {1, "out", &output, false}};

    arrange(network, find_order(network));

    std::vector<std::pair<std::uint32_t, const InPortInternal*>> wires;
    for (const EntryWire& wire : network.entry_wires) {
        wires.emplace_back(wire.to, wire.input);
    }
    EXPECT_THAT(
        wires,
        ElementsAre(std::make_pair(0U, inputs[1].get()), std::make_pair(0U, inputs[3].get()),
                    std::make_pair(0U, inputs[5].get()), std::make_pair(1U, inputs[0].get()),
                    std::make_pair(1U, inputs[2].get()), std::make_pair(1U, inputs[4].get())));
    EXPECT_EQ(network.exits[0].from, 1U);
    EXPECT_EQ(network.exits[1].from, 0U);
}

}  // namespace
