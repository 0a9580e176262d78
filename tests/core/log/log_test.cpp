#include "quorval/log.h"

#include "cancelling_sink.h"
#include "support/support.h"

#include <gtest/gtest.h>

#include <climits>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cwchar>
#include <memory>
#include <stdexcept>
#include <string>
#include <type_traits>
#include <typeinfo>
#include <utility>
#include <vector>

namespace {

using Quorval::loginstance;
using Quorval::LogInstance;
using quorval_test::expect_throw;
using quorval_test::LogLine;
using quorval_test::LogRecorder;
using quorval_test::run_cancelled;
using Lines = std::vector<LogLine>;

static_assert(std::is_same_v<std::underlying_type_t<loglevel>, int>);
static_assert(std::is_convertible_v<loglevel, int>, "an enum without a scope");
static_assert(LOGLEVEL_FATAL == 0 && LOGLEVEL_CRITICAL == 1 && LOGLEVEL_ERROR == 2);
static_assert(LOGLEVEL_WARNING == 3 && LOGLEVEL_INFO == 4 && LOGLEVEL_DEBUG == 5);
static_assert(std::has_virtual_destructor_v<LogInstance>);
static_assert(!std::is_abstract_v<LogInstance>);
static_assert(std::is_default_constructible_v<LogInstance>);
static_assert(!std::is_convertible_v<loglevel, LogInstance>, "the constructor is explicit");
static_assert(std::is_same_v<decltype(loginstance), std::unique_ptr<LogInstance>>);

constexpr loglevel kAllLevels[] = {LOGLEVEL_FATAL,   LOGLEVEL_CRITICAL, LOGLEVEL_ERROR,
                                   LOGLEVEL_WARNING, LOGLEVEL_INFO,     LOGLEVEL_DEBUG};

/// Installs a sink for a test and puts the one before back.
class ScopedSink {
public:
    explicit ScopedSink(std::unique_ptr<LogInstance> sink)
        : before_(std::exchange(loginstance, std::move(sink)))
    {
    }
    ScopedSink(const ScopedSink&) = delete;
    ScopedSink& operator=(const ScopedSink&) = delete;
    ~ScopedSink() { loginstance = std::move(before_); }

private:
    std::unique_ptr<LogInstance> before_;
};

class Throwing : public LogInstance {
public:
    void emit(loglevel /*level*/, const char* text, int /*length*/) override
    {
        throw std::runtime_error(text);
    }
};

class Told : public LogInstance {
public:
    explicit Told(bool& is_gone) : is_gone_(is_gone) {}
    ~Told() override { is_gone_ = true; }

private:
    bool& is_gone_;
};

class Recording : public LogInstance {
public:
    using LogInstance::LogInstance;

    void emit(loglevel level, const char* text, int length) override
    {
        lines.push_back({level, text, length});
    }

