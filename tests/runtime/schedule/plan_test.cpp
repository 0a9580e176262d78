#include "schedule/plan.h"

#include "runtime/support/fakes.h"

#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

using namespace Quorval::runtime;
using quorval_test::FakeBlock;
using quorval_test::FakeGraph;

namespace {

/// A block with an input and an output for each connection that it takes part in.
void connect(FakeGraph& graph, FakeBlock& from, FakeBlock& to, bool is_delayed = false)
{
    const std::string number = std::to_string(graph.network().wires.size());
    from.output("out" + number);
    to.input("in" + number);
    graph.connect(from, "out" + number, to, "in" + number, is_delayed);
}

/// "a b | c*, d": levels, tasks, the blocks of a task; tied ones are marked.
std::string to_string(const Plan& plan, const Network& network)
{
    std::string text;
    for (std::uint32_t task = 0; task < plan.tasks(); ++task) {
        for (const std::uint32_t* block = plan.begin(task); block != plan.end(task); ++block) {
            text += (block == plan.begin(task) ? "" : " ") + network.nodes[*block].path;
        }
        text += plan.is_tied(task) ? "*" : "";
        const bool is_last = plan.end_of_level(task) == task + 1;
        text += task + 1 == plan.tasks() ? "" : is_last ? " | " : ", ";
    }
    return text;
}

TEST(Plan, MakesAChainATask)
{
    FakeGraph graph;
    FakeBlock& a = graph.add("a");
    FakeBlock& b = graph.add("b");
    FakeBlock& c = graph.add("c");
    FakeBlock& d = graph.add("d");
    connect(graph, a, b);
    connect(graph, b, c);
    connect(graph, a, b);
    graph.arrange();

    EXPECT_EQ(to_string({graph.network(), std::vector<Tie>(4)}, graph.network()), "a b c, d");
    EXPECT_EQ(d.runs, 0);
}

TEST(Plan, PutsWhatDependsOnOthersIntoAHigherLevel)
{
    FakeGraph graph;
    FakeBlock& a = graph.add("a");
    FakeBlock& b = graph.add("b");
    FakeBlock& c = graph.add("c");
    FakeBlock& d = graph.add("d");
    connect(graph, a, b);
    connect(graph, a, c);
    connect(graph, b, d);
    connect(graph, c, d);
    graph.arrange();

    EXPECT_EQ(to_string({graph.network(), std::vector<Tie>(4)}, graph.network()), "a | b, c | d");
}

TEST(Plan, RunsTheReaderOfADelayedConnectionFirst)
{
    FakeGraph graph;
    FakeBlock& a = graph.add("a");
    FakeBlock& b = graph.add("b");
    FakeBlock& c = graph.add("c");
    connect(graph, a, b, true);
    connect(graph, a, c, true);
    connect(graph, a, a, true);
    graph.arrange();

    EXPECT_EQ(to_string({graph.network(), std::vector<Tie>(3)}, graph.network()), "b, c | a");
}

TEST(Plan, KeepsTiedBlocksInTheirOrder)
{
    FakeGraph graph;
    FakeBlock& a = graph.add("a");
    FakeBlock& b = graph.add("b");
    FakeBlock& c = graph.add("c");
    FakeBlock& d = graph.add("d");
    connect(graph, a, c);
    connect(graph, b, c);
    connect(graph, c, d);
    graph.add("x");
    graph.add("y");
    graph.arrange();
    const auto text = [&](const std::vector<Tie>& ties) {
        return to_string({graph.network(), ties}, graph.network());
    };
    constexpr Tie kNo = Tie::None;

    EXPECT_EQ(text({kNo, kNo, kNo, kNo, kNo, kNo}), "a, b, x, y | c d");
    EXPECT_EQ(text({kNo, kNo, Tie::Thread, kNo, Tie::Thread, kNo}), "a, b, y | c*, x* | d");
    EXPECT_EQ(text({kNo, kNo, kNo, kNo, Tie::Place, Tie::Thread}), "a, b | c d | x*, y*");
    EXPECT_EQ(text({Tie::Place, Tie::Thread, kNo, kNo, kNo, kNo}), "a*, b*, x, y | c d");
}

TEST(Plan, PutsABlockThatKeepsItsPlaceRightBehindThoseBeforeIt)
{
    FakeGraph graph;
    FakeBlock& a = graph.add("a");
    graph.add("b");
    FakeBlock& c = graph.add("c");
    FakeBlock& d = graph.add("d");
    connect(graph, a, c);
    connect(graph, a, d);
    graph.arrange();

    EXPECT_EQ(to_string({graph.network(), {Tie::None, Tie::Place, Tie::None, Tie::None}},
                        graph.network()),
              "a | b*, c, d");
}

TEST(Plan, CutsLongChains)
{
    FakeGraph graph;
    graph.add_chain(100);
    graph.arrange();

    const Plan plan(graph.network(), std::vector<Tie>(100));

    ASSERT_EQ(plan.tasks(), 2U);
    EXPECT_EQ(plan.end(0) - plan.begin(0), 64);
    EXPECT_EQ(plan.end_of_level(0), 1U);
}

TEST(Plan, HasNoTasksWithoutBlocks)
{
    EXPECT_EQ(Plan(Network(), {}).tasks(), 0U);
}

/// The first task of the level of a block.
std::uint32_t level_of(const Plan& plan, std::uint32_t block)
{
    std::uint32_t first = 0;
    while (plan.end_of_level(first) <= plan.task_of(block)) {
        first = plan.end_of_level(first);
    }
    return first;
}

TEST(Plan, NeverPutsBlocksThatDependOnEachOtherIntoTwoTasksOfALevel)
{
    for (std::uint32_t seed = 1; seed <= 100; ++seed) {
        std::mt19937 random(seed);
        FakeGraph graph;
        std::vector<FakeBlock*> blocks;
        std::vector<Tie> ties;
        for (int at = 0; at < 30; ++at) {
            blocks.push_back(&graph.add("b" + std::to_string(random())));
            ties.push_back(static_cast<Tie>(random() % 6 < 4 ? 0 : random() % 3));
        }
        for (int wire = 0; wire < 35; ++wire) {
            const std::size_t from = random() % 30;
            const std::size_t to = random() % 30;
            connect(graph, *blocks[from], *blocks[to], from >= to);
        }
        graph.arrange();

        const Plan plan(graph.network(), ties);

        for (const Wire& wire : graph.network().wires) {
            const std::uint32_t first = wire.is_delayed ? wire.to : wire.from;
            const std::uint32_t second = wire.is_delayed ? wire.from : wire.to;
            ASSERT_TRUE(plan.task_of(first) == plan.task_of(second) ||
                        level_of(plan, first) < level_of(plan, second))
                << seed;
        }
    }
}

}  // namespace
