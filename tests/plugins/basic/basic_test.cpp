// The blocks of the plug-in basic, each in a harness.
#include <quorval/runtime/testing.h>
#include "support/scopes.h"
#include "support/support.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <csignal>
#include <cstdint>
#include <filesystem>
#include <iostream>
#include <limits>
#include <memory>
#include <stdexcept>
#include <string>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

namespace {

using Quorval::BlockConfiguration;
using Quorval::Harness;
using quorval_test::expect_throw;
using quorval_test::FileSizeLimit;
using quorval_test::IgnoredSignal;
using quorval_test::NoDescriptors;
using quorval_test::NoStandardInput;
using quorval_test::open_descriptors;
using quorval_test::read_file;
using quorval_test::write_file;
using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStdout;
using namespace std::chrono_literals;

/// A block of the plug-in, started.
class BasicBlock : public Harness {
public:
    explicit BasicBlock(const std::string& type, const BlockConfiguration& config = {})
        : Harness(QUORVAL_BASIC_PLUGIN, type, config)
    {
        start();
    }
};

TEST(Timer, TicksAfterEachPeriod)
{
    BasicBlock timer("Timer", {{"period", 0.1}});
    EXPECT_FALSE(timer.step());

    timer.advance(99ms);
    EXPECT_FALSE(timer.step());
    timer.advance(1ms);
    EXPECT_TRUE(timer.step());
    EXPECT_EQ(timer.output<std::int64_t>("tick"), 1);
    EXPECT_TRUE(timer.is_triggered("tick"));
    EXPECT_FALSE(timer.step());

    timer.advance(100ms);
    EXPECT_TRUE(timer.step());
    EXPECT_EQ(timer.output<std::int64_t>("tick"), 2);
}

TEST(Timer, CountsPeriodsFromItsStartOn)
{
    Harness timer(QUORVAL_BASIC_PLUGIN, "Timer", {{"period", 0.1}});
    timer.advance(1s);
    timer.start();

    timer.advance(99ms);
    EXPECT_FALSE(timer.step());
    timer.advance(1ms);

    EXPECT_TRUE(timer.step());
}

TEST(Timer, StaysInStepWhenItIsLate)
{
    BasicBlock timer("Timer", {{"period", 0.1}});

    timer.advance(350ms);
    EXPECT_TRUE(timer.step());
    EXPECT_EQ(timer.output<std::int64_t>("tick"), 1);
    EXPECT_FALSE(timer.step());
    timer.advance(50ms);

    EXPECT_TRUE(timer.step());
    EXPECT_EQ(timer.output<std::int64_t>("tick"), 2);
}

TEST(Timer, IsDoneAfterItsTicks)
{
    BasicBlock timer("Timer", {{"period", 1}, {"count", 2}});

    timer.advance(1s);
    timer.step();
    EXPECT_FALSE(timer.is_done());
    timer.advance(1s);
    timer.step();

    EXPECT_TRUE(timer.is_done());
    EXPECT_EQ(timer.output<std::int64_t>("tick"), 2);
}

TEST(Timer, ChangesItsPeriodFromTheLastTickOn)
{
    BasicBlock timer("Timer", {{"period", 10}});
    timer.advance(1s);

    timer.reconfigure({{"period", 2}});
    EXPECT_FALSE(timer.step());
    timer.advance(1s);

    EXPECT_TRUE(timer.step());
    expect_throw<std::invalid_argument>(
        [&] {
            timer.reconfigure({{"count", 2}});
        },
        "'count' cannot be changed while the graph runs");
}

TEST(Timer, RefusesABadPeriod)
{
    expect_throw<std::invalid_argument>([] { BasicBlock("Timer"); }, "'period' is missing");
    expect_throw<std::invalid_argument>(
        [] {
            BasicBlock("Timer", {{"period", 0}});
        },
        "'period' has to be from 1e-06 to 1e+06, not 0");
}

TEST(Sine, GivesAValueForEachTick)
{
    BasicBlock sine("Sine", {{"frequency", 1}, {"rate", 4}, {"amplitude", 2}});

    std::vector<double> values;
    for (std::int64_t tick = 1; tick <= 5; ++tick) {
        sine.feed("tick", tick);
        EXPECT_TRUE(sine.step());
        values.push_back(sine.output<double>("out"));
    }

    const std::vector<double> expected = {0, 2, 0, -2, 0};
    for (std::size_t i = 0; i < expected.size(); ++i) {
        EXPECT_NEAR(values[i], expected[i], 1e-15) << i;
    }
    EXPECT_EQ(values[0], 0);
    EXPECT_EQ(values[4], 0);
}

TEST(Sine, HasOneTurnInASecondOfAHundredValues)
{
    BasicBlock sine("Sine");

    std::vector<double> values;
    for (std::int64_t tick = 1; tick <= 26; ++tick) {
        sine.feed("tick", tick);
        sine.step();
        values.push_back(sine.output<double>("out"));
    }

    EXPECT_EQ(values.front(), 0);
    EXPECT_NEAR(values[1], std::sin(0.02 * 3.14159265358979323846), 1e-15);
    EXPECT_NEAR(values[25], 1, 1e-15);
}

TEST(Sine, RefusesRatesThatAreNone)
{
    for (const auto& [key, text] : std::vector<std::pair<std::string, std::string>>{
             {"rate", "'rate' has to be from 1e-06 to 1e+09, not -1"},
             {"frequency", "'frequency' has to be from 0 to 1e+09, not -1"}}) {
        expect_throw<std::invalid_argument>(
            [&, &name = key] {
                BasicBlock("Sine", {{name, -1}});
            },
            text);
    }
}

TEST(Sine, ChangesItsAmplitudeAlone)
{
    BasicBlock sine("Sine", {{"frequency", 1}, {"rate", 4}});
    sine.feed("tick", std::int64_t{1});
    sine.step();

    sine.reconfigure({{"amplitude", 3}});
    sine.feed("tick", std::int64_t{2});
    sine.step();

    EXPECT_NEAR(sine.output<double>("out"), 3, 1e-15);
    expect_throw<std::invalid_argument>(
        [&] {
            sine.reconfigure({{"rate", 8}});
        },
        "'rate' cannot be changed while the graph runs");
}

TEST(Scale, Multiplies)
{
    BasicBlock scale("Scale", {{"factor", 0.5}});
    scale.feed("in", 3.0);
    scale.step();
    EXPECT_EQ(scale.output<double>("out"), 1.5);

    scale.reconfigure({{"factor", -2}});
    scale.feed("in", 3.0);
    scale.step();

    EXPECT_EQ(scale.output<double>("out"), -6);
}

TEST(Scale, ChangesNothingWithoutAFactor)
{
    BasicBlock scale("Scale");

    scale.feed("in", 3.0);
    scale.step();

    EXPECT_EQ(scale.output<double>("out"), 3);
}

TEST(Scale, MultipliesLists)
{
    BasicBlock scale("Scale", {{"factor", 2}, {"type", "double-vector"}});

    scale.feed("in", std::vector<double>{1, -0.5});
    scale.step();

    EXPECT_EQ(scale.output<std::vector<double>>("out"), (std::vector<double>{2, -1}));
}

template <class T>
std::string print(const std::string& type, T value)
{
    BasicBlock block("Print", {{"type", type}, {"prefix", "x: "}});
    block.feed("in", std::move(value));
    CaptureStdout();
    block.step();
    EXPECT_FALSE(block.is_done());
    return GetCapturedStdout();
}

TEST(Print, WritesALineForAValueOfEachType)
{
    EXPECT_EQ(print("bool", true), "x: true\n");
    EXPECT_EQ(print("int32", std::int32_t{-7}), "x: -7\n");
    EXPECT_EQ(print("int64", std::int64_t{1} << 40), "x: 1099511627776\n");
    EXPECT_EQ(print("float", 0.1F), "x: 0.1\n");
    EXPECT_EQ(print("double", 0.1), "x: 0.1\n");
    EXPECT_EQ(print("double", 2.0), "x: 2\n");
    EXPECT_EQ(print("double", std::numeric_limits<double>::infinity()), "x: inf\n");
    EXPECT_EQ(print("string", std::string("a b")), "x: a b\n");
    EXPECT_EQ(print("int32-vector", std::vector<std::int32_t>{1, 2}), "x: [1, 2]\n");
    EXPECT_EQ(print("int64-vector", std::vector<std::int64_t>{}), "x: []\n");
    EXPECT_EQ(print("float-vector", std::vector<float>{0.1F}), "x: [0.1]\n");
    EXPECT_EQ(print("double-vector", std::vector<double>{1.5, -2}), "x: [1.5, -2]\n");
}

TEST(Print, RefusesAnotherType)
{
    expect_throw<std::invalid_argument>(
        [] {
            BasicBlock("Print", {{"type", "colour"}});
        },
        "'type' has to be one of bool, int32, int64, float, double, string, int32-vector, "
        "int64-vector, float-vector, double-vector, not 'colour'");
}

TEST(Print, FailsWhenStandardOutputIsBad)
{
    BasicBlock block("Print");
    block.feed("in", 1.0);

    std::cout.setstate(std::ios::badbit);
    expect_throw<std::runtime_error>([&] { block.step(); }, "cannot write to standard output");
    std::cout.clear();
}

/// A directory for the files of a test.
class CsvTest : public testing::Test {
protected:
    std::string file(const std::string& name) const { return (directory_.path() / name).string(); }

