#include "messages/turn.h"

#include "support/support.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <stdexcept>
#include <utility>
#include <vector>

using namespace Quorval;
using namespace Quorval::runtime;
using quorval_test::LogRecorder;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

namespace {

TEST(Turn, OfADeedIsNowWhereNothingElseIsSaid)
{
    int count = 0;

    do_in_turn([&] { ++count; });

    EXPECT_EQ(count, 1);
}

TEST(Turn, OfDeedsComesWhenTheyAreDone)
{
    std::vector<int> done;
    Deeds first;
    Deeds second;

    {
        const TurnScope scope(second);
        do_in_turn([&] { done.push_back(2); });
        {
            const TurnScope inner(first);
            do_in_turn([&] { done.push_back(1); });
        }
        do_in_turn([&] { done.push_back(3); });
    }
    EXPECT_THAT(done, IsEmpty());
    for (const Deeds* deeds : {&first, &second}) {
        for (const auto& deed : *deeds) {
            deed();
        }
    }

    EXPECT_THAT(done, ElementsAre(1, 2, 3));
    EXPECT_EQ(present_deeds(), nullptr);
}

TEST(MessagesInTurn, WaitWholeAndWithTheirLevel)
{
    LogRecorder recorder(LOGLEVEL_INFO);
    const MessagesInTurn messages;
    Deeds deeds;
    {
        const TurnScope scope(deeds);
        ilog(LOGLEVEL_WARNING) << "100 %s";
        ilog(LOGLEVEL_DEBUG) << "not shown";
    }
    ilog(LOGLEVEL_INFO) << "now";
    EXPECT_THAT(recorder.texts(), ElementsAre("now"));

    for (const auto& deed : deeds) {
        deed();
    }

    EXPECT_THAT(recorder.texts(), ElementsAre("now", "100 %s"));
    EXPECT_EQ(recorder.lines().back().level, LOGLEVEL_WARNING);
}

TEST(MessagesInTurn, AreLostWhereTheSinkThrows)
{
    class Broken final : public LogInstance {
        void emit(loglevel /*level*/, const char* /*text*/, int /*length*/) override
        {
            throw std::runtime_error("no");
        }
    };
    auto before = std::exchange(loginstance, std::make_unique<Broken>());
    {
        const MessagesInTurn messages;
        Deeds deeds;
        {
            const TurnScope scope(deeds);
            ilog(LOGLEVEL_INFO) << "lost";
        }
        ASSERT_EQ(deeds.size(), 1U);
        EXPECT_NO_THROW(deeds.front()());
    }
    loginstance = std::move(before);
}

}  // namespace
