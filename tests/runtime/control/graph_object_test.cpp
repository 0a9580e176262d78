#include "control/control.h"
#include "loop/loop.h"
#include "run/runner.h"
#include "runtime/control/fake_bus.h"
#include "runtime/support/graph_files.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <unistd.h>

#include <atomic>
#include <cstdint>
#include <string>
#include <vector>

using namespace Quorval;
using namespace Quorval::runtime;
using quorval_test::FakeBus;
using quorval_test::GraphFiles;
using quorval_test::LogRecorder;
using quorval_test::refuse;
using ::testing::Each;
using ::testing::ElementsAre;
using ::testing::StartsWith;

namespace {

constexpr const char* kNotAllowed =
    "org.quorval.Error.Refused: only root and the user who runs the graph may do this";

/// Puts a graph with links on a bus.
class LinkedControl final : public IOutside {
public:
    RunResult open(Run& run) override
    {
        run.link_statistics = [this] { return statistics; };
        return control_.open(run);
    }
    void begin() override { control_.begin(); }
    void close() noexcept override { control_.close(); }
    sd_bus* bus() override { return control_.bus(); }

    std::vector<LinkStatistics> statistics;

private:
    Control control_{Bus::User, [](Run&) { return std::vector<BlockStatistics>(); }};
};

class GraphObjectTest : public testing::Test {
protected:
    /// Runs a graph until all callers have an answer.
    std::vector<std::string> run(const std::vector<FakeBus::Call>& calls)
    {
        files_.write("g.toml",
                     "format = 1\n[blocks.idle]\ntype = \"running:Tell\"\n"
                     "config = { is_idle = true, x = 1 }\n");
        const GraphOptions options = files_.options();
        LoadedGraph graph = load_graph(options);
        std::atomic<bool> has_stop{false};
        Loop loop;
        bus_.will_call(calls, [&] {
            has_stop = true;
            loop.waker()->wake();
        });
        EXPECT_EQ(Runner(options, graph, loop, nullptr, &outside_, has_stop).run(),
                  RunResult::Done);
        return bus_.stop();
    }

    static std::string user(unsigned number) { return ":1." + std::to_string(number); }
    static std::string owner() { return user(::geteuid()); }

    static FakeBus::Call call(const std::string& sender, const char* name,
                              const char* interface = kInterface)
    {
        return {sender, kPath, interface, name};
    }

    static FakeBus::Call configure(const std::string& sender, const char* target, const char* value)
    {
        FakeBus::Call made = call(sender, "Configure");
        made.append = [=](auto* message) {
            return sd_bus_message_append(message, "a{ss}", 1, target, value);
        };
        return made;
    }

    LogRecorder log_{LOGLEVEL_WARNING};
    GraphFiles files_;
    FakeBus bus_;
    LinkedControl outside_;
};

TEST_F(GraphObjectTest, LetsRootAndItsUserAloneChangeIt)
{
    const std::string stranger = user(::geteuid() + 7);
    EXPECT_THAT(run({call(stranger, "Save"), call(stranger, "Stop"),
                     configure(stranger, "idle.x", "2"), call(owner(), "Stop")}),
                ElementsAre(kNotAllowed, kNotAllowed, kNotAllowed, ""));
}

TEST_F(GraphObjectTest, TellsThatItStops)
{
    std::string told;
    bus_.on("PropertiesChanged", [&told](sd_bus_message* signal) {
        const char* interface = nullptr;
        const char* property = nullptr;
        const char* state = nullptr;
        if (sd_bus_message_read(signal, "sa{sv}as", &interface, 1, &property, "s", &state, 0) > 0) {
            told += std::string(interface) + " " + property + " " + state;
        }
        return 0;
    });

    EXPECT_THAT(run({call(owner(), "Stop")}), ElementsAre(""));

    EXPECT_EQ(told, "org.quorval.Graph1 State stopping");
}

TEST_F(GraphObjectTest, LetsNobodyChangeItWhomTheBusDoesNotKnow)
{
    bus_.on("GetConnectionUnixUser", refuse("NameHasNoOwner", "gone"));

    EXPECT_THAT(run({call(user(0), "Stop")}), ElementsAre(kNotAllowed));
}

TEST_F(GraphObjectTest, AsksForACallerOnce)
{
    std::vector<std::string> asked;
    bus_.on("GetConnectionUnixUser", [&asked](sd_bus_message* message) {
        const char* name = nullptr;
        sd_bus_message_read(message, "s", &name);
        asked.emplace_back(name);
        return sd_bus_reply_method_return(message, "u", std::uint32_t{0});
    });

    run({call(":1.1", "Save"), call(":1.2", "Save"), call(":1.1", "Save")});

    EXPECT_THAT(asked, ElementsAre(":1.1", ":1.2"));
}

TEST_F(GraphObjectTest, DoesNotRememberCallersForEver)
{
    std::vector<FakeBus::Call> calls;
    for (int caller = 0; caller < 258; ++caller) {
        calls.push_back(call(":1." + std::to_string(caller), "Save"));
    }
    calls.push_back(calls.front());
    int asked = 0;
    bus_.on("GetConnectionUnixUser", [&asked](sd_bus_message* message) {
        ++asked;
        return sd_bus_reply_method_return(message, "u", std::uint32_t{0});
    });

    EXPECT_THAT(run(calls), Each("org.quorval.Error.Refused: the graph has no state directory"));

    EXPECT_EQ(asked, 259);
}

TEST_F(GraphObjectTest, HasTheStatisticsOfLinks)
{
    LinkStatistics out;
    out.output = "idle.out";
    out.values = 5;
    out.bytes = 40;
    out.lost = 1;
    out.longest_queue = 3;
    LinkStatistics in;
    in.output = "far.out";
    in.comes_in = true;
    in.gaps = 2;
    in.duplicates = 4;
    outside_.statistics = {out, in};

    EXPECT_THAT(run({call(owner(), "Statistics", kLinkInterface)}),
                ElementsAre("((idle.out 0 5 40 1 0 0 3) (far.out 1 0 0 0 2 4 0))"));
}

TEST_F(GraphObjectTest, HasNoInterfaceOfLinksWithoutThem)
{
    EXPECT_THAT(run({call(owner(), "Statistics", kLinkInterface)}),
                ElementsAre(StartsWith("org.freedesktop.DBus.Error.Unknown")));
}

}  // namespace
