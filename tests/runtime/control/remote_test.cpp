#include <quorval/runtime/remote.h>
#include "runtime/control/fake_bus.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

using namespace Quorval;
using quorval_test::expect_throw;
using quorval_test::FakeBus;
using quorval_test::refuse;
using quorval_test::ScopedEnvironment;
using ::testing::ElementsAre;
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

/// Answers with a list of one entry, whose text is none.
int answer_broken(sd_bus_message* call, const std::string& fields)
{
    sd_bus_message* made = nullptr;
    sd_bus_message_new_method_return(call, &made);
    sd_bus_message_open_container(made, 'a', ("(" + fields + ")").c_str());
    sd_bus_message_open_container(made, 'r', fields.c_str());
    quorval_test::append_broken_text(made);
    for (const char type : fields.substr(1)) {
        constexpr std::uint64_t kNone = 0;
        sd_bus_message_append_basic(made, type, &kNone);
    }
    sd_bus_message_close_container(made);
    sd_bus_message_close_container(made);
    const int result = sd_bus_send(nullptr, made, nullptr);
    sd_bus_message_unref(made);
    return result;
}

TEST_F(RemoteGraphTest, RefusesStatisticsWithTextsThatAreNone)
{
    RemoteGraph graph("the-graph", {Bus::User});

    bus_.on("Statistics", [](auto* call) { return answer_broken(call, "sttttt"); });
    expect_throw<RemoteError>([&] { graph.statistics(); }, "Bad message");

    bus_.on("Statistics", [](auto* call) { return answer_broken(call, "sbtttttt"); });
    expect_throw<RemoteError>([&] { graph.link_statistics(); }, "Bad message");
}

TEST_F(RemoteGraphTest, HasStatisticsOfItsBlocks)
{
    using Time = std::chrono::nanoseconds;
    bus_.on("Statistics", [](auto* call) {
        return sd_bus_reply_method_return(  //
            call, "a(sttttt)", 2,           //
            "a", std::uint64_t{1}, std::uint64_t{2}, std::uint64_t{3}, std::uint64_t{4},
            std::uint64_t{5},  //
            "b/c", std::uint64_t{6}, std::uint64_t{7}, std::uint64_t{8}, std::uint64_t{9},
            std::uint64_t{10});
    });

    const auto statistics = RemoteGraph("the-graph", {Bus::User}).statistics();

    ASSERT_EQ(statistics.size(), 2U);
    EXPECT_EQ(statistics[0].path, "a");
    EXPECT_EQ(statistics[0].runs, 1U);
    EXPECT_EQ(statistics[0].failures, 2U);
    EXPECT_EQ(statistics[0].total, Time(3));
    EXPECT_EQ(statistics[0].longest, Time(4));
    EXPECT_EQ(statistics[0].percentile_99, Time(5));
    EXPECT_EQ(statistics[1].path, "b/c");
    EXPECT_EQ(statistics[1].runs, 6U);
}

TEST_F(RemoteGraphTest, HasStatisticsOfItsLinks)
{
    bus_.on("Statistics", [](auto* call) {
        constexpr std::uint64_t kNone = 0;
        return sd_bus_reply_method_return(  //
            call, "a(sbtttttt)", 2,         //
            "a.out", 0, std::uint64_t{1}, std::uint64_t{2}, std::uint64_t{3}, std::uint64_t{4},
            std::uint64_t{5}, std::uint64_t{6},  //
            "b.out", 1, kNone, kNone, kNone, kNone, kNone, kNone);
    });

    const auto statistics = RemoteGraph("the-graph", {Bus::User}).link_statistics();

    ASSERT_EQ(statistics.size(), 2U);
    EXPECT_EQ(statistics[0].output, "a.out");
    EXPECT_FALSE(statistics[0].comes_in);
    EXPECT_EQ(statistics[0].values, 1U);
    EXPECT_EQ(statistics[0].bytes, 2U);
    EXPECT_EQ(statistics[0].lost, 3U);
    EXPECT_EQ(statistics[0].gaps, 4U);
    EXPECT_EQ(statistics[0].duplicates, 5U);
    EXPECT_EQ(statistics[0].longest_queue, 6U);
    EXPECT_EQ(statistics[1].output, "b.out");
    EXPECT_TRUE(statistics[1].comes_in);
}

TEST_F(RemoteGraphTest, HasNoLinksWhereTheyAreUnknown)
{
    for (const char* error : {"UnknownMethod", "UnknownInterface"}) {
        bus_.on("Statistics", refuse(error, "what is that?"));

        EXPECT_THAT(RemoteGraph("the-graph", {Bus::User}).link_statistics(), IsEmpty()) << error;
    }
}

