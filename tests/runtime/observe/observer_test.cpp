#include "observe/observer.h"

#include "runtime/support/fakes.h"
#include "support/allocations.h"
#include "support/support.h"

#include <gtest/gtest.h>

#include <unistd.h>

#include <chrono>
#include <string>

using Quorval::runtime::Observer;
using Quorval::runtime::Trace;
using quorval_test::FakeGraph;
using quorval_test::read_file;
using quorval_test::TemporaryDirectory;
using std::chrono::nanoseconds;

namespace {

nanoseconds present{0};
int readings = 0;

/// A clock that a test sets; it counts how often it was read.
nanoseconds read_clock()
{
    ++readings;
    return present;
}

class ObserverTest : public ::testing::Test {
protected:
    ObserverTest() { readings = 0; }

    void run(std::uint32_t block, int from, int to, bool has_failed = false)
    {
        present = nanoseconds(from);
        observer.run_begins(block);
        present = nanoseconds(to);
        observer.run_ends(block, has_failed);
    }

    Observer observer{3, read_clock};
};

TEST_F(ObserverTest, TimesARunFromTheEndOfTheOneBefore)
{
    observer.wave_begins();
    run(0, 100, 110);
    run(2, 111, 140);
    observer.wave_ends();

    EXPECT_EQ(observer.times().total(0), 10U);
    EXPECT_EQ(observer.times().total(1), 0U);
    EXPECT_EQ(observer.times().total(2), 30U);
    EXPECT_EQ(readings, 3);
}

TEST_F(ObserverTest, TakesTheTimesOfRunsSideBySideAsTheyAre)
{
    observer.wave_begins();
    run(2, 50, 60);
    observer.ran({0, 1, nanoseconds(100), nanoseconds(140), false});
    observer.ran({1, 0, nanoseconds(110), nanoseconds(130), true});
    run(2, 200, 207);
    observer.wave_ends();

    EXPECT_EQ(observer.times().total(0), 40U);
    EXPECT_EQ(observer.times().total(1), 20U);
    EXPECT_EQ(observer.times().total(2), 17U);
}

TEST_F(ObserverTest, LeavesOutWhatLiesBetweenWavesAndBehindFailures)
{
    observer.wave_begins();
    run(0, 100, 110, true);
    run(1, 500, 520);
    observer.wave_ends();
    observer.wave_begins();
    run(0, 1000, 1003);

    EXPECT_EQ(observer.times().total(0), 13U);
    EXPECT_EQ(observer.times().longest(0), 10U);
    EXPECT_EQ(observer.times().total(1), 20U);
}

TEST_F(ObserverTest, HandsWavesAndRunsToATrace)
{
    const TemporaryDirectory directory;
    const std::string file = directory.path() / "trace.json";
    FakeGraph graph;
    graph.add("a");
    graph.add("b");
    Trace trace(file, "g", graph.arrange());
    Observer traced(2, read_clock, &trace);

    present = nanoseconds(1000);
    traced.wave_begins();
    traced.run_begins(0);
    present = nanoseconds(3000);
    traced.run_ends(0, true);
    traced.ran({1, 1, nanoseconds(4000), nanoseconds(5000), false});
    traced.wave_ends();
    present = nanoseconds(9000);
    traced.wave_begins();
    traced.wave_ends();
    trace.finish();

    const std::string place = ",\"pid\":" + std::to_string(::getpid()) + ",\"tid\":";
    const std::string text = read_file(file);
    EXPECT_EQ(text.substr(text.find(",\n")),
              ",\n{\"name\":\"a\",\"ph\":\"X\",\"ts\":1.000,\"dur\":2.000" + place +
                  "1,\"args\":{\"failed\":true}},\n"
                  "{\"name\":\"b\",\"ph\":\"X\",\"ts\":4.000,\"dur\":1.000" +
                  place +
                  "2},\n"
                  "{\"name\":\"wave\",\"ph\":\"C\",\"ts\":1.000" +
                  place +
                  "1,\"args\":{\"runs\":2}},\n"
                  "{\"name\":\"wave\",\"ph\":\"C\",\"ts\":9.000" +
                  place + "1,\"args\":{\"runs\":0}}\n]\n");
}

TEST_F(ObserverTest, AllocatesNothing)
{
    const std::size_t count = quorval_test::allocations_of([this] {
        observer.wave_begins();
        run(0, 100, 110);
        run(1, 110, 120);
        observer.wave_ends();
    });

    EXPECT_EQ(count, 0U);
}

}  // namespace
