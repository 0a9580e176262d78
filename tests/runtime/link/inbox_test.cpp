#include "link/inbox.h"

#include <quorval/runtime/crash.h>
#include <quorval/runtime/tools.h>
#include "plugins/codecs.h"
#include "runtime/support/graph_files.h"
#include "support/support.h"

#include <gtest/gtest.h>

#include <csignal>
#include <cstdint>
#include <memory>
#include <string>
#include <utility>
#include <vector>

using Quorval::Datatype;
using Quorval::InitTools;
using Quorval::runtime::Entry;
using Quorval::runtime::find_standard_codec;
using Quorval::runtime::Inbox;
using Quorval::runtime::PluginSet;
using Quorval::runtime::RemoteOutput;
using Quorval::runtime::Stamp;
using quorval_test::LogRecorder;

using Lines = std::vector<std::string>;

namespace {

constexpr Inbox::Time kNow{1};
constexpr std::uint64_t kStart = 77;

std::string encode(int value)
{
    std::string bytes;
    find_standard_codec("int32")->encode(&value, bytes);
    return bytes;
}

class InboxTest : public testing::Test {
protected:
    /// Takes in a value with a number.
    void receive(Inbox& inbox, std::uint64_t number, std::uint64_t start = kStart)
    {
        inbox.receive({"int32", start, number}, encode(static_cast<int>(number)), kNow);
    }

    Inbox make(bool keeps_all)
    {
        entry_.keeps_all = keeps_all;
        return {entry_, {Datatype("int32")}, plugins_, 8};
    }

    /// The values that the graph gets.
    std::vector<int> take_all(Inbox& inbox)
    {
        std::vector<int> values;
        while (inbox.size() > 0) {
            if (inbox.put_next(kNow)) {
                values.push_back(*static_cast<const int*>(entry_.output->get_data()));
            }
        }
        return values;
    }

