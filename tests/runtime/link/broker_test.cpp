#include "runtime/link/broker.h"

#include "support/support.h"

#include <gtest/gtest.h>

namespace {

TEST(Broker, TakesMoreConnectionsThanAPipeHoldsMessagesOf)
{
    constexpr int kConnections = 600;
    const quorval_test::TemporaryDirectory directory;
    const quorval_test::Broker broker(directory.path());

    for (int i = 0; i < kConnections; ++i) {
        ASSERT_NO_THROW(broker.publish("t", "x")) << i;
    }
}

}  // namespace
