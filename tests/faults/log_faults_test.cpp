#include <quorval/log.h>
#include "faults/faults.h"

#include <csignal>
#include <memory>
#include <string>

namespace {

using namespace quorval_test;

/// A sink that keeps the last message without an allocation.
class LastMessage : public Quorval::LogInstance {
public:
    void emit(loglevel /*level*/, const char* text, int /*length*/) override
    {
        has_text = text[0] != '\0';
    }

    bool has_text = false;
};

TEST(LogOutOfMemory, IsNotMadeWhenTheSinkCannotBeAllocated)
{
    EXPECT_EQ(fail_each_allocation([] { const auto sink = std::make_unique<LastMessage>(); }), 2U);
}

TEST(LogOutOfMemory, TakesNothingFromOperatorNewForAFormattedMessage)
{
    const LogRecorder recorder(LOGLEVEL_ERROR);

    EXPECT_EQ(fail_each_allocation([] { logger(LOGLEVEL_INFO, "%s and %d", "a text", 5); }), 0U);
}

TEST(LogOutOfMemory, LosesAMessageThatTheSinkHasNoMemoryFor)
{
    LogRecorder recorder;
    logger(LOGLEVEL_INFO, "%s", "the first one, for which the recorder makes its list");
    recorder.clear();

    const std::size_t failures = run_with_each_failure([&](std::size_t nth, Mode mode) {
        const Outcome outcome = try_without_memory(
            nth, mode, [] { logger(LOGLEVEL_INFO, "%s", "a text that the sink has to keep"); });

        EXPECT_FALSE(outcome.threw);
        EXPECT_EQ(recorder.texts().empty(), outcome.has_failed);
        recorder.clear();
        return outcome.has_failed;
    });

    EXPECT_GT(failures, 0U);
}

TEST(LogOutOfMemory, CutsAMessageOrEndsTheProcess)
{
    const auto act = [] {
        Quorval::ilog(LOGLEVEL_INFO) << "a message that is too long to be kept in place " << 5;
    };

    const Endings once = fail_each_allocation_in_child(Mode::Once, act);
    const Endings from_then_on = fail_each_allocation_in_child(Mode::FromThenOn, act);

    // The finished text is copied once, and nothing but that ends the process.
    EXPECT_EQ(once.terminated, 1U);
    EXPECT_GT(once.ran_out, 0U);
    EXPECT_EQ(from_then_on.terminated, 1U);
}

TEST(LogOutOfMemoryDeathTest, EndsTheProcessWhenAFinishedMessageCannotBeCopied)
{
    EXPECT_EXIT(
        {
            Quorval::ilog message(LOGLEVEL_INFO);
            message << "a message that is too long to be kept in place";
            const FailingAllocation failing(1, Mode::Once);
            message.~ilog();
        },
        testing::KilledBySignal(SIGABRT), "terminate called");
}

}  // namespace
