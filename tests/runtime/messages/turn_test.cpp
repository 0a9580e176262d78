#include "messages/turn.h"

#include <quorval/log.h>
#include <quorval/runtime/messages.h>
#include "messages/context.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

using namespace Quorval;
using namespace Quorval::runtime;
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
    const Messages messages(LOGLEVEL_INFO);
    Deeds deeds;
    testing::internal::CaptureStderr();
    {
        const TurnScope scope(deeds);
        ilog(LOGLEVEL_WARNING) << "100 %s";
        ilog(LOGLEVEL_DEBUG) << "not shown";
    }
    ilog(LOGLEVEL_INFO) << "now";
    const std::string before = testing::internal::GetCapturedStderr();
    testing::internal::CaptureStderr();

    for (const auto& deed : deeds) {
        const ContextScope scope("a", "run");
        deed();
    }

    EXPECT_EQ(before, "quorval: now\n");
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "quorval: warning: a: 100 %s\n");
}

}  // namespace
