#include "link/losses.h"

#include "support/support.h"

#include <gtest/gtest.h>

#include <chrono>

using Quorval::runtime::Losses;
using quorval_test::LogRecorder;
using std::chrono::milliseconds;

using Lines = std::vector<std::string>;

TEST(Losses, AreToldOfOnceASecond)
{
    const LogRecorder recorder;
    Losses losses("mic.out");

    losses.add(1, "why", milliseconds(5000));
    losses.add(2, "why", milliseconds(5999));
    losses.add(4, "other", milliseconds(6000));

    EXPECT_EQ(recorder.texts(),
              (Lines{"1 values of mic.out are lost: why",
                     "4 values of mic.out are lost: other (2 more since the last)"}));
    EXPECT_EQ(losses.count(), 7U);
    losses.add(1, "last", milliseconds(7000));
    EXPECT_EQ(recorder.texts().back(), "1 values of mic.out are lost: last");
}

TEST(Losses, AreToldOfWhereOneWasLeftOut)
{
    const LogRecorder recorder;
    Losses losses("mic.out");
    losses.add(1, "why", milliseconds(0));
    losses.add(1, "why", milliseconds(1));
    losses.add(1, "why", milliseconds(1000));
    losses.add(1, "why", milliseconds(1001));
    losses.add_rest();

    EXPECT_EQ(recorder.texts(), (Lines{"1 values of mic.out are lost: why",
                                       "1 values of mic.out are lost: why (1 more since the last)",
                                       "1 more values of mic.out are lost"}));
}

TEST(Losses, AreToldOfAtTheEnd)
{
    const LogRecorder recorder;
    Losses losses("mic.out");
    losses.add(1, "why", milliseconds(0));
    losses.add(3, "why", milliseconds(1));

    losses.add_rest();
    losses.add_rest();

    EXPECT_EQ(recorder.texts(),
              (Lines{"1 values of mic.out are lost: why", "3 more values of mic.out are lost"}));
}