    /// What a source of a column of `content` gives, up to its end.
    std::vector<double> read(const std::string& content, const std::string& column)
    {
        write_file(file("in.csv"), content);
        BasicBlock source("CsvSource", {{"path", file("in.csv")}, {"column", column}});
        std::vector<double> values;
        while (source.step()) {
            if (source.is_triggered("out")) {
                values.push_back(source.output<double>("out"));
            }
        }
        EXPECT_TRUE(source.is_done());
        return values;
    }

    void expect_refused(const std::string& content, const std::string& text)
    {
        expect_throw<std::runtime_error>([&] { read(content, "a"); }, file("in.csv") + text);
    }

    /// A sink with the columns a and b. Each pair is a wave; a NaN stands for no value.
    void write(const std::vector<std::pair<double, double>>& rows, bool append)
    {
        BasicBlock sink("CsvSink",
                        {{"path", file("out.csv")}, {"columns", {"a", "b"}}, {"append", append}});
        for (const auto& [a, b] : rows) {
            feed(sink, "a", a);
            feed(sink, "b", b);
            sink.step();
        }
        sink.stop();
    }
    static void feed(Harness& sink, const std::string& column, double value)
    {
        if (!std::isnan(value)) {
            sink.feed(column, value);
        }
    }

    quorval_test::TemporaryDirectory directory_;
    // What a sink writes until it stops.
    const std::filesystem::path temporary_ =
        file(".out.csv." + std::to_string(::getpid()) + ".part");
};

constexpr double kNothing = std::numeric_limits<double>::quiet_NaN();

/// The source is that of the column `b` of a pipe, which nobody has opened to write at its start.
class CsvPipeTest : public CsvTest {
protected:
    CsvPipeTest() { ::mkfifo(file("pipe").c_str(), 0600); }

