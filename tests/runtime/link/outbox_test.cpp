#include "link/outbox.h"

#include <quorval/runtime/crash.h>
#include <quorval/runtime/tools.h>
#include "runtime/support/graph_files.h"
#include "support/support.h"

#include <gtest/gtest.h>

#include <csignal>

using Quorval::Datatype;
using Quorval::InitTools;
using Quorval::OutPort;
using Quorval::runtime::Exit;
using Quorval::runtime::Outbox;
using Quorval::runtime::PluginSet;
using quorval_test::LogRecorder;

using Lines = std::vector<std::string>;
using Numbers = std::vector<std::uint64_t>;

namespace {

constexpr Outbox::Time kNow{1};

class OutboxTest : public testing::Test {
protected:
    Outbox make(bool keeps_all)
    {
        return {Exit{0, "out", &output_, keeps_all}, "mic", plugins_, 2, 20};
    }

    void take(Outbox& outbox, const std::string& value)
    {
        output_.write(value);
        outbox.take(kNow);
    }

    static Numbers send_all(Outbox& outbox)
    {
        Numbers numbers;
        for (; outbox.size() > 0; outbox.hand_on()) {
            numbers.push_back(outbox.next().number);
        }
        return numbers;
    }

    LogRecorder recorder_;
    InitTools tools_;
    PluginSet plugins_{{}, tools_};
    OutPort<std::string> output_{"out", Datatype("string")};
};

TEST_F(OutboxTest, TakesNothingFromAnOutputThatNeverHadAValue)
{
    Outbox outbox = make(true);

    outbox.take(kNow);

    EXPECT_EQ(outbox.size(), 0U);
    EXPECT_EQ(recorder_.texts(), Lines());
}

/// What the codec of the plug-in takes for a value of its own.
struct Number {
    int value;
};

TEST_F(OutboxTest, SaysThatAValueCannotBeEncoded)
{
    PluginSet plugins({quorval_test::test_plugin_directory()}, tools_);
    ASSERT_EQ(plugins.get("recorded").problem, "");
    recorder_.clear();
    OutPort<Number> output("out", Datatype("fussy"));
    Outbox outbox(Exit{0, "out", &output, true}, "mic", plugins, 2, 20);

    for (const int value : {1, 2, 0}) {
        output.write({value});
        outbox.take(kNow);
    }

    EXPECT_EQ(send_all(outbox), (Numbers{1, 3}));
    EXPECT_EQ(recorder_.texts(),
              (Lines{"1 values of mic.out are lost: a value cannot be encoded: too much"}));
    EXPECT_EQ(outbox.statistics().lost, 1U);
}

using OutboxDeathTest = OutboxTest;

TEST_F(OutboxDeathTest, NamesTheBlockWhoseValueCrashesItsCodec)
{
    PluginSet plugins({quorval_test::test_plugin_directory()}, tools_);
    ASSERT_EQ(plugins.get("recorded").problem, "");
    OutPort<Number> output("out", Datatype("fussy"));
    Outbox outbox(Exit{0, "out", &output, true}, "mic", plugins, 2, 20);
    output.write({-1});

    EXPECT_EXIT((Quorval::report_crashes(), outbox.take(kNow)), testing::KilledBySignal(SIGSEGV),
                "^quorval: fatal: block 'mic' crashed in send: signal 11 \\(SIGSEGV\\)\n");
}

TEST_F(OutboxTest, KeepsValuesInTheirOrder)
{
    Outbox outbox = make(true);

    take(outbox, "a");
    take(outbox, "b");

    EXPECT_EQ(outbox.type(), "string");
    EXPECT_EQ(send_all(outbox), (Numbers{1, 2}));
    EXPECT_EQ(recorder_.texts(), Lines());
}

TEST_F(OutboxTest, LosesTheOldestWhereTheQueueIsFull)
{
    Outbox outbox = make(true);

    for (const char* value : {"a", "b", "c"}) {
        take(outbox, value);
    }

    EXPECT_EQ(send_all(outbox), (Numbers{2, 3}));
    EXPECT_EQ(recorder_.texts(),
              (Lines{"1 values of mic.out are lost: the queue of 2 values is full"}));
    EXPECT_EQ(outbox.statistics().lost, 1U);
}

TEST_F(OutboxTest, SendsTheLatestAgain)
{
    Outbox outbox = make(false);
    outbox.repeat_latest();
    EXPECT_EQ(outbox.size(), 0U);
    take(outbox, "a");
    take(outbox, "b");

    EXPECT_EQ(send_all(outbox), Numbers{2});
    outbox.repeat_latest();

    EXPECT_EQ(send_all(outbox), Numbers{2});
    EXPECT_EQ(recorder_.texts(), Lines());
}

TEST_F(OutboxTest, SendsTheFirstAgainAndNothingElse)
{
    Outbox latest = make(false);
    take(latest, "a");
    send_all(latest);
    latest.repeat_latest();
    EXPECT_EQ(send_all(latest), Numbers{1});
    latest.repeat_latest();
    latest.repeat_latest();
    EXPECT_EQ(latest.size(), 1U);

    Outbox all = make(true);
    take(all, "a");
    send_all(all);
    all.repeat_latest();
    EXPECT_EQ(all.size(), 0U);
}

TEST_F(OutboxTest, DoesNotSendAValueAgainThatCouldNotBeSentAgain)
{
    Outbox outbox = make(false);
    take(outbox, "a");
    send_all(outbox);
    outbox.repeat_latest();
    outbox.lose_next("why", kNow);

    outbox.repeat_latest();

    EXPECT_EQ(outbox.size(), 0U);
}

TEST_F(OutboxTest, HasStatistics)
{
    Outbox outbox = make(true);
    EXPECT_EQ(outbox.name(), "mic.out");
    EXPECT_EQ(outbox.statistics().output, "mic.out");
    EXPECT_FALSE(outbox.statistics().comes_in);
    EXPECT_EQ(outbox.statistics().longest_queue, 0U);
    EXPECT_EQ(outbox.statistics().values, 0U);
    EXPECT_EQ(outbox.statistics().bytes, 0U);

    take(outbox, "a");
    take(outbox, "b");
    send_all(outbox);
    take(outbox, "c");

    EXPECT_EQ(outbox.statistics().longest_queue, 2U);
    EXPECT_EQ(outbox.statistics().values, 2U);
    EXPECT_EQ(outbox.statistics().bytes, 20U);
}

TEST_F(OutboxTest, SaysNothingOfALatestValueThatWasNotSent)
{
    Outbox outbox = make(false);
    take(outbox, "a");

    outbox.drop_rest(kNow);

    EXPECT_EQ(outbox.size(), 0U);
    EXPECT_EQ(recorder_.texts(), Lines());
}

TEST_F(OutboxTest, TellsOfTheRestAtTheEnd)
{
    Outbox outbox = make(true);
    take(outbox, "a");
    take(outbox, "b");
    outbox.lose_next("why", kNow);
    outbox.lose_next("why", kNow);

    outbox.drop_rest(kNow);

    EXPECT_EQ(recorder_.texts(),
              (Lines{"1 values of mic.out are lost: why", "1 more values of mic.out are lost"}));
}

TEST_F(OutboxTest, TakesValuesUpToItsLimit)
{
    Outbox outbox = make(true);

    take(outbox, "20 bytes   ");

    EXPECT_EQ(outbox.size(), 1U);
}

TEST_F(OutboxTest, CountsAValueOnce)
{
    Outbox latest = make(false);
    take(latest, "a");
    send_all(latest);
    const std::uint64_t bytes = latest.statistics().bytes;

    latest.repeat_latest();
    send_all(latest);
    latest.repeat_latest();
    take(latest, "b");
    send_all(latest);

    EXPECT_EQ(latest.statistics().values, 2U);
    EXPECT_EQ(latest.statistics().bytes, 2 * bytes);
}

TEST_F(OutboxTest, CountsAValueAsLostOrAsHandedOn)
{
    Outbox all = make(true);
    take(all, "a");
    take(all, "b");

    const std::size_t bytes = all.next().bytes.size();
    all.hand_on();
    all.lose_next("why", kNow);
    EXPECT_EQ(all.statistics().values, 1U);
    all.take_back(bytes, "why", kNow);

    EXPECT_EQ(all.statistics().values, 0U);
    EXPECT_EQ(all.statistics().bytes, 0U);
    EXPECT_EQ(all.statistics().lost, 2U);
}

TEST_F(OutboxTest, DropsWhatIsTooLarge)
{
    Outbox outbox = make(true);

    take(outbox, "twenty bytes and more");

    EXPECT_EQ(outbox.size(), 0U);
    EXPECT_EQ(recorder_.texts(),
              (Lines{"1 values of mic.out are lost: 30 bytes are more than the limit of 20"}));
}

TEST_F(OutboxTest, TellsOfWhatWasNotSent)
{
    Outbox outbox = make(true);
    take(outbox, "a");

    outbox.drop_rest(kNow);

    EXPECT_EQ(recorder_.texts(),
              (Lines{"1 values of mic.out are lost: the graph stopped before they were sent"}));
}

}  // namespace
