#include <quorval/log.h>
#include "cancelling_sink.h"
#include "support/support.h"

#include <gtest/gtest.h>

#include <pthread.h>

#include <complex>
#include <cstdint>
#include <cstdlib>
#include <iomanip>
#include <ios>
#include <memory>
#include <ostream>
#include <sstream>
#include <stdexcept>
#include <string>
#include <string_view>
#include <system_error>
#include <type_traits>
#include <vector>

namespace user {

struct Point {
    int x;
    int y;
};

std::ostream& operator<<(std::ostream& out, const Point& point)
{
    return out << "(" << point.x << "|" << point.y << ")";
}

/// A value whose output changes it.
struct Counter {
    int number = 0;
};

std::ostream& operator<<(std::ostream& out, Counter& counter)
{
    return out << ++counter.number;
}

/// A value that is neither copied nor moved.
struct Fixed {
    Fixed() = default;
    Fixed(const Fixed&) = delete;
    Fixed& operator=(const Fixed&) = delete;
};

std::ostream& operator<<(std::ostream& out, const Fixed& /*fixed*/)
{
    return out << "fixed";
}

enum class Colour { Red, Green };

std::ostream& operator<<(std::ostream& out, Colour colour)
{
    return out << (colour == Colour::Red ? "red" : "green");
}

enum Plain { kFirst = 1, kSecond = 2 };

struct ConvertsToInt {
    operator int() const { return 17; }
};

std::ostream& brackets(std::ostream& out)
{
    return out << "[]";
}

}  // namespace user