    BlockConfiguration config(double rate = 0) const
    {
        return {{"path", file("pipe")}, {"column", "b"}, {"rate", rate}};
    }

    void open_writer()
    {
        writer_ = ::open(file("pipe").c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC);
        ASSERT_GE(writer_, 0);
    }
    void write(const std::string& text) const
    {
        ASSERT_EQ(::write(writer_, text.data(), text.size()), static_cast<ssize_t>(text.size()));
    }
    void close_writer() const { ::close(writer_); }

    /// What the source gives before it waits again.
    static std::vector<double> values_of(Harness& source)
    {
        std::vector<double> values;
        while (source.step()) {
            if (source.is_triggered("out")) {
                values.push_back(source.output<double>("out"));
            }
        }
        return values;
    }

private:
    int writer_ = -1;
};

TEST_F(CsvTest, SourceGivesTheNumbersOfAColumn)
{
    EXPECT_EQ(read("a,b\n1,2\n3.5,-4e2\n", "b"), (std::vector<double>{2, -400}));
    EXPECT_EQ(read("a,b\r\n1,2\r\n", "b"), std::vector<double>{2});
    EXPECT_EQ(read("a\n1\n2", "a"), (std::vector<double>{1, 2}));
    EXPECT_EQ(read("\"a, \"\"b\"\"\",c\n\"1\",2\n", "a, \"b\""), std::vector<double>{1});
    EXPECT_EQ(read("a\n", "a"), std::vector<double>());
}

TEST_F(CsvTest, SourceTakesACellWhoseQuotesAreNotClosed)
{
    EXPECT_EQ(read("\"a\"\"\n1\n", "a\""), std::vector<double>{1});
    EXPECT_EQ(read("\"a,b\n1\n", "a,b"), std::vector<double>{1});
}

TEST_F(CsvTest, SourceGivesNothingForAnEmptyCell)
{
    EXPECT_EQ(read("a,b\n1,\n,2\n3,4\n", "a"), (std::vector<double>{1, 3}));
}

TEST_F(CsvTest, SourceGivesNothingForAnEmptyLine)
{
    EXPECT_EQ(read("a,b\n1,2\n\n3,4\n\r\n", "a"), (std::vector<double>{1, 3}));
}

TEST_F(CsvTest, SourceBearsTheMarkOfUtf8)
{
    EXPECT_EQ(read("\xEF\xBB\xBF\"a\",b\n1,2\n", "a"), std::vector<double>{1});
}

TEST_F(CsvTest, SourceNamesFileAndLineOfWhatIsWrong)
{
    expect_refused("a\n1\nx\n", ":3: 'x' is not a number");
    expect_refused("a\n1 2\n", ":2: '1 2' is not a number");
    expect_refused("a,b\n1\n", ":2: 1 cells, not 2");
    expect_refused("b,c\n1,2\n", ":1: there is no column 'a'");
    expect_refused("", ":1: there is no column 'a'");
    expect_throw<std::runtime_error>(
        [this] {
            BasicBlock("CsvSource", {{"path", file("missing")}, {"column", "a"}});
        },
        file("missing") + ": No such file or directory");
    expect_throw<std::runtime_error>(
        [this] {
            BasicBlock("CsvSource", {{"path", directory_.path().string()}, {"column", "a"}});
        },
        directory_.path().string() + ": Is a directory");
}

TEST_F(CsvTest, SourceNamesAFileThatCannotBeRead)
{
    // It can be opened, but nothing is mapped where it begins.
    expect_throw<std::runtime_error>(
        [] {
            BasicBlock("CsvSource", {{"path", "/proc/self/mem"}, {"column", "a"}});
        },
        "/proc/self/mem:0: cannot be read");
}

TEST_F(CsvTest, SourceNamesAFileThatCannotBeOpened)
{
    write_file(file("in.csv"), "a\n1\n");
    Harness source(QUORVAL_BASIC_PLUGIN, "CsvSource", {{"path", file("in.csv")}, {"column", "a"}});

    expect_throw<std::runtime_error>(
        [&] {
            const NoDescriptors none;
            source.start();
        },
        file("in.csv") + ": Too many open files");
}

TEST_F(CsvTest, SourceHoldsItsFileOpenUntilItStops)
{
    write_file(file("in.csv"), "a\n1\n2\n");
    const auto is_open = [path = std::filesystem::canonical(file("in.csv"))] {
        const std::vector<int> all = open_descriptors();
        return std::any_of(all.begin(), all.end(), [&](int fd) {
            std::error_code ignored;
            return std::filesystem::read_symlink("/proc/self/fd/" + std::to_string(fd), ignored) ==
                   path;
        });
    };
    BasicBlock source("CsvSource", {{"path", file("in.csv")}, {"column", "a"}});
    EXPECT_TRUE(is_open());

    source.stop();

    EXPECT_FALSE(is_open());
}

TEST_F(CsvTest, BlocksKeepWhatCannotBeChangedWhileTheyRun)
{
    write_file(file("in.csv"), "a\n1\n2\n");
    struct Case {
        std::string type;
        BlockConfiguration config;
        BlockConfiguration change;
        std::string key;
    };
    for (const Case& one :
         {Case{"CsvSource", {{"path", file("in.csv")}, {"column", "a"}}, {{"rate", 1}}, "rate"},
          Case{"CsvSink", {{"path", file("o")}, {"columns", {"a"}}}, {{"append", true}}, "append"},
          Case{"Print", {}, {{"prefix", "x"}}, "prefix"}}) {
        BasicBlock block(one.type, one.config);
        expect_throw<std::invalid_argument>(
            [&] { block.reconfigure(one.change); },
            "'" + one.key + "' cannot be changed while the graph runs");
    }
}

TEST_F(CsvTest, SourceGoesOnBehindARowThatIsWrong)
{
    write_file(file("in.csv"), "a\nx\n2\n");
    BasicBlock source("CsvSource", {{"path", file("in.csv")}, {"column", "a"}});
    EXPECT_THROW(source.step(), std::runtime_error);

    EXPECT_TRUE(source.step());

    EXPECT_EQ(source.output<double>("out"), 2);
}

TEST_F(CsvPipeTest, SourceGivesRowsAsTheyCome)
{
    BasicBlock source("CsvSource", config());
    EXPECT_FALSE(source.step());
    open_writer();
    for (const auto& [text, values] : std::vector<std::pair<std::string, std::vector<double>>>{
             {"a,b", {}}, {"\n1,", {}}, {"2\r\n3,4\n\n5,6", {2, 4}}}) {
        write(text);
        EXPECT_EQ(values_of(source), values) << text;
    }
    EXPECT_FALSE(source.is_done());

    close_writer();

    EXPECT_EQ(values_of(source), std::vector<double>{6});
    EXPECT_TRUE(source.is_done());
}

TEST_F(CsvPipeTest, SourceKeepsItsRate)
{
    BasicBlock source("CsvSource", config(10));
    open_writer();
    write("a,b\n0,1\n0,2\n");
    EXPECT_EQ(values_of(source), std::vector<double>{1});

    // The next row is not due, whatever comes.
    write("0,3\n");
    EXPECT_EQ(values_of(source), std::vector<double>());
    close_writer();
    EXPECT_EQ(values_of(source), std::vector<double>());

    source.advance(200ms);
    EXPECT_EQ(values_of(source), (std::vector<double>{2, 3}));
    EXPECT_FALSE(source.is_done());
    source.advance(100ms);
    source.step();
    EXPECT_TRUE(source.is_done());
}

TEST_F(CsvPipeTest, SourceDoesNotMakeUpForAPause)
{
    BasicBlock source("CsvSource", config(10));
    open_writer();
    write("a,b\n0,1\n");
    EXPECT_EQ(values_of(source), std::vector<double>{1});
    source.advance(100ms);
    EXPECT_EQ(values_of(source), std::vector<double>());

    source.advance(3s);
    write("0,2\n0,3\n");
    EXPECT_EQ(values_of(source), std::vector<double>{2});
    source.advance(99ms);
    EXPECT_EQ(values_of(source), std::vector<double>());
    source.advance(1ms);
    EXPECT_EQ(values_of(source), std::vector<double>{3});
    close_writer();
}

TEST_F(CsvPipeTest, SourceCountsTheLinesThatHaveCome)
{
    BasicBlock source("CsvSource", config());
    open_writer();
    write("a,b\n0,1\n");
    EXPECT_EQ(values_of(source), std::vector<double>{1});
    write("0,x\n");
    close_writer();

    expect_throw<std::runtime_error>([&] { source.step(); },
                                     file("pipe") + ":3: 'x' is not a number");
}

TEST_F(CsvPipeTest, SourceIsDoneWhereThereAreNoNames)
{
    BasicBlock source("CsvSource", config());
    open_writer();
    close_writer();
    expect_throw<std::runtime_error>([&] { source.step(); },
                                     file("pipe") + ":1: there is no column 'b'");

    source.step();

    EXPECT_TRUE(source.is_done());
}

TEST_F(CsvTest, SourceTakesADescriptorOfAnyNumber)
{
    write_file(file("in.csv"), "a\n1\n");
    Harness source(QUORVAL_BASIC_PLUGIN, "CsvSource", {{"path", file("in.csv")}, {"column", "a"}});
    const NoStandardInput closed;
    source.start();
    EXPECT_TRUE(closed.is_taken());
    EXPECT_TRUE(source.step());

    source.stop();

    EXPECT_FALSE(closed.is_taken());
}

TEST_F(CsvTest, SourceKeepsItsRate)
{
    write_file(file("in.csv"), "a\n1\n2\n");
    BasicBlock source("CsvSource", {{"path", file("in.csv")}, {"column", "a"}, {"rate", 10}});

    EXPECT_TRUE(source.step());
    EXPECT_FALSE(source.step());
    source.advance(100ms);
    EXPECT_TRUE(source.step());
    EXPECT_EQ(source.output<double>("out"), 2);
}

TEST_F(CsvTest, SourceKeepsItsRateFromItsStartOn)
{
    write_file(file("in.csv"), "a\n1\n2\n");
    Harness source(QUORVAL_BASIC_PLUGIN, "CsvSource",
                   {{"path", file("in.csv")}, {"column", "a"}, {"rate", 10}});
    source.advance(1s);
    source.start();

    EXPECT_TRUE(source.step());
    EXPECT_FALSE(source.step());
    source.advance(100ms);
    EXPECT_TRUE(source.step());
}

TEST_F(CsvTest, SourceReadsFromTheBeginningWhenItIsStartedAgain)
{
    write_file(file("in.csv"), "a\n1\nx\n");
    BasicBlock source("CsvSource", {{"path", file("in.csv")}, {"column", "a"}, {"rate", 10}});
    for (int round = 0; round < 2; ++round) {
        EXPECT_TRUE(source.step());
        EXPECT_EQ(source.output<double>("out"), 1);
        EXPECT_FALSE(source.step());
        source.advance(100ms);
        expect_throw<std::runtime_error>([&] { source.step(); },
                                         file("in.csv") + ":3: 'x' is not a number");
        source.stop();
        source.start();
    }
}

TEST_F(CsvTest, SourceWaitsVeryLongForRowsThatAreVeryFarApart)
{
    write_file(file("in.csv"), "a\n1\n2\n");
    for (const double rate : {1e-12, std::numeric_limits<double>::denorm_min()}) {
        BasicBlock source("CsvSource", {{"path", file("in.csv")}, {"column", "a"}, {"rate", rate}});
        EXPECT_TRUE(source.step());
        source.advance(std::chrono::hours(24 * 365 * 99));
        EXPECT_FALSE(source.step());
        source.advance(std::chrono::hours(24 * 365));
        EXPECT_TRUE(source.step());
    }
}

TEST_F(CsvTest, SinkWritesARowForEachWave)
{
    write({{1, 2}, {0.1, kNothing}, {kNothing, -3e300}, {kNothing, kNothing}}, false);

    EXPECT_EQ(read_file(file("out.csv")), "a,b\n1,2\n0.1,\n,-3e+300\n");
}

TEST_F(CsvTest, SinkShowsTheFileWhenItStops)
{
    write_file(file("out.csv"), "old");
    {
        BasicBlock sink("CsvSink", {{"path", file("out.csv")}, {"columns", {"a"}}});
        sink.feed("a", 1.0);
        sink.step();
        EXPECT_EQ(read_file(file("out.csv")), "old");
        sink.stop();
        EXPECT_EQ(read_file(file("out.csv")), "a\n1\n");
    }
    {
        BasicBlock sink("CsvSink", {{"path", file("out.csv")}, {"columns", {"a"}}});
    }
    EXPECT_EQ(read_file(file("out.csv")), "a\n1\n");
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(directory_.path()), {}), 1);
}

