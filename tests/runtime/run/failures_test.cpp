#include "run/failures.h"

#include "runtime/support/fakes.h"
#include "support/support.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <vector>

using namespace Quorval::runtime;
using namespace std::chrono_literals;
using quorval_test::FakeBlock;
using quorval_test::FakeGraph;
using quorval_test::LogRecorder;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

namespace {

class FailuresTest : public ::testing::Test {
protected:
    LogRecorder recorder;
    FakeGraph graph;
    FakeBlock& a = graph.add("a");
    FakeBlock& b = graph.add("b");
    Failures failures{graph.arrange()};
};

TEST_F(FailuresTest, AreReportedAgainAfterOneSecond)
{
    failures.report_run(0, "first", 0ns);
    failures.report_run(0, "left out", 1s - 1ns);
    failures.report_run(0, "second", 1s);
    failures.report_run(0, "left out", 1s + 1ns);
    failures.report_run(0, "left out", 2s - 1ns);
    failures.report_run(0, "third", 3s);
    failures.report_run(0, "fourth", 4s);

    EXPECT_THAT(recorder.texts(),
                ElementsAre("block 'a' failed in run: first",
                            "block 'a' failed in run: second (1 more since the last one)",
                            "block 'a' failed in run: third (2 more since the last one)",
                            "block 'a' failed in run: fourth"));
}

TEST_F(FailuresTest, OfEachBlockAreCountedForThemselves)
{
    failures.report_run(0, "x", 5s);
    failures.report_run(1, "x", 5s);
    failures.report_run(0, "x", 5s);
    failures.report_run(1, "x", 5s);
    failures.report_run(1, "x", 5s);
    recorder.clear();

    failures.report_rest();
    EXPECT_THAT(recorder.texts(), ElementsAre("block 'a' failed in run 1 more times",
                                              "block 'b' failed in run 2 more times"));
    recorder.clear();
    failures.report_rest();
    EXPECT_THAT(recorder.texts(), IsEmpty());
}

TEST_F(FailuresTest, AreToldToTheListenerWhenTheyAreReported)
{
    std::vector<std::string> told;
    failures.report(1, "start", "early");
    failures.set_listener([&told](const std::string& path, const std::string& text) {
        told.push_back(path + ": " + text);
    });

    failures.report(1, "stop", "late");
    failures.report_run(0, "first", 1s);
    failures.report_run(0, "left out", 1s);
    failures.report_run(0, "second", 2s);

    EXPECT_THAT(told, ElementsAre("b: late", "a: first", "a: second (1 more since the last one)"));
}

}  // namespace
