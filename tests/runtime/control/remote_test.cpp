#include <quorval/runtime/remote.h>
#include "runtime/control/fake_bus.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

using namespace Quorval;
using quorval_test::expect_throw;
using quorval_test::FakeBus;
using quorval_test::refuse;
using quorval_test::ScopedEnvironment;
using ::testing::IsEmpty;

namespace {

constexpr const char* kNoBus = "the user's bus cannot be reached: No such file or directory";

/// A graph on a bus that answers as the test wants.
class RemoteGraphTest : public testing::Test {
protected:
    RemoteGraphTest()
    {
        bus_.on("ListNames", [](auto* call) {
            return sd_bus_reply_method_return(call, "as", 3, "org.quorval.graph.the_graph",
                                              "org.freedesktop.DBus", ":1.3");
        });
        bus_.on("Get",
                [](auto* call) { return sd_bus_reply_method_return(call, "v", "s", "the-graph"); });
    }

    FakeBus bus_;
};

TEST_F(RemoteGraphTest, HasItsState)
{
    bus_.on("Get",
            [](auto* call) { return sd_bus_reply_method_return(call, "v", "s", "stopping"); });

    EXPECT_EQ(RemoteGraph("the-graph", {Bus::User}).state(), "stopping");
}

TEST_F(RemoteGraphTest, IsListedByItsNameOnTheBusWhenItDoesNotAnswer)
{
    bus_.on("Get", refuse("NoReply", "busy"));

    const std::vector<RunningGraph> graphs = list_graphs({Bus::User});

    ASSERT_EQ(graphs.size(), 1U);
    EXPECT_EQ(graphs[0].name, "the_graph");
    EXPECT_EQ(graphs[0].bus, Bus::User);
}

TEST_F(RemoteGraphTest, HandsOverTheTextOfARefusal)
{
    bus_.on("Save", refuse("Failed", "not today"));
    RemoteGraph graph("the-graph", {Bus::User});

    expect_throw<RemoteError>([&] { graph.save(); }, "not today");
}

TEST_F(RemoteGraphTest, RefusesAnswersOfAnotherForm)
{
    for (const char* name : {"Describe", "Get", "Statistics"}) {
        bus_.on(name, quorval_test::give(7));
    }
    RemoteGraph graph("the-graph", {Bus::User});

    constexpr const char* kText = "No such device or address";
    expect_throw<RemoteError>([&] { graph.describe(); }, kText);
    expect_throw<RemoteError>([&] { graph.get("a"); }, kText);
    expect_throw<RemoteError>([&] { graph.statistics(); }, kText);
    expect_throw<RemoteError>([&] { graph.link_statistics(); }, kText);
}

TEST_F(RemoteGraphTest, HasNoLinksWhereTheyAreUnknown)
{
    for (const char* error : {"UnknownMethod", "UnknownInterface"}) {
        bus_.on("Statistics", refuse(error, "what is that?"));

        EXPECT_THAT(RemoteGraph("the-graph", {Bus::User}).link_statistics(), IsEmpty()) << error;
    }
}

TEST_F(RemoteGraphTest, IsLookedForOnEachBusThatIsThere)
{
    const ScopedEnvironment system("DBUS_SYSTEM_BUS_ADDRESS", "unix:path=/nowhere/bus");

    EXPECT_NO_THROW(RemoteGraph("the-graph", {Bus::System, Bus::User}));
    EXPECT_EQ(list_graphs({Bus::System, Bus::User}).size(), 1U);
    expect_throw<RemoteError>(
        [] {
            RemoteGraph("other", {Bus::System, Bus::User});
        },
        "there is no running graph 'other'");
    expect_throw<RemoteError>([] { RemoteGraph("the-graph", {Bus::System}); },
                              "the system's bus cannot be reached: No such file or directory");
}

TEST_F(RemoteGraphTest, NeedsTheOneBusThatItIsLookedForOn)
{
    bus_.on("ListNames", refuse("AccessDenied", "no"));

    expect_throw<RemoteError>([] { list_graphs({Bus::User}); },
                              "the user's bus cannot be reached: Permission denied");
    expect_throw<RemoteError>([] { RemoteGraph("the-graph", {Bus::User}); },
                              "the user's bus cannot be reached: Permission denied");
}

}  // namespace