TEST_F(CsvTest, SinkGathersRowsUntilTheyAreAPiece)
{
    const std::string name = "ten-bytes-";
    const std::string row = "-1.2345678901234567e+300\n";
    constexpr std::uintmax_t kPiece = 65536;
    const std::size_t rows = (kPiece - name.size() - 1) / row.size();
    ASSERT_EQ(name.size() + 1 + rows * row.size(), kPiece);
    BasicBlock sink("CsvSink", {{"path", file("out.csv")}, {"columns", {name}}});
    const auto written = [&] { return std::filesystem::file_size(temporary_); };
    for (std::size_t i = 0; i < rows; ++i) {
        ASSERT_EQ(written(), 0U);
        sink.feed(name, -1.2345678901234567e+300);
        sink.step();
    }

    EXPECT_EQ(written(), kPiece);
}

TEST_F(CsvTest, SinkLeavesTheFileOfALaterOneAlone)
{
    const BlockConfiguration config{{"path", file("out.csv")}, {"columns", {"a"}}};
    auto first = std::make_unique<BasicBlock>("CsvSink", config);
    first->stop();
    BasicBlock second("CsvSink", config);

    first.reset();
    second.feed("a", 1.0);
    second.step();
    second.stop();

    EXPECT_EQ(read_file(file("out.csv")), "a\n1\n");
}

