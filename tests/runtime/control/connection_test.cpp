#include "control/connection.h"

#include "loop/loop.h"
#include "runtime/control/fake_bus.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstddef>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

using namespace Quorval;
using namespace Quorval::runtime;
using quorval_test::FakeBus;
using quorval_test::give;
using quorval_test::LogRecorder;
using quorval_test::refuse;
using quorval_test::ScopedEnvironment;
using ::testing::ElementsAre;

namespace {

constexpr unsigned kIsOwner = 1;
constexpr unsigned kIsQueued = 2;
constexpr unsigned kIsTaken = 3;
constexpr unsigned kIsOwnerAlready = 4;
constexpr const char* kLost = "the user's bus is lost; the graph runs on without it";
constexpr const char* kBack = "the user's bus is back";

class ConnectionTest : public testing::Test {
protected:
    static std::vector<SlotHandle> publish_nothing(sd_bus* /*bus*/) { return {}; }

    static std::string open()
    {
        runtime::Connection connection(Bus::User, "org.quorval.graph.g", publish_nothing);
        const std::string problem = connection.open();
        EXPECT_EQ(connection.bus() == nullptr, !problem.empty());
        return problem;
    }

    /// Opens a connection, and waits until it was lost and found.
    void wait_for_loss(runtime::Connection::Publish publish)
    {
        Loop loop;
        runtime::Connection connection(Bus::User, "org.quorval.graph.g", std::move(publish));
        ASSERT_EQ(connection.open(), "");
        connection.attach(loop.event());

        while (log_.texts().empty() || log_.texts().back() != kBack) {
            loop.wait(std::nullopt);
            if (!log_.texts().empty() && log_.texts().back() == kLost) {
                EXPECT_EQ(connection.bus(), nullptr);
                elsewhere_.reset();
            }
        }
        EXPECT_NE(connection.bus(), nullptr);
    }

    /// The bus hangs up on the connection, which gets the name again after all of these answers.
    void lose_and_find(std::vector<FakeBus::Answer> answers, runtime::Connection::Publish publish)
    {
        answers.insert(answers.begin(), give(kIsOwner));
        answers.push_back(give(kIsOwner));
        bus_.on("RequestName", [&](sd_bus_message* call) {
            const bool hangs_up = requests_ == 0;
            const int result = answers.at(requests_++)(call);
            sd_bus_flush(sd_bus_message_get_bus(call));
            return hangs_up ? -EIO : result;
        });
        wait_for_loss(std::move(publish));
        bus_.stop();
    }