namespace {

using Quorval::ilog;
using quorval_test::LogLine;
using quorval_test::LogRecorder;
using quorval_test::run_cancelled;
using Lines = std::vector<LogLine>;

static_assert(std::is_base_of_v<std::ostringstream, ilog>);
static_assert(!std::is_convertible_v<ilog*, std::ostream*>, "the stream is not for callers");
static_assert(std::has_virtual_destructor_v<ilog>);
static_assert(std::is_nothrow_destructible_v<ilog>);
static_assert(!std::is_copy_constructible_v<ilog> && !std::is_move_constructible_v<ilog>);
static_assert(!std::is_convertible_v<loglevel, ilog>, "the constructor is explicit");

struct Flags {
    unsigned low : 3;
    unsigned high : 5;
    bool is_set : 1;
    std::int64_t wide : 40;
};

struct Limits {
    static const int kUndefined = 12;
    static constexpr double kRatio = 0.5;
};

/// What a message with one value says, and what a stream says of it.
template <class Write>
void expect_as_stream(Write write)
{
    const LogRecorder log;
    std::ostringstream stream;

    write(ilog(LOGLEVEL_INFO));
    write(stream);

    const std::string text = stream.str();
    EXPECT_EQ(log.lines(), (Lines{{LOGLEVEL_INFO, text, static_cast<int>(text.size())}}));
}

TEST(Ilog, LogsItsTextWhenItIsDestroyed)
{
    const LogRecorder log;
    {
        ilog message(LOGLEVEL_ERROR);
        message << "x" << 1;
        message << ' ';
        EXPECT_EQ(log.lines(), Lines{});
    }
    EXPECT_EQ(log.lines(), (Lines{{LOGLEVEL_ERROR, "x1 ", 3}}));
}

TEST(Ilog, LogsTheWholeStatementOfATemporary)
{
    const LogRecorder log;

    ilog(LOGLEVEL_INFO) << "rate " << 8000 << " Hz, " << 1.5 << std::endl;

    EXPECT_EQ(log.lines(), (Lines{{LOGLEVEL_INFO, "rate 8000 Hz, 1.5\n", 18}}));
}

TEST(Ilog, LogsAnEmptyMessage)
{
    const LogRecorder log;

    {
        const ilog message(LOGLEVEL_INFO);
    }

    EXPECT_EQ(log.lines(), (Lines{{LOGLEVEL_INFO, "", 0}}));
}

TEST(Ilog, NeverTakesItsTextForAFormat)
{
    const LogRecorder log;

    ilog(LOGLEVEL_INFO) << "100% %s %n %d %% %";

    EXPECT_EQ(log.lines(), (Lines{{LOGLEVEL_INFO, "100% %s %n %d %% %", 18}}));
}

TEST(Ilog, EndsItsTextAtAZero)
{
    const LogRecorder log;

    ilog(LOGLEVEL_INFO) << "ab" << '\0' << "cd";

    EXPECT_EQ(log.lines(), (Lines{{LOGLEVEL_INFO, "ab", 2}}));
}

TEST(Ilog, LogsALongText)
{
    const LogRecorder log;
    const std::string text(100000, 'x');

    ilog(LOGLEVEL_INFO) << text;

    EXPECT_EQ(log.lines(), (Lines{{LOGLEVEL_INFO, text, 100000}}));
}

TEST(Ilog, ObeysTheThresholdOfTheSink)
{
    const LogRecorder log(LOGLEVEL_WARNING);

    ilog(LOGLEVEL_WARNING) << "shown";
    ilog(LOGLEVEL_INFO) << "dropped";

    EXPECT_EQ(log.texts(), std::vector<std::string>{"shown"});
}

TEST(Ilog, LogsDuringTheUnwindingOfAnException)
{
    const LogRecorder log;

    try {
        ilog message(LOGLEVEL_INFO);
        message << "on the way";
        throw std::runtime_error("x");
    } catch (const std::runtime_error&) {
    }

    EXPECT_EQ(log.texts(), std::vector<std::string>{"on the way"});
}

TEST(Ilog, CanBeDestroyedThroughItsBase)
{
    const LogRecorder log;
    auto message = std::make_unique<ilog>(LOGLEVEL_INFO);
    *message << "x";

    message.reset();

    EXPECT_EQ(log.texts(), std::vector<std::string>{"x"});
}

TEST(IlogInsertion, TakesScalarsAsAStreamDoes)
{
    int number = 5;
    volatile int changing = 6;
    expect_as_stream([](auto&& out) { out << true << 'c' << static_cast<signed char>('d'); });
    expect_as_stream([](auto&& out) { out << static_cast<short>(-3) << 4U << 5L << 6UL << 7LL; });
    expect_as_stream([](auto&& out) { out << 0.1F << ' ' << 1e300 << ' ' << 2.5L; });
    expect_as_stream([](auto&& out) { out << user::kSecond << nullptr; });
    expect_as_stream([&](auto&& out) { out << &number << ' ' << static_cast<void*>(&number); });
    expect_as_stream([&](auto&& out) { out << number << changing; });
    expect_as_stream([](auto&& out) { out << user::Colour::Green; });
}

TEST(IlogInsertion, TakesTextsAsAStreamDoes)
{
    char buffer[] = "buffer";
    const char* pointer = "pointer";
    const unsigned char bytes[] = {'b', 'y', '\0'};
    expect_as_stream([&](auto&& out) { out << "literal" << buffer << pointer << bytes; });
    expect_as_stream([](auto&& out) { out << std::string("s") << std::string_view("view"); });
    expect_as_stream([](auto&& out) { out << std::quoted("a \"b\""); });
}

TEST(IlogInsertion, TakesClassesAsAStreamDoes)
{
    const user::Fixed fixed;
    const std::vector<bool> flags = {true, false};
    std::vector<bool> changing = {true, false};
    expect_as_stream([](auto&& out) { out << user::Point{1, 2}; });
    expect_as_stream([&](auto&& out) { out << fixed; });
    expect_as_stream([&](auto&& out) { out << flags[0] << changing[1]; });
    expect_as_stream([](auto&& out) { out << std::complex<double>(1, 2); });
    expect_as_stream([](auto&& out) { out << std::error_code(2, std::generic_category()); });
    expect_as_stream([](auto&& out) { out << user::ConvertsToInt(); });
}

TEST(IlogInsertion, TakesObjectsThatTheirOutputChanges)
{
    const LogRecorder log;
    user::Counter counter;

    ilog(LOGLEVEL_INFO) << counter << counter;

    EXPECT_EQ(log.texts(), std::vector<std::string>{"12"});
    EXPECT_EQ(counter.number, 2);
}

TEST(IlogInsertion, TakesManipulatorsAsAStreamDoes)
{
    expect_as_stream([](auto&& out) { out << std::hex << std::showbase << 255 << std::dec << 9; });
    expect_as_stream([](auto&& out) { out << std::setw(6) << std::setfill('0') << 42; });
    expect_as_stream([](auto&& out) { out << std::left << std::setw(6) << 42 << '|'; });
    expect_as_stream([](auto&& out) { out << std::setprecision(3) << std::fixed << 1.0 / 3; });
    expect_as_stream([](auto&& out) { out << std::boolalpha << true << std::noboolalpha << true; });
    expect_as_stream([](auto&& out) { out << std::setbase(8) << 8; });
    expect_as_stream([](auto&& out) { out << "a" << std::flush << "b" << std::endl; });
    expect_as_stream([](auto&& out) { out << std::endl; });
    expect_as_stream([](auto&& out) { out << user::brackets << std::uppercase << std::hex << 10; });
    expect_as_stream([](auto&& out) { out << std::resetiosflags(std::ios::basefield) << 10; });
}

TEST(IlogInsertion, TakesTheContentOfABuffer)
{
    const LogRecorder log;
    std::stringbuf buffer("from a buffer");

    ilog(LOGLEVEL_INFO) << &buffer;

    EXPECT_EQ(log.texts(), std::vector<std::string>{"from a buffer"});
}

TEST(IlogInsertion, TakesBitFields)
{
    Flags flags{5, 17, true, -3};
    const Flags fixed = flags;
    expect_as_stream([&](auto&& out) { out << flags.low << ' ' << flags.high << flags.is_set; });
    expect_as_stream([&](auto&& out) { out << flags.wide << ' ' << fixed.low; });
}

TEST(IlogInsertion, TakesConstantsWithoutADefinition)
{
    const LogRecorder log;

    ilog(LOGLEVEL_INFO) << Limits::kUndefined << ' ' << Limits::kRatio;

    EXPECT_EQ(log.texts(), std::vector<std::string>{"12 0.5"});
}

TEST(IlogInsertion, GivesTheMessageBack)
{
    ilog message(LOGLEVEL_DEBUG);

    static_assert(std::is_same_v<decltype(message << 1), ilog&>);
    static_assert(std::is_same_v<decltype(message << std::string()), ilog&>);
    static_assert(std::is_same_v<decltype(message << std::endl), ilog&>);
    static_assert(std::is_same_v<decltype(ilog(LOGLEVEL_INFO) << "x"), ilog&>);
    EXPECT_EQ(&(message << 1 << std::string("x") << std::endl << std::hex), &message);
}

class Throwing : public Quorval::LogInstance {
public:
    void emit(loglevel /*level*/, const char* /*text*/, int /*length*/) override
    {
        throw std::runtime_error("the sink is full");
    }
};

TEST(Ilog, LogsToTheEndWhenItsThreadIsCancelled)
{
    bool went_on = false;
    bool is_late = false;

    const auto [is_cancelled, counts] = run_cancelled([&] {
        ilog(LOGLEVEL_ERROR) << "x";
        went_on = true;
        quorval_test::end_if_cancelled();
        is_late = true;
    });

    EXPECT_TRUE(is_cancelled);
    EXPECT_EQ(counts.begun, 1);
    EXPECT_EQ(counts.ended, 1);
    EXPECT_TRUE(went_on);
    EXPECT_FALSE(is_late);
}

TEST(Ilog, LeavesAThreadThatHoldsItsCancellationBackAsItIs)
{
    int state = PTHREAD_CANCEL_ENABLE;

    const auto [is_cancelled, counts] = run_cancelled([&state] {
        ::pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr);
        ilog(LOGLEVEL_ERROR) << "x";
        ::pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &state);
    });

    EXPECT_FALSE(is_cancelled);
    EXPECT_EQ(counts.ended, 1);
    EXPECT_EQ(state, PTHREAD_CANCEL_DISABLE);
}

TEST(IlogDeathTest, EndsTheProcessWhenTheSinkThrows)
{
    ::testing::FLAGS_gtest_death_test_style = "threadsafe";

    EXPECT_DEATH(
        {
            Quorval::loginstance = std::make_unique<Throwing>();
            try {
                ilog(LOGLEVEL_INFO) << "x";
            } catch (...) {
                std::_Exit(0);
            }
        },
        "the sink is full");
}

}  // namespace
