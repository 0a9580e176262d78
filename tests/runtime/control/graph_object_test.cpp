#include "control/control.h"
#include "loop/loop.h"
#include "run/runner.h"
#include "runtime/control/fake_bus.h"
#include "runtime/control/work_watch.h"
#include "runtime/support/graph_files.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sys/prctl.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

using namespace Quorval;
using namespace Quorval::runtime;
using quorval_test::FakeBus;
using quorval_test::GraphFiles;
using quorval_test::LogRecorder;
using quorval_test::refuse;
using quorval_test::WorkWatch;
using ::testing::Each;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;
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
        run_ = &run;
        return control_.open(run);
    }
    void begin() override
    {
        control_.begin();
        if (is_watched) {
            watch_.emplace(run_->loop.event(), run_->life);
        }
    }
    void close() noexcept override
    {
        EXPECT_FALSE(watch_ && watch_->has_seen_work());
        watch_.reset();
        control_.close();
    }
    sd_bus* bus() override { return control_.bus(); }

    std::vector<LinkStatistics> statistics;
    std::vector<BlockStatistics> blocks;
    bool is_watched = false;  // whether a call's work is done before anything else

private:
    Control control_{Bus::User, [this](Run&) { return blocks; }};
    Run* run_ = nullptr;
    std::optional<WorkWatch> watch_;
};

class GraphObjectTest : public testing::Test {
protected:
    /// Runs a graph until all callers have an answer.
    std::vector<std::string> run(const std::vector<FakeBus::Call>& calls,
                                 RunResult expected = RunResult::Done)
    {
        return run(calls, expected, outside_);
    }

    std::vector<std::string> run(const std::vector<FakeBus::Call>& calls, RunResult expected,
                                 IOutside& outside)
    {
        files_.write("g.toml",
                     "format = 1\n[blocks.idle]\ntype = \"running:Tell\"\n"
                     "config = { is_idle = true, x = 1 }\n" +
                         more_blocks_);
        GraphOptions options = files_.options();
        options.state_directory = state_directory_;
        LoadedGraph graph = load_graph(options);
        std::atomic<bool> has_stop{false};
        Loop loop;
        bus_.will_call(calls, [&] {
            has_stop = !ends_by_itself_;
            loop.waker()->wake();
        });
        EXPECT_EQ(Runner(options, graph, loop, nullptr, &outside, has_stop).run(), expected);
        EXPECT_EQ(outside.bus(), nullptr);
        return bus_.stop();
    }

    static std::string user(unsigned number) { return ":1." + std::to_string(number); }
    static std::string owner() { return user(::geteuid()); }
    static std::string stranger() { return user(::geteuid() + 1); }

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

    static FakeBus::Call get(const char* path)
    {
        FakeBus::Call made = call(stranger(), "Get");
        made.append = [=](auto* message) { return sd_bus_message_append(message, "s", path); };
        return made;
    }

    static FakeBus::Call property(const char* name)
    {
        FakeBus::Call made = call(stranger(), "Get", "org.freedesktop.DBus.Properties");
        made.append = [=](auto* message) {
            return sd_bus_message_append(message, "ss", kInterface, name);
        };
        return made;
    }

    /// Takes signals of this name down.
    void listen(const char* name, std::vector<std::string>& signals)
    {
        bus_.on(name, [&signals](sd_bus_message* signal) {
            signals.push_back(quorval_test::read_values(signal));
            return 0;
        });
    }

    LogRecorder log_{LOGLEVEL_WARNING};
    std::string more_blocks_;
    std::string state_directory_;
    bool ends_by_itself_ = false;
    GraphFiles files_;
    FakeBus bus_;
    LinkedControl outside_;
};

TEST_F(GraphObjectTest, LetsRootAndItsUserAloneChangeIt)
{
    EXPECT_THAT(run({call(stranger(), "Save"), call(stranger(), "Stop"),
                     configure(stranger(), "idle.x", "2"), call(owner(), "Stop")}),
                ElementsAre(kNotAllowed, kNotAllowed, kNotAllowed, ""));
}