    LogRecorder log_{LOGLEVEL_INFO};
    FakeBus bus_;
    std::optional<ScopedEnvironment> elsewhere_;  // the bus, until the loss is noticed
    std::size_t requests_ = 0;
};

TEST_F(ConnectionTest, SaysWhyItCannotHaveTheName)
{
    bus_.on("RequestName", refuse("AccessDenied", "no"));

    EXPECT_EQ(open(),
              "the name org.quorval.graph.g cannot be had on the user's bus: "
              "Permission denied");
}

TEST_F(ConnectionTest, SaysThatTheNameIsTakenBySomebodyWhoHasGone)
{
    bus_.on("RequestName", give(kIsTaken));
    bus_.on("GetNameOwner", refuse("NameHasNoOwner", "nobody"));

    EXPECT_EQ(open(), "the name org.quorval.graph.g is taken on the user's bus");
}

TEST_F(ConnectionTest, SaysThatTheNameIsTakenBySomebodyWhoIsNotKnown)
{
    bus_.on("RequestName", give(kIsTaken));
    bus_.on("GetConnectionUnixProcessID", refuse("UnixProcessIdUnknown", "who knows"));

    EXPECT_EQ(open(), "the name org.quorval.graph.g is taken on the user's bus");
}

TEST_F(ConnectionTest, SaysWhoHasTakenTheName)
{
    bus_.on("RequestName", give(kIsTaken));
    bus_.on("GetConnectionUnixProcessID", give(static_cast<unsigned>(::getpid())));

    const std::string program = quorval_test::read_file("/proc/self/comm");
    EXPECT_EQ(open(), "the name org.quorval.graph.g is taken on the user's bus by process " +
                          std::to_string(::getpid()) + " (" +
                          program.substr(0, program.find('\n')) + ")");
}

TEST_F(ConnectionTest, LeavesNothingBehind)
{
    constexpr int kTimes = 200;
    constexpr std::size_t kMost = 100'000;  // bytes; a connection has more than a thousand
    for (int warm = 0; warm < 10; ++warm) {
        ASSERT_EQ(open(), "");
    }

    const std::size_t before = quorval_test::used_memory();
    for (int count = 0; count < kTimes; ++count) {
        ASSERT_EQ(open(), "");
    }

    EXPECT_LT(quorval_test::used_memory(), before + kMost);
}

TEST_F(ConnectionTest, TakesTheNameThatItHasAlready)
{
    bus_.on("RequestName", give(kIsOwnerAlready));

    EXPECT_EQ(open(), "");
}

/// It takes the name from nobody, lets nobody take it, and does not wait for it.
TEST_F(ConnectionTest, AsksForTheNameAlone)
{
    const std::string request = "org.quorval.graph.g 4";
    std::vector<std::string> requests;
    const FakeBus::Answer note = [&requests](sd_bus_message* call) {
        requests.push_back(quorval_test::read_values(call));
        sd_bus_message_rewind(call, 1);
        return give(kIsOwner)(call);
    };
    bus_.on("RequestName", note);
    EXPECT_EQ(open(), "");

    lose_and_find({note}, publish_nothing);

    EXPECT_THAT(requests, ElementsAre(request, request));
}

TEST_F(ConnectionTest, IsFoundAgain)
{
    lose_and_find({}, publish_nothing);

    EXPECT_THAT(log_.texts(), ElementsAre(kLost, kBack));
    EXPECT_EQ(requests_, 2U);
}

TEST_F(ConnectionTest, IsLookedForUntilItHasTheNameAgain)
{
    const FakeBus::Answer nothing = [](sd_bus_message* call) {
        const sd_bus_error error = {"test.NotYet", nullptr, 0};
        return sd_bus_reply_method_error(call, &error);
    };
    lose_and_find({give(kIsQueued), refuse("AccessDenied", "not yet"), nothing}, publish_nothing);

    EXPECT_THAT(log_.texts(), ElementsAre(kLost, kBack));
    EXPECT_EQ(requests_, 5U);
}

TEST_F(ConnectionTest, IsLookedForUntilThereIsABus)
{
    bool is_first = true;
    const auto hide_bus = [&](sd_bus* bus) {
        if (std::exchange(is_first, false)) {
            elsewhere_.emplace("DBUS_SESSION_BUS_ADDRESS", "unix:path=/nowhere/bus");
        }
        return publish_nothing(bus);
    };

    lose_and_find({}, hide_bus);

    EXPECT_THAT(log_.texts(), ElementsAre(kLost, kBack));
    EXPECT_EQ(requests_, 2U);
}

TEST_F(ConnectionTest, LeavesNothingBehindWhenItIsFoundAgain)
{
    constexpr int kTimes = 100;
    constexpr std::size_t kMost = 50'000;  // bytes; a connection has more than a thousand
    bus_.on("RequestName", [this](sd_bus_message* call) {
        const bool hangs_up = requests_++ % 2 == 0;
        const int result = give(kIsOwner)(call);
        sd_bus_flush(sd_bus_message_get_bus(call));
        return hangs_up ? -EIO : result;
    });
    const auto lose_and_find = [this](int times) {
        for (int count = 0; count < times; ++count) {
            log_.clear();
            wait_for_loss(publish_nothing);
        }
    };
    lose_and_find(10);

    const std::size_t before = quorval_test::used_memory();
    lose_and_find(kTimes);

    EXPECT_LT(quorval_test::used_memory(), before + kMost);
    bus_.stop();
}

TEST_F(ConnectionTest, DoesNotAskABusAllTheTimeThatHangsUpOnWhoHasTheName)
{
    constexpr int kLosses = 4;
    int left = kLosses;
    bus_.on("RequestName", [&left](sd_bus_message* call) {
        const int result = give(kIsOwner)(call);
        sd_bus_flush(sd_bus_message_get_bus(call));
        return left-- > 0 ? -EIO : result;
    });
    Loop loop;
    runtime::Connection connection(Bus::User, "org.quorval.graph.g", publish_nothing);
    ASSERT_EQ(connection.open(), "");
    connection.attach(loop.event());

    const auto begin = std::chrono::steady_clock::now();
    for (int found = 0; found < kLosses;) {
        loop.wait(std::nullopt);
        const std::vector<std::string> texts = log_.texts();
        found = static_cast<int>(std::count(texts.begin(), texts.end(), kBack));
    }

    // All but the first one wait, or last as long.
    EXPECT_GE(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(300));
    bus_.stop();
}

TEST_F(ConnectionTest, SaysWhatCannotBePublishedAgain)
{
    bool is_first = true;
    lose_and_find({}, [&is_first](sd_bus* bus) {
        if (!std::exchange(is_first, false)) {
            throw std::runtime_error("no place for it");
        }
        return publish_nothing(bus);
    });

    EXPECT_THAT(log_.texts(), ElementsAre(kLost, "no place for it", kBack));
}

}  // namespace