TEST_F(CsvTest, SinkMakesAFileAsTheUserWantsFilesToBe)
{
    const mode_t before = ::umask(0);
    write({}, false);
    ::umask(before);

    EXPECT_EQ(std::filesystem::status(file("out.csv")).permissions(), std::filesystem::perms(0666));
}

TEST_F(CsvTest, SinkClosesWhatItOpens)
{
    const auto before = open_descriptors().size();
    write_file(temporary_, "half");
    {
        BasicBlock sink("CsvSink", {{"path", file("out.csv")}, {"columns", {"a"}}});
    }
    EXPECT_EQ(open_descriptors().size(), before);

    write({}, false);

    EXPECT_EQ(open_descriptors().size(), before);
}

TEST_F(CsvTest, SinkTakesADescriptorOfAnyNumber)
{
    write_file(temporary_, "half");
    auto sink = std::make_unique<Harness>(
        QUORVAL_BASIC_PLUGIN, "CsvSink",
        BlockConfiguration{{"path", file("out.csv")}, {"columns", {"a"}}});
    const NoStandardInput closed;
    sink->start();
    EXPECT_EQ(std::filesystem::read_symlink("/proc/self/fd/0"),
              std::filesystem::canonical(directory_.path()) / temporary_.filename());

    sink.reset();

    EXPECT_FALSE(closed.is_taken());
}

