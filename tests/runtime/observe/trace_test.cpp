#include "observe/trace.h"

#include "runtime/support/fakes.h"
#include "support/allocations.h"
#include "support/support.h"

#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <string>

using namespace std::chrono_literals;
using Quorval::runtime::Trace;
using quorval_test::expect_throw;
using quorval_test::FakeGraph;
using quorval_test::read_file;
using quorval_test::TemporaryDirectory;

namespace {

class TraceTest : public ::testing::Test {
protected:
    TraceTest()
    {
        graph.add("left/a");
        graph.add("left/b");
        graph.arrange();
    }

    std::string path() const { return directory.path() / "trace.json"; }

    TemporaryDirectory directory;
    FakeGraph graph;
    const std::string process = ",\"pid\":" + std::to_string(::getpid()) + ",\"tid\":1";
};

TEST_F(TraceTest, IsAnArrayOfRunsAndWaves)
{
    Trace trace(path(), "loud", graph.network());
    trace.add_run(0, 1001002003ns, 1001002008ns, false);
    trace.add_run(1, 1001002008ns, 1001102118ns, true);
    trace.add_wave(1001002300ns, 2);
    trace.finish();

    EXPECT_EQ(read_file(path()),
              "[\n"
              "{\"name\":\"process_name\",\"ph\":\"M\"" +
                  process +
                  ",\"args\":{\"name\":\"loud\"}},\n"
                  "{\"name\":\"left/a\",\"ph\":\"X\",\"ts\":1001002.003,"
                  "\"dur\":0.005" +
                  process +
                  "},\n"
                  "{\"name\":\"left/b\",\"ph\":\"X\",\"ts\":1001002.008,"
                  "\"dur\":100.110" +
                  process +
                  ",\"args\":{\"failed\":true}},\n"
                  "{\"name\":\"wave\",\"ph\":\"C\",\"ts\":1001002.300" +
                  process +
                  ",\"args\":{\"runs\":2}}\n"
                  "]\n");
}

TEST_F(TraceTest, ShowsTheThreadOfARun)
{
    Trace trace(path(), "loud", graph.network());
    trace.add_run(1, 1000ns, 2000ns, false, 2);
    trace.finish();

    EXPECT_NE(read_file(path()).find("{\"name\":\"left/b\",\"ph\":\"X\",\"ts\":1.000,\"dur\":1.000,"
                                     "\"pid\":" +
                                     std::to_string(::getpid()) + ",\"tid\":3}"),
              std::string::npos);
}

TEST_F(TraceTest, WritesPieceByPieceAndAllocatesNothing)
{
    Trace trace(path(), "loud", graph.network());

    const std::size_t count = quorval_test::allocations_of([&] {
        for (int run = 0; run < 10000; ++run) {
            trace.add_run(0, 1ns, 2ns, false);
        }
    });

    EXPECT_EQ(count, 0U);
    EXPECT_GT(read_file(path()).size(), 500000U);
    trace.finish();
    std::string runs;
    for (int run = 0; run < 10000; ++run) {
        runs += ",\n{\"name\":\"left/a\",\"ph\":\"X\",\"ts\":0.001,\"dur\":0.001" + process + "}";
    }
    EXPECT_EQ(read_file(path()), "[\n{\"name\":\"process_name\",\"ph\":\"M\"" + process +
                                     ",\"args\":{\"name\":\"loud\"}}" + runs + "\n]\n");
}

TEST_F(TraceTest, IsForAllWhomTheUmaskDoesNotExclude)
{
    const mode_t before = ::umask(022);
    Trace(path(), "loud", graph.network()).finish();
    ::umask(before);

    struct stat status = {};
    ASSERT_EQ(::stat(path().c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777U, 0644U);
}

TEST_F(TraceTest, TakesTextsThatAreLongerThanItsPieces)
{
    const std::string name(200'000, 'n');
    Trace(path(), name, graph.network()).finish();

    EXPECT_EQ(read_file(path()), "[\n{\"name\":\"process_name\",\"ph\":\"M\"" + process +
                                     ",\"args\":{\"name\":\"" + name + "\"}}\n]\n");
}

TEST_F(TraceTest, EmptiesAFileThatExists)
{
    quorval_test::write_file(path(), std::string(100000, 'x'));

    Trace(path(), "loud", graph.network()).finish();

    EXPECT_EQ(read_file(path()).find('x'), std::string::npos);
}

TEST_F(TraceTest, SaysThatItCannotBeWritten)
{
    const std::string folder = directory.path();
    expect_throw<std::system_error>([&] { Trace(folder, "loud", graph.network()); },
                                    "'" + folder + "' cannot be written: Is a directory");
    expect_throw<std::system_error>([&] { Trace("/dev/full", "loud", graph.network()).finish(); },
                                    "'/dev/full' cannot be written: No space left on device");
}

}  // namespace