    Lines lines;
};

void vlog(LogInstance& sink, loglevel level, const char* format, ...)
    __attribute__((format(printf, 3, 4)));

void vlog(LogInstance& sink, loglevel level, const char* format, ...)
{
    va_list args;
    va_start(args, format);
    try {
        sink.vlog(level, format, args);
    } catch (...) {
        va_end(args);
        throw;
    }
    va_end(args);
}

/// The levels that reach a sink with that threshold.
std::vector<int> levels_at(loglevel threshold)
{
    const LogRecorder log(threshold);
    for (const loglevel level : kAllLevels) {
        logger(level, "x");
    }
    std::vector<int> levels;
    for (const LogLine& line : log.lines()) {
        levels.push_back(line.level);
    }
    return levels;
}

TEST(Logger, HandsLevelTextAndLengthToTheSink)
{
    const LogRecorder log;

    logger(LOGLEVEL_WARNING, "%s is %d, %.2f%%", "x", -7, 1.5);

    EXPECT_EQ(log.lines(), (Lines{{LOGLEVEL_WARNING, "x is -7, 1.50%", 14}}));
}

TEST(Logger, FormatsAnEmptyMessage)
{
    const LogRecorder log;

    logger(LOGLEVEL_INFO, "%s", "");

    EXPECT_EQ(log.lines(), (Lines{{LOGLEVEL_INFO, "", 0}}));
}

TEST(Logger, FormatsALongMessageWhole)
{
    const LogRecorder log;
    const std::string text(200000, 'x');

    logger(LOGLEVEL_INFO, "%s", text.c_str());

    EXPECT_EQ(log.lines(), (Lines{{LOGLEVEL_INFO, text, 200000}}));
}

TEST(Logger, CountsTheBytesOfTheFormattedText)
{
    const LogRecorder log;

    logger(LOGLEVEL_INFO, "%s\n", "\xc3\xa4");

    EXPECT_EQ(log.lines(), (Lines{{LOGLEVEL_INFO, "\xc3\xa4\n", 3}}));
}

TEST(Logger, CountsAZeroInTheMiddle)
{
    const LogRecorder log;

    logger(LOGLEVEL_INFO, "a%cb", '\0');

    EXPECT_EQ(log.lines(), (Lines{{LOGLEVEL_INFO, "a", 3}}));
}

TEST(Logger, LosesAMessageThatCannotBeFormatted)
{
    const LogRecorder log;

    logger(LOGLEVEL_FATAL, "%lc", static_cast<std::wint_t>(0x7fffffff));

    EXPECT_EQ(log.lines(), Lines{});
}

TEST(Logger, SwallowsWhatTheSinkThrows)
{
    const ScopedSink sink(std::make_unique<Throwing>());

    EXPECT_NO_THROW(logger(LOGLEVEL_FATAL, "%s", std::string(1000, 'x').c_str()));
}

class ThrowingANumber : public LogInstance {
public:
    void emit(loglevel level, const char* /*text*/, int /*length*/) override
    {
        throw static_cast<int>(level);
    }
};

TEST(Logger, SwallowsWhatIsNoExceptionOfTheStandard)
{
    const ScopedSink restore(std::make_unique<ThrowingANumber>());

    EXPECT_NO_THROW(logger(LOGLEVEL_ERROR, "x"));
}

TEST(Logger, LetsTheCancellationOfItsThreadPass)
{
    bool went_on = false;

    const auto [is_cancelled, counts] = run_cancelled([&went_on] {
        logger(LOGLEVEL_ERROR, "x");
        went_on = true;
    });

    EXPECT_TRUE(is_cancelled);
    EXPECT_EQ(counts.begun, 1);
    EXPECT_EQ(counts.ended, 0);
    EXPECT_FALSE(went_on);
}

TEST(Logger, HasCLinkage)
{
    void (*const function)(loglevel, const char*, ...) = &::logger;

    EXPECT_NE(function, nullptr);
}

TEST(LogThreshold, LetsItsOwnLevelAndTheMoreSevereOnesPass)
{
    EXPECT_EQ(levels_at(LOGLEVEL_FATAL), (std::vector<int>{0}));
    EXPECT_EQ(levels_at(LOGLEVEL_CRITICAL), (std::vector<int>{0, 1}));
    EXPECT_EQ(levels_at(LOGLEVEL_ERROR), (std::vector<int>{0, 1, 2}));
    EXPECT_EQ(levels_at(LOGLEVEL_WARNING), (std::vector<int>{0, 1, 2, 3}));
    EXPECT_EQ(levels_at(LOGLEVEL_INFO), (std::vector<int>{0, 1, 2, 3, 4}));
    EXPECT_EQ(levels_at(LOGLEVEL_DEBUG), (std::vector<int>{0, 1, 2, 3, 4, 5}));
}

TEST(LogThreshold, IsInfoByDefault)
{
    Recording sink;

    for (const loglevel level : kAllLevels) {
        sink.output(level, "x", 1);
    }

    ASSERT_EQ(sink.lines.size(), 5U);
    EXPECT_EQ(sink.lines.back().level, LOGLEVEL_INFO);
}

TEST(LogThreshold, ComparesLevelsWithTheirSign)
{
    Recording sink(static_cast<loglevel>(-2));

    sink.output(static_cast<loglevel>(-3), "below", 5);
    sink.output(static_cast<loglevel>(-2), "equal", 5);
    sink.output(static_cast<loglevel>(-1), "above", 5);
    sink.output(LOGLEVEL_FATAL, "above", 5);
    sink.output(static_cast<loglevel>(INT_MAX), "above", 5);
    sink.output(static_cast<loglevel>(INT_MIN), "below", 5);

    ASSERT_EQ(sink.lines.size(), 3U);
    EXPECT_EQ(sink.lines[0].text, "below");
    EXPECT_EQ(sink.lines[1].text, "equal");
    EXPECT_EQ(sink.lines[2].text, "below");
}

TEST(LogInstanceOutput, PassesTextAndLengthOnAsTheyAre)
{
    Recording sink;

    sink.output(LOGLEVEL_ERROR, "100% of %s", 3);

    EXPECT_EQ(sink.lines, (Lines{{LOGLEVEL_ERROR, "100% of %s", 3}}));
}

TEST(LogInstanceOutput, LetsWhatEmitThrowsPass)
{
    Throwing sink;

    expect_throw<std::runtime_error>([&] { sink.output(LOGLEVEL_ERROR, "x", 1); }, "x");
    EXPECT_NO_THROW(sink.output(LOGLEVEL_DEBUG, "x", 1));
}

TEST(LogInstanceVlog, FormatsAndPassesOn)
{
    Recording sink;

    vlog(sink, LOGLEVEL_ERROR, "%05d", 42);
    vlog(sink, LOGLEVEL_DEBUG, "%05d", 43);

    EXPECT_EQ(sink.lines, (Lines{{LOGLEVEL_ERROR, "00042", 5}}));
}

TEST(LogInstanceVlog, FreesTheTextWhenEmitThrows)
{
    Throwing sink;
    const std::string text(1000, 'x');

    // The check for leaks looks at the rest.
    expect_throw<std::runtime_error>([&] { vlog(sink, LOGLEVEL_ERROR, "%s", text.c_str()); }, text);
}

TEST(LogInstanceVlog, EmitsNothingThatCannotBeFormatted)
{
    Recording sink;

    vlog(sink, LOGLEVEL_FATAL, "%lc", static_cast<std::wint_t>(0x7fffffff));

    EXPECT_EQ(sink.lines, Lines{});
}

TEST(LogSink, DropsEverythingByDefault)
{
    ASSERT_NE(loginstance, nullptr);
    LogInstance& sink = *loginstance;
    EXPECT_EQ(typeid(sink), typeid(LogInstance));
    ::testing::internal::CaptureStdout();
    ::testing::internal::CaptureStderr();

    for (const loglevel level : kAllLevels) {
        logger(level, "x");
    }
    Quorval::ilog(LOGLEVEL_FATAL) << "x" << std::endl;

    EXPECT_EQ(::testing::internal::GetCapturedStdout(), "");
    EXPECT_EQ(::testing::internal::GetCapturedStderr(), "");
}

TEST(LogSink, IsReplacedForTheWholeProcess)
{
    const LogRecorder first;
    logger(LOGLEVEL_INFO, "one");
    {
        const LogRecorder second;

        logger(LOGLEVEL_INFO, "two");

        EXPECT_EQ(second.texts(), std::vector<std::string>{"two"});
    }
    logger(LOGLEVEL_INFO, "three");

    EXPECT_EQ(first.texts(), (std::vector<std::string>{"one", "three"}));
}

TEST(LogSink, IsDestroyedWhenItIsReplaced)
{
    bool is_gone = false;
    const ScopedSink restore(std::make_unique<Told>(is_gone));
    logger(LOGLEVEL_INFO, "x");
    ASSERT_FALSE(is_gone);

    loginstance = std::make_unique<LogInstance>();

    EXPECT_TRUE(is_gone);
}

TEST(LogSink, IsDestroyedWhenTheProcessExits)
{
    class Last : public LogInstance {
    public:
        ~Last() override { std::fputs("the sink is gone\n", stderr); }
    };
    ::testing::FLAGS_gtest_death_test_style = "threadsafe";

    EXPECT_EXIT(
        {
            loginstance = std::make_unique<Last>();
            std::exit(0);
        },
        ::testing::ExitedWithCode(0), "the sink is gone");
}

}  // namespace