/// The effective user at the beginning is that at the end too. A change of it also takes away that
/// the process can be traced, and looked at in /proc.
class EffectiveUser {
public:
    EffectiveUser() = default;
    EffectiveUser(const EffectiveUser&) = delete;
    EffectiveUser& operator=(const EffectiveUser&) = delete;
    ~EffectiveUser()
    {
        EXPECT_EQ(::seteuid(before_), 0);
        ::prctl(PR_SET_DUMPABLE, dumpable_);
    }

private:
    uid_t before_ = ::geteuid();
    int dumpable_ = ::prctl(PR_GET_DUMPABLE);
};

TEST_F(GraphObjectTest, LetsRootChangeTheGraphOfAnotherUser)
{
    const EffectiveUser back;
    bus_.on("GetConnectionUnixUser", [](sd_bus_message* call) {
        // Where the tests run as root, the graph goes on as somebody else.
        static_cast<void>(::seteuid(1));
        return sd_bus_reply_method_return(call, "u", std::uint32_t{0});
    });

    EXPECT_THAT(run({call(user(0), "Stop")}), ElementsAre(""));
}

TEST_F(GraphObjectTest, EndsWhenItIsToldTo)
{
    ends_by_itself_ = true;

    EXPECT_THAT(run({call(owner(), "Stop")}), ElementsAre(""));
}

TEST_F(GraphObjectTest, LetsEverybodyLook)
{
    BlockStatistics statistics;
    statistics.path = "idle";
    statistics.runs = 1;
    statistics.failures = 2;
    statistics.total = std::chrono::nanoseconds(3);
    statistics.longest = std::chrono::nanoseconds(4);
    statistics.percentile_99 = std::chrono::nanoseconds(5);
    outside_.blocks = {statistics};

    const std::vector<std::string> answers =
        run({call(stranger(), "Describe"), get("idle"), get("nobody"), property("Name"),
             property("State"), property("Waves"), call(stranger(), "Statistics")});

    ASSERT_EQ(answers.size(), 7U);
    EXPECT_EQ(answers[0],
              R"({"blocks":[{"config":{"is_idle":true,"x":1},"fdports":{"never":"extfd"},)"
              R"("inports":{"in":"int"},"outports":{},"path":"idle","type":"running:Tell"}],)"
              R"("connections":[],"format":1,"name":"g"})");
    EXPECT_EQ(files_.strip(answers[1]), "is_idle = true  # g.toml:4\nx = 1  # g.toml:4\n");
    EXPECT_EQ(answers[2], "org.quorval.Error.UnknownBlock: there is no block 'nobody'");
    EXPECT_EQ(answers[3], "(g)");
    EXPECT_EQ(answers[4], "(running)");
    EXPECT_EQ(answers[5], "(0)");
    EXPECT_EQ(answers[6], "((idle 1 2 3 4 5))");
}

TEST_F(GraphObjectTest, TellsWhatItIs)
{
    outside_.statistics.emplace_back();

    const std::vector<std::string> answers =
        run({call(stranger(), "Introspect", "org.freedesktop.DBus.Introspectable")});

    ASSERT_EQ(answers.size(), 1U);
    for (const char* part :
         {R"(<method name="Describe">)", R"( name="json")", R"(<signal name="BlockFailed">)",
          R"(<signal name="Configured">)", R"(<property name="Waves" type="t" access="read">)",
          R"(<interface name="org.quorval.Links1">)"}) {
        EXPECT_THAT(answers[0], HasSubstr(part));
    }
    EXPECT_THAT(answers[0], Not(HasSubstr("Deprecated")));
}