TEST_F(CsvTest, SinkAppendsRowByRowAndNamesTheColumnsOnce)
{
    write({{1, 2}}, true);
    write({{3, 4}}, true);
    EXPECT_EQ(read_file(file("out.csv")), "a,b\n1,2\n3,4\n");

    BasicBlock sink("CsvSink",
                    {{"path", file("out.csv")}, {"columns", {"a", "b"}}, {"append", true}});
    sink.feed("a", 5.0);
    sink.step();

    EXPECT_EQ(read_file(file("out.csv")), "a,b\n1,2\n3,4\n5,\n");
}

TEST_F(CsvTest, SinkWritesIntoAPipe)
{
    ASSERT_EQ(::mkfifo(file("out.csv").c_str(), 0600), 0);
    const int reader = ::open(file("out.csv").c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);

    write({{1, 2}, {3, 4}}, true);

    std::string text(100, ' ');
    text.resize(static_cast<std::size_t>(std::max<ssize_t>(0, ::read(reader, text.data(), 100))));
    ::close(reader);
    EXPECT_EQ(text, "a,b\n1,2\n3,4\n");
}

TEST_F(CsvTest, SinkSaysWhyAPipeTookHalfALine)
{
    ASSERT_EQ(::mkfifo(file("out.csv").c_str(), 0600), 0);
    const int reader = ::open(file("out.csv").c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    const IgnoredSignal ignored(SIGPIPE);
    std::atomic<bool> has_thrown{false};
    std::thread closer([&] {
        for (int there = 0; there == 0 && !has_thrown;) {
            ASSERT_EQ(::ioctl(reader, FIONREAD, &there), 0);
        }
        ::close(reader);
    });

    // More than a pipe holds, with pages of any size.
    expect_throw<std::system_error>(
        [&] {
            BasicBlock("CsvSink", {{"path", file("out.csv")},
                                   {"columns", {std::string(2'000'000, 'a')}},
                                   {"append", true}});
        },
        file("out.csv") + ": cannot be written: Broken pipe");

    has_thrown = true;
    closer.join();
}

TEST_F(CsvTest, SinkQuotesNamesThatNeedIt)
{
    BasicBlock sink("CsvSink", {{"path", file("out.csv")}, {"columns", {"a, b", "say \"c\""}}});
    sink.stop();

    EXPECT_EQ(read_file(file("out.csv")), "\"a, b\",\"say \"\"c\"\"\"\n");
}

TEST_F(CsvTest, SinkFollowsALink)
{
    write_file(file("target.csv"), "old");
    std::filesystem::create_symlink("target.csv", file("out.csv"));

    write({{1, 2}}, false);

    EXPECT_TRUE(std::filesystem::is_symlink(file("out.csv")));
    EXPECT_EQ(read_file(file("target.csv")), "a,b\n1,2\n");
}

TEST_F(CsvTest, SinkNamesAFileThatCannotBeWritten)
{
    std::filesystem::create_directory(file("directory"));
    const auto start = [](const std::string& path, bool append) {
        BasicBlock("CsvSink", {{"path", path}, {"columns", {"a"}}, {"append", append}});
    };

    expect_throw<std::system_error>(
        [&] { start(file("missing/out.csv"), false); },
        file("missing/out.csv") + ": cannot be written: No such file or directory");
    expect_throw<std::runtime_error>([&] { start(file("directory"), false); },
                                     file("directory") + ": not a regular file");
    expect_throw<std::system_error>([&] { start(file("directory"), true); },
                                    file("directory") + ": cannot be written: Is a directory");
}

TEST_F(CsvTest, SinkNamesAFullDisk)
{
    expect_throw<std::system_error>(
        [] {
            BasicBlock("CsvSink", {{"path", "/dev/full"}, {"columns", {"a"}}, {"append", true}});
        },
        "/dev/full: cannot be written: No space left on device");
}

TEST_F(CsvTest, SinkTakesAwayWhatAProcessOfTheSameNumberLeftBehind)
{
    write_file(temporary_, "half");

    write({{1, 2}}, false);

    EXPECT_EQ(read_file(file("out.csv")), "a,b\n1,2\n");
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(directory_.path()), {}), 1);
}

