#include "messages/signal_mask.h"

#include "messages/context.h"
#include "support/support.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <csignal>
#include <initializer_list>

using namespace Quorval::runtime;
using quorval_test::LogRecorder;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

namespace {

/// Puts the signals of the thread back.
class SignalMaskTest : public testing::Test {
protected:
    SignalMaskTest() { ::pthread_sigmask(SIG_SETMASK, nullptr, &before_); }
    ~SignalMaskTest() override
    {
        forget_signals();
        ::pthread_sigmask(SIG_SETMASK, &before_, nullptr);
    }

    static void block(std::initializer_list<int> signals)
    {
        sigset_t blocked;
        ::sigemptyset(&blocked);
        for (const int signal : signals) {
            ::sigaddset(&blocked, signal);
        }
        ::pthread_sigmask(SIG_BLOCK, &blocked, nullptr);
    }

    static bool is_blocked(int signal)
    {
        sigset_t present;
        ::pthread_sigmask(SIG_SETMASK, nullptr, &present);
        return ::sigismember(&present, signal) == 1;
    }

    LogRecorder log_;
    sigset_t before_{};
};

TEST_F(SignalMaskTest, TakesBackWhatABlockBlocked)
{
    watch_signals();
    const ContextScope scope("left/gain", "start");
    block({SIGHUP, SIGINT, SIGUSR1});

    give_back_signals();

    EXPECT_THAT(log_.texts(),
                ElementsAre("block 'left/gain' blocked SIGINT, SIGHUP in start: taken back"));
    EXPECT_FALSE(is_blocked(SIGINT));
    EXPECT_FALSE(is_blocked(SIGHUP));
    EXPECT_TRUE(is_blocked(SIGUSR1));
}

TEST_F(SignalMaskTest, TakesBackWhatAPluginBlockedWhileItWasLoaded)
{
    watch_signals();
    const LoadScope scope("filters");
    block({SIGTERM});

    give_back_signals();

    EXPECT_THAT(log_.texts(),
                ElementsAre("plug-in 'filters' blocked SIGTERM while it was loaded: taken back"));
    EXPECT_FALSE(is_blocked(SIGTERM));
}

TEST_F(SignalMaskTest, NamesNobodyWhereNobodyIsKnown)
{
    watch_signals();
    block({SIGTERM});

    give_back_signals();

    EXPECT_THAT(log_.texts(), ElementsAre("a block blocked SIGTERM: taken back"));
}

TEST_F(SignalMaskTest, LeavesWhatWasBlockedBefore)
{
    block({SIGTERM});
    watch_signals();
    block({SIGUSR1});

    give_back_signals();

    EXPECT_THAT(log_.texts(), IsEmpty());
    EXPECT_TRUE(is_blocked(SIGTERM));
}

TEST_F(SignalMaskTest, LeavesWhatWasBlockedBeforeTheLastLook)
{
    watch_signals();
    block({SIGTERM});
    watch_signals();

    give_back_signals();

    EXPECT_THAT(log_.texts(), IsEmpty());
    EXPECT_TRUE(is_blocked(SIGTERM));
}

TEST_F(SignalMaskTest, TakesNothingBackWhenNobodyWatches)
{
    watch_signals();
    forget_signals();
    block({SIGTERM});

    give_back_signals();

    EXPECT_THAT(log_.texts(), IsEmpty());
    EXPECT_TRUE(is_blocked(SIGTERM));
}

}  // namespace