TEST_F(GraphObjectTest, IsConfigured)
{
    std::vector<std::string> signals;
    listen("Configured", signals);

    const std::vector<std::string> answers =
        run({configure(owner(), "idle.x", "2"), configure(owner(), "idle.y", "3"), get("idle"),
             call(owner(), "Describe")});

    ASSERT_EQ(answers.size(), 4U);
    EXPECT_EQ(answers[0] + answers[1], "");
    EXPECT_EQ(files_.strip(answers[2]),
              "is_idle = true  # g.toml:4\nx = 2  # changed\ny = 3  # changed\n");
    EXPECT_THAT(answers[3], HasSubstr(R"("config":{"is_idle":true,"x":2,"y":3})"));
    EXPECT_THAT(signals, ElementsAre("((idle.x 2))", "((idle.y 3))"));
}

TEST_F(GraphObjectTest, RunsWhatAChangeTriggersAtOnce)
{
    outside_.is_watched = true;
    more_blocks_ =
        "[blocks.echo]\ntype = \"running:Echo\"\nconfig.x = 0\n"
        "[[connections]]\nfrom = \"echo.out\"\nto = \"idle.in\"\n";

    EXPECT_THAT(run({configure(owner(), "echo.x", "5"), property("Waves")}),
                ElementsAre("", "(1)"));
}

TEST_F(GraphObjectTest, SaysWhatCannotBeConfigured)
{
    const std::string invalid = "org.quorval.Error.InvalidValue: ";
    const std::vector<std::array<std::string, 3>> cases = {
        {"idle.x=1", "2", invalid + "'idle.x=1' is not of the form PATH.KEY"},
        {"idle", "2", invalid + "'idle' is not of the form PATH.KEY"},
        {"idle.x", "1979-05-27", invalid + "'x' is a date"},
        {"nobody.x", "2", "org.quorval.Error.UnknownBlock: there is no block 'nobody'"},
        {"idle.x", "101", "org.quorval.Error.Refused: block 'idle': x is too large"},
    };
    std::vector<FakeBus::Call> calls;
    std::vector<std::string> expected;
    calls.reserve(cases.size());
    for (const auto& [target, value, answer] : cases) {
        calls.push_back(configure(owner(), target.c_str(), value.c_str()));
        expected.push_back(answer);
    }
    std::vector<std::string> signals;
    listen("Configured", signals);

    EXPECT_EQ(run(calls), expected);

    EXPECT_THAT(signals, IsEmpty());
}

TEST_F(GraphObjectTest, RefusesTextsThatAreNone)
{
    FakeBus::Call broken = call(owner(), "Configure");
    broken.append = [](sd_bus_message* message) {
        sd_bus_message_open_container(message, 'a', "{ss}");
        sd_bus_message_open_container(message, 'e', "ss");
        quorval_test::append_broken_text(message);
        sd_bus_message_append(message, "s", "2");
        sd_bus_message_close_container(message);
        return sd_bus_message_close_container(message);
    };

    EXPECT_THAT(run({broken}), ElementsAre("org.quorval.Error.Refused: Bad message"));
}

TEST_F(GraphObjectTest, TakesCallsOfTheirTypesAlone)
{
    FakeBus::Call number = call(owner(), "Get");
    number.append = [](auto* message) { return sd_bus_message_append(message, "i", 1); };

    EXPECT_THAT(run({number}), ElementsAre(StartsWith("org.freedesktop.DBus.Error.InvalidArgs: ")));
}

TEST_F(GraphObjectTest, IsSaved)
{
    const quorval_test::TemporaryDirectory directory;
    state_directory_ = directory.path();

    EXPECT_THAT(run({configure(owner(), "idle.x", "7"), call(owner(), "Save")}),
                ElementsAre("", ""));

    EXPECT_TRUE(std::filesystem::exists(directory.path() / "overrides"));
}