TEST_F(CsvTest, SinkRefusesAFileThatAnotherOneWrites)
{
    const BlockConfiguration config{{"path", file("out.csv")}, {"columns", {"a"}}};
    BasicBlock sink("CsvSink", config);

    expect_throw<std::system_error>([&] { BasicBlock("CsvSink", config); },
                                    file("out.csv") + ": cannot be written: File exists");

    sink.stop();
    EXPECT_EQ(read_file(file("out.csv")), "a\n");
}

TEST_F(CsvTest, SinkLeavesNoGapWhereItFailed)
{
    BasicBlock sink("CsvSink", {{"path", file("out.csv")}, {"columns", {"a"}}});
    std::string expected = "a\n";
    int failures = 0;
    {
        const FileSizeLimit limit(70000);
        for (int i = 0; i < 10000 && failures == 0; ++i) {
            sink.feed("a", -1.2345678901234567e+300);
            expected += "-1.2345678901234567e+300\n";
            try {
                sink.step();
            } catch (const std::system_error&) {
                ++failures;
            }
        }
    }
    EXPECT_EQ(failures, 1);

    sink.stop();

    EXPECT_EQ(read_file(file("out.csv")), expected);
}

TEST_F(CsvTest, SinkTakesBackEvenOneByteOfARow)
{
    BasicBlock sink("CsvSink", {{"path", file("out.csv")}, {"columns", {"a"}}, {"append", true}});
    sink.feed("a", 1.0);
    {
        const FileSizeLimit limit(3);
        expect_throw<std::system_error>([&] { sink.step(); },
                                        file("out.csv") + ": cannot be written: File too large");
    }
    EXPECT_EQ(read_file(file("out.csv")), "a\n");

    sink.stop();

    EXPECT_EQ(read_file(file("out.csv")), "a\n1\n");
}

TEST_F(CsvTest, SinkNamesAFileThatCannotBeReplaced)
{
    BasicBlock sink("CsvSink", {{"path", file("out.csv")}, {"columns", {"a"}}});
    std::filesystem::create_directory(file("out.csv"));

    expect_throw<std::system_error>([&] { sink.stop(); },
                                    file("out.csv") + ": cannot be written: Is a directory");
}

TEST_F(CsvTest, SinkRefusesAColumnThatIsThereTwice)
{
    expect_throw<std::runtime_error>(
        [this] {
            BasicBlock("CsvSink", {{"path", file("out.csv")}, {"columns", {"a", "a"}}});
        },
        "Failed to add inport 'a', probably duplicate.");
}

}  // namespace