TEST_F(RemoteGraphTest, HandsOverWhyThereAreNoStatisticsOfItsLinks)
{
    bus_.on("Statistics", refuse("AccessDenied", "not yours"));
    RemoteGraph graph("the-graph", {Bus::User});

    expect_throw<RemoteError>([&] { graph.link_statistics(); }, "not yours");
}

TEST_F(RemoteGraphTest, IsCalled)
{
    std::vector<std::string> calls;
    for (const char* name : {"Configure", "Save", "Stop"}) {
        bus_.on(name, [&calls, name](auto* call) {
            calls.push_back(std::string(name) + " " + quorval_test::read_values(call));
            return sd_bus_reply_method_return(call, "");
        });
    }
    for (const char* name : {"Describe", "Get"}) {
        bus_.on(name, [&calls, name](auto* call) {
            calls.push_back(std::string(name) + " " + quorval_test::read_values(call));
            return sd_bus_reply_method_return(call, "s", "an answer");
        });
    }
    RemoteGraph graph("the-graph", {Bus::User});

    EXPECT_EQ(graph.describe(), "an answer");
    EXPECT_EQ(graph.get("a/b"), "an answer");
    graph.configure({{"a.x", "1"}, {"b.y", "'two'"}});
    graph.configure({});
    graph.save();
    graph.stop();

    bus_.stop();
    EXPECT_THAT(calls, ElementsAre("Describe ", "Get a/b", "Configure ((a.x 1) (b.y 'two'))",
                                   "Configure ()", "Save ", "Stop "));
}

TEST_F(RemoteGraphTest, IsToldNothingThatIsNotUtf8)
{
    int calls = 0;
    for (const char* name : {"Configure", "Get"}) {
        bus_.on(name, [&calls](auto* call) {
            ++calls;
            return sd_bus_reply_method_return(call, "");
        });
    }
    RemoteGraph graph("the-graph", {Bus::User});

    expect_throw<RemoteError>([&] { graph.get("a\xFF"); }, "'a\xEF\xBF\xBD' is not UTF-8");
    expect_throw<RemoteError>(
        [&] {
            graph.configure({{"a.\xC3", "1"}});
        },
        "'a.\xEF\xBF\xBD' is not UTF-8");
    expect_throw<RemoteError>(
        [&] {
            graph.configure({{"a.x", "'\xFF'"}});
        },
        "''\xEF\xBF\xBD'' is not UTF-8");

    bus_.stop();
    EXPECT_EQ(calls, 0);
}

TEST_F(RemoteGraphTest, HasItsWaves)
{
    bus_.on("Get", [](auto* call) {
        return sd_bus_reply_method_return(call, "v", "t", std::uint64_t{5});
    });

    EXPECT_EQ(RemoteGraph("the-graph", {Bus::User}).waves(), 5U);
}

TEST_F(RemoteGraphTest, IsListedAmongOthersByName)
{
    bus_.on("ListNames", [](auto* call) {
        return sd_bus_reply_method_return(call, "as", 4, "org.quorval.graph.c",
                                          "org.quorval.graph.a", "org.quorval.graph",
                                          "org.quorval.graph.b");
    });
    bus_.on("Get", refuse("NoReply", "busy"));

    std::string names;
    for (const RunningGraph& graph : list_graphs({Bus::User})) {
        names += graph.name + " ";
    }
    EXPECT_EQ(names, "a b c ");
    EXPECT_NO_THROW(RemoteGraph("c", {Bus::User}));
}

TEST_F(RemoteGraphTest, LeavesNothingBehind)
{
    constexpr int kTimes = 100;
    constexpr std::size_t kNames = 500;
    constexpr std::size_t kSize = 300;
    constexpr std::size_t kMost = 200'000;  // bytes; what is left behind would be twice as much
    bus_.on("ListNames", [](auto* call) {
        sd_bus_message* made = nullptr;
        sd_bus_message_new_method_return(call, &made);
        sd_bus_message_open_container(made, 'a', "s");
        for (std::size_t number = 0; number < kNames; ++number) {
            const std::string name = std::to_string(number) + std::string(kSize, 'x');
            sd_bus_message_append(made, "s", name.c_str());
        }
        sd_bus_message_append(made, "s", "org.quorval.graph.g");
        sd_bus_message_close_container(made);
        const int result = sd_bus_send(nullptr, made, nullptr);
        sd_bus_message_unref(made);
        return result;
    });
    bus_.on("Get", [](auto* call) {
        return sd_bus_reply_method_return(call, "v", "s", std::string(5000, 'x').c_str());
    });
    list_graphs({Bus::User});

    const std::size_t before = quorval_test::used_memory();
    for (int count = 0; count < kTimes; ++count) {
        ASSERT_EQ(list_graphs({Bus::User}).size(), 1U);
    }

    EXPECT_LT(quorval_test::used_memory(), before + kMost);
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