TEST_F(GraphObjectTest, TellsOfBlocksThatFail)
{
    std::vector<std::string> signals;
    listen("BlockFailed", signals);
    ends_by_itself_ = true;
    more_blocks_ =
        "[blocks.count]\ntype = \"running:Count\"\n"
        "[blocks.tell]\ntype = \"running:Tell\"\nconfig.trouble = \"run\"\n"
        "[[connections]]\nfrom = \"count.out\"\nto = \"tell.in\"\n";

    run({}, RunResult::Failed);

    EXPECT_THAT(signals, ElementsAre("tell trouble"));
}

/// Puts a graph on a bus again and again.
class ManyTimes final : public IOutside {
public:
    RunResult open(Run& run) override
    {
        constexpr int kTimes = 200;
        constexpr std::size_t kMost = 100'000;  // bytes; a connection has more than a thousand
        open(run, 10);
        const std::size_t before = quorval_test::used_memory();
        open(run, kTimes);
        EXPECT_LT(quorval_test::used_memory(), before + kMost);
        return RunResult::Failed;
    }
    void begin() override {}
    void close() noexcept override {}
    sd_bus* bus() override { return nullptr; }

private:
    static void open(Run& run, int times)
    {
        for (int count = 0; count < times; ++count) {
            Control control(Bus::User, [](Run&) { return std::vector<BlockStatistics>(); });
            EXPECT_EQ(control.open(run), RunResult::Done);
            control.close();
        }
    }
};

TEST_F(GraphObjectTest, LeavesNothingBehind)
{
    ManyTimes outside;

    run({}, RunResult::Failed, outside);
}

TEST_F(GraphObjectTest, IsNotRunWithoutItsName)
{
    bus_.on("RequestName", quorval_test::give(3));
    bus_.on("GetNameOwner", refuse("NameHasNoOwner", "nobody"));

    run({}, RunResult::Failed);

    EXPECT_THAT(log_.texts(),
                ElementsAre("the name org.quorval.graph.g is taken on the user's bus"));
}

TEST_F(GraphObjectTest, IsThereWithTheObjectsOfItsBlocks)
{
    more_blocks_ = "[blocks.offer]\ntype = \"running:Offer\"\nconfig.at = \"/offered\"\n";
    FakeBus::Call offered{stranger(), "/offered", "test.Offered", "Nothing"};

    const std::vector<std::string> answers = run({offered, get("idle"), get("offer")});

    ASSERT_EQ(answers.size(), 3U);
    EXPECT_EQ(answers[0], "");
    EXPECT_EQ(files_.strip(answers[1]), "is_idle = true  # g.toml:4\nx = 1  # g.toml:4\n");
    EXPECT_EQ(files_.strip(answers[2]), "at = \"/offered\"  # g.toml:7\n");
}

TEST_F(GraphObjectTest, IsNotRunWhereAnObjectCannotBePublished)
{
    const std::string object = "the object nowhere with the interface test.Offered";
    more_blocks_ = "[blocks.offer]\ntype = \"running:Offer\"\nconfig.at = \"nowhere\"\n";
    run({}, RunResult::WrongObjects);

    more_blocks_ += "[blocks.other]\ntype = \"running:Offer\"\nconfig.at = \"nowhere\"\n";
    run({}, RunResult::WrongObjects);

    EXPECT_THAT(log_.texts(),
                ElementsAre("block 'offer': " + object + " cannot be published: Invalid argument",
                            "block 'offer' and block 'other' both offer " + object));
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
    for (int caller = 0; caller < 257; ++caller) {
        calls.push_back(call(":1." + std::to_string(caller), "Save"));
    }
    calls.push_back(calls.front());
    int asked = 0;
    bus_.on("GetConnectionUnixUser", [&asked](sd_bus_message* message) {
        ++asked;
        return sd_bus_reply_method_return(message, "u", std::uint32_t{0});
    });

    EXPECT_THAT(run(calls), Each("org.quorval.Error.Refused: the graph has no state directory"));

    EXPECT_EQ(asked, 258);
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
