#include "link/presence.h"

#include "support/support.h"

#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <vector>

using Quorval::runtime::Presence;
using quorval_test::LogRecorder;
using std::chrono::seconds;

using Lines = std::vector<std::string>;

namespace {

constexpr Presence::Time kNow{1};

TEST(Presence, TellsOfChanges)
{
    const LogRecorder recorder;
    Presence presence({"edge", "hub"});

    for (const char* text : {"online", "online", "offline", "garbage", "online"}) {
        presence.take("edge", text, kNow);
    }

    EXPECT_EQ(recorder.texts(), (Lines{"machine 'edge' is online", "machine 'edge' is offline",
                                       "machine 'edge' is online"}));
}

TEST(Presence, IsKnownOfTheMachinesOfTheGraphAlone)
{
    const LogRecorder recorder;
    Presence presence({"edge"});

    presence.take("stranger", "online", kNow);
    presence.take("", "online", kNow);

    EXPECT_EQ(recorder.texts(), Lines());
}

TEST(Presence, IsNotToldOfWithoutEnd)
{
    const LogRecorder recorder;
    Presence presence({"edge"});

    for (int count = 0; count < 1000; ++count) {
        presence.take("edge", count % 2 == 0 ? "online" : "offline", kNow);
    }
    EXPECT_EQ(recorder.texts().size(), 12U);
    presence.take("edge", "online", kNow);
    presence.tell(kNow + seconds(1));
    EXPECT_EQ(recorder.texts().size(), 13U);
    presence.tell(kNow + seconds(9));

    const Lines lines = recorder.texts();
    EXPECT_EQ(lines.size(), 13U);
    EXPECT_EQ(lines.back(), "machine 'edge' is online");
}

}  // namespace