    LogRecorder recorder_;
    InitTools tools_;
    PluginSet plugins_{{}, tools_};
    Entry entry_{"mic", "out", std::make_shared<RemoteOutput>("out", Datatype("int32")), false};
};

using Values = std::vector<int>;
using InboxDeathTest = InboxTest;

TEST_F(InboxDeathTest, NamesTheBlockWhoseValueCrashesItsCodec)
{
    PluginSet plugins({quorval_test::test_plugin_directory()}, tools_);
    ASSERT_EQ(plugins.get("recorded").problem, "");
    Entry entry{"mic", "out", std::make_shared<RemoteOutput>("out", Datatype("fussy")), true};
    Inbox inbox(entry, {Datatype("fussy")}, plugins, 8);
    inbox.receive({"fussy", kStart, 1}, encode(-1), kNow);

    EXPECT_EXIT((Quorval::report_crashes(), inbox.put_next(kNow)), testing::KilledBySignal(SIGSEGV),
                "^quorval: fatal: block 'mic' crashed in receive: signal 11 \\(SIGSEGV\\)\n");
}

TEST_F(InboxTest, KeepsAllValues)
{
    Inbox inbox = make(true);

    receive(inbox, 1);
    receive(inbox, 2);

    EXPECT_EQ(take_all(inbox), (Values{1, 2}));
    EXPECT_TRUE(entry_.output->is_triggered());
    EXPECT_EQ(recorder_.texts(), Lines());
}

TEST_F(InboxTest, KeepsTheLatestValue)
{
    Inbox inbox = make(false);

    receive(inbox, 1);
    receive(inbox, 5);

    EXPECT_EQ(take_all(inbox), (Values{5}));
    EXPECT_EQ(recorder_.texts(), Lines());
}

TEST_F(InboxTest, KeepsOnePlaceForValues)
{
    Inbox inbox = make(true);
    receive(inbox, 1);
    receive(inbox, 2);

    inbox.put_next(kNow);
    const void* place = entry_.output->get_data();
    inbox.put_next(kNow);

    EXPECT_EQ(entry_.output->get_data(), place);
}

TEST_F(InboxTest, DropsDuplicates)
{
    Inbox inbox = make(true);

    for (const int number : {1, 2, 1, 2, 3}) {
        receive(inbox, static_cast<std::uint64_t>(number));
    }

    EXPECT_EQ(take_all(inbox), (Values{1, 2, 3}));
    EXPECT_EQ(inbox.statistics().duplicates, 2U);
    EXPECT_EQ(recorder_.texts(), Lines());
}

TEST_F(InboxTest, TellsOfGaps)
{
    Inbox inbox = make(true);

    receive(inbox, 4);
    receive(inbox, 8);

    EXPECT_EQ(take_all(inbox), (Values{4, 8}));
    EXPECT_EQ(recorder_.texts(), (Lines{"3 values of mic.out are lost: they did not arrive"}));
    EXPECT_EQ(inbox.statistics().lost, 3U);
    EXPECT_EQ(inbox.statistics().gaps, 3U);
}

TEST_F(InboxTest, BelievesCountsUpToALimit)
{
    constexpr std::uint64_t kLimit = std::uint64_t{1} << 32U;
    for (const auto& [missing, lost] :
         {std::pair(kLimit - 1, kLimit - 1), std::pair(kLimit, std::uint64_t{0})}) {
        Inbox inbox = make(true);

        receive(inbox, 1);
        receive(inbox, 2 + missing);

        EXPECT_EQ(inbox.size(), 2U) << missing;
        EXPECT_EQ(inbox.statistics().lost, lost) << missing;
    }
}

TEST_F(InboxTest, TakesWhatIsFarBehindForANewBeginning)
{
    Inbox inbox = make(true);
    receive(inbox, 1'000'001);

    receive(inbox, 2);
    EXPECT_EQ(inbox.statistics().duplicates, 1U);
    receive(inbox, 1);
    receive(inbox, 2);

    EXPECT_EQ(inbox.size(), 3U);
    EXPECT_EQ(inbox.statistics().duplicates, 1U);
}

TEST_F(InboxTest, FollowsItsFirstSenderFromWhereverItStands)
{
    Inbox inbox = make(true);

    receive(inbox, 4, 1);

    EXPECT_EQ(inbox.statistics().lost, 0U);
    EXPECT_EQ(inbox.size(), 1U);
}

TEST_F(InboxTest, CountsValuesOfAnEarlierRunInARow)
{
    Inbox inbox = make(true);
    receive(inbox, 1);
    for (const std::uint64_t next : {2, 3}) {
        for (std::uint64_t number = 1; number < 100; ++number) {
            receive(inbox, number, kStart - 1);
        }
        receive(inbox, next);
    }

    EXPECT_EQ(take_all(inbox), (Values{1, 2, 3}));
}

TEST_F(InboxTest, HasStatistics)
{
    Inbox inbox = make(true);
    EXPECT_EQ(inbox.statistics().output, "mic.out");
    EXPECT_TRUE(inbox.statistics().comes_in);
    EXPECT_EQ(inbox.statistics().longest_queue, 0U);

    receive(inbox, 1);
    receive(inbox, 2);
    take_all(inbox);
    receive(inbox, 3);

    EXPECT_EQ(inbox.statistics().longest_queue, 2U);
    EXPECT_EQ(inbox.statistics().values, 2U);
    EXPECT_EQ(inbox.statistics().bytes, 2 * encode(1).size());
}

TEST_F(InboxTest, TakesValuesUpToItsLimit)
{
    entry_.keeps_all = true;
    Inbox inbox(entry_, {Datatype("int32")}, plugins_, encode(1).size());

    receive(inbox, 1);

    EXPECT_EQ(take_all(inbox), Values{1});
}

TEST_F(InboxTest, FollowsASenderThatStartsAgain)
{
    Inbox inbox = make(true);

    receive(inbox, 4);
    receive(inbox, 1, kStart + 1);
    receive(inbox, 2, kStart + 1);

    EXPECT_EQ(take_all(inbox), (Values{4, 1, 2}));
    EXPECT_EQ(recorder_.texts(), Lines());
}

TEST_F(InboxTest, IsNotResetByAnEarlierRun)
{
    Inbox inbox = make(true);

    receive(inbox, 4);
    receive(inbox, 9, kStart - 1);
    receive(inbox, 4);
    receive(inbox, 5);

    EXPECT_EQ(take_all(inbox), (Values{4, 5}));
    EXPECT_EQ(inbox.statistics().duplicates, 1U);
    EXPECT_EQ(recorder_.texts(),
              (Lines{"1 values of mic.out are lost: they are of an earlier run"}));
}

TEST_F(InboxTest, FollowsASenderWhoseClockWasSetBack)
{
    Inbox inbox = make(true);
    receive(inbox, 1, UINT64_MAX);

    for (std::uint64_t number = 1; number <= 101; ++number) {
        receive(inbox, number);
    }

    EXPECT_EQ(take_all(inbox), (Values{1, 100, 101}));
    EXPECT_EQ(inbox.statistics().lost, 99U);
}

TEST_F(InboxTest, BearsAbsurdNumbers)
{
    Inbox inbox = make(true);

    for (const std::uint64_t number :
         {std::uint64_t{1}, UINT64_MAX, std::uint64_t{2}, UINT64_MAX - 1, UINT64_MAX,
          std::uint64_t{3}, std::uint64_t{5}}) {
        receive(inbox, number);
    }

    EXPECT_EQ(take_all(inbox).size(), 7U);
    EXPECT_EQ(inbox.statistics().lost, 1U);
    EXPECT_EQ(inbox.statistics().gaps, 1U);
}

TEST_F(InboxTest, KnowsItsBytes)
{
    Inbox inbox = make(true);
    EXPECT_EQ(inbox.bytes(), 0U);

    receive(inbox, 1);
    receive(inbox, 2);
    EXPECT_EQ(inbox.bytes(), 2 * encode(1).size());
    inbox.put_next(kNow);
    EXPECT_EQ(inbox.bytes(), encode(1).size());
    inbox.drop_rest(kNow);

    EXPECT_EQ(inbox.bytes(), 0U);
}

TEST_F(InboxTest, DropsWhatIsNoValue)
{
    struct Case {
        const char* type;
        std::uint64_t start;
        std::uint64_t number;
        const char* bytes;
        const char* why;
    };
    const std::vector<Case> cases = {
        {"", 0, 0, "x", "a message has no type, start and number"},
        {"string", kStart, 1, "x", "type string does not fit int32"},
        {"no type", kStart, 1, "x", "a message has no valid type"},
        {"int32", kStart, 1, "123456789", "9 bytes are more than the limit of 8"},
        {"int32", kStart, 1, "\1x", "a value cannot be decoded: the value ends too early"},
    };
    for (const Case& one : cases) {
        recorder_.clear();
        Inbox inbox = make(true);

        inbox.receive({one.type, one.start, one.number}, one.bytes, kNow);

        EXPECT_EQ(take_all(inbox), Values()) << one.why;
        EXPECT_EQ(recorder_.texts(),
                  (Lines{"1 values of mic.out are lost: " + std::string(one.why)}));
        EXPECT_EQ(inbox.statistics().lost, 1U) << one.why;
    }
}

TEST_F(InboxTest, TellsOfValuesThatNobodyTook)
{
    Inbox inbox = make(true);
    receive(inbox, 1);

    inbox.drop_rest(kNow);

    EXPECT_EQ(inbox.size(), 0U);
    EXPECT_EQ(recorder_.texts(),
              (Lines{"1 values of mic.out are lost: the graph stopped before it took them"}));
}

TEST_F(InboxTest, TellsOnceASecondOfValuesThatNobodyTook)
{
    Inbox inbox = make(true);

    for (std::uint64_t number = 1; number <= 4; ++number) {
        receive(inbox, number);
        inbox.drop_rest(kNow);
    }
    const std::string first = "1 values of mic.out are lost: the graph stopped before it took them";
    EXPECT_EQ(recorder_.texts(), (Lines{first}));
    inbox.tell_rest();

    EXPECT_EQ(recorder_.texts(), (Lines{first, "3 more values of mic.out are lost"}));
}

}  // namespace
