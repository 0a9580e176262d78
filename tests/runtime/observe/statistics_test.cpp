#include "observe/statistics.h"

#include "loop/descriptor_ports.h"
#include "runtime/support/fakes.h"

#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <vector>

using namespace Quorval;
using namespace Quorval::runtime;
using namespace std::chrono_literals;
using quorval_test::FakeGraph;

namespace {

class Nobody final : public IWaveEvents {
public:
    void block_failed(std::uint32_t /*block*/, const std::string& /*text*/) override {}
    void block_is_done(std::uint32_t /*block*/) override {}
};

TEST(Statistics, CountRunsAndFailuresAndTellTheTimesThatWereTaken)
{
    FakeGraph graph;
    graph.add("a");
    graph.add("b", true).on_run = []() -> bool { throw 1; };
    const Network& network = graph.arrange();
    DescriptorPorts ports(network);
    Nobody nobody;
    Wave wave(network, ports, nobody);
    RunTimes times(2);
    times.add(1, 7);
    times.add(1, 5);
    for (int i = 0; i < 2; ++i) {
        wave.ask(1);
        wave.run();
        wave.reset();
    }

    const std::vector<BlockStatistics> counted = gather_statistics(network, wave, nullptr);
    const std::vector<BlockStatistics> timed = gather_statistics(network, wave, &times);

    ASSERT_EQ(counted.size(), 2U);
    EXPECT_EQ(counted[0].path, "a");
    EXPECT_EQ(counted[0].runs, 0U);
    EXPECT_EQ(counted[0].failures, 0U);
    EXPECT_EQ(counted[1].path, "b");
    EXPECT_EQ(counted[1].runs, 2U);
    EXPECT_EQ(counted[1].failures, 2U);
    EXPECT_EQ(counted[1].total, 0ns);
    ASSERT_EQ(timed.size(), 2U);
    EXPECT_EQ(timed[1].total, 12ns);
    EXPECT_EQ(timed[1].longest, 7ns);
    EXPECT_EQ(timed[1].percentile_99, 7ns);
}

}  // namespace
