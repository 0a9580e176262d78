#include "quorval/runtime/testing.h"

#include <quorval/log.h>
#include <quorval/pstore.h>
#include <quorval/runtime/tools.h>
#include "support/support.h"

#include <gtest/gtest.h>

#include <dlfcn.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <filesystem>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

/// A type of values that a test can see go.
template <>
struct Quorval::PortType<std::shared_ptr<int>> {
    static std::string name() { return "shared"; }
};

namespace {

using Quorval::Block;
using Quorval::BlockConfiguration;
using Quorval::Harness;
using quorval_test::expect_throw;
using namespace std::chrono_literals;

/// An exception of a class that only this program has.
struct Broken : std::runtime_error {
    using runtime_error::runtime_error;
};

/// Does what its inputs ask for.
class Probe : public Block {
public:
    explicit Probe(std::string name) : Block(std::move(name)) {}

    void start() override
    {
        if (throws_in_start) {
            throw Broken("cannot start");
        }
        next = static_cast<Quorval::EventPort*>(make_eventport("next"));
        out->write("started");
        Quorval::ilog(LOGLEVEL_DEBUG) << "starts";
    }

    bool run() override
    {
        Quorval::ilog(LOGLEVEL_INFO) << "runs";
        const std::string command = in->is_triggered() ? in->value() : "";
        if (command == "throw") {
            throw Broken("cannot run");
        }
        if (command == "ask") {
            get_tools().request_run();
        }
        if (command == "fire") {
            next->fire();
        }
        if (command == "stop") {
            get_tools().stop("enough");
        }
        if (command == "at") {
            get_tools().run_at(get_tools().now() + 50ms);
        }
        get_tools().progress(++runs, 9);
        out->write(command);
        return command != "done";
    }

    void stop() override { Quorval::ilog(LOGLEVEL_WARNING) << "stops"; }

    void reconfigure(const BlockConfiguration& /*merged*/,
                     const BlockConfiguration& override) override
    {
        const std::string text = override.getString("text", "") + override.getString("more", "");
        if (text == "bad") {
            throw std::invalid_argument("'text' is bad");
        }
        out->write(text);
    }

    Quorval::InPort<std::string>* in = Quorval::add_input<std::string>(*this, "in");
    Quorval::OutPort<std::string>* out = Quorval::add_output<std::string>(*this, "out");
    Quorval::EventPort* next = nullptr;
    std::uint64_t runs = 0;
    bool throws_in_start = false;
};

class HarnessTest : public testing::Test {
protected:
    HarnessTest() { harness_.start(); }

    Probe& probe() { return static_cast<Probe&>(harness_.block()); }

    /// The first wave takes what was written outside of one to the blocks behind.
    void expect_wave_for_the_blocks_behind()
    {
        EXPECT_FALSE(harness_.step());
        EXPECT_TRUE(harness_.is_triggered("out"));
        EXPECT_FALSE(harness_.step());
        EXPECT_FALSE(harness_.is_triggered("out"));
    }

    Harness harness_{std::make_unique<Probe>("probe")};
};

TEST_F(HarnessTest, RunsTheBlockWhenAnInputIsFed)
{
    EXPECT_FALSE(harness_.step());

    harness_.feed("in", "hello");

    EXPECT_TRUE(harness_.step());
    EXPECT_EQ(harness_.output<std::string>("out"), "hello");
    EXPECT_TRUE(harness_.is_triggered("out"));
    EXPECT_FALSE(probe().out->is_triggered());
    EXPECT_FALSE(harness_.step());
    EXPECT_FALSE(harness_.is_triggered("out"));
    EXPECT_EQ(harness_.output<std::string>("out"), "hello");
}

TEST_F(HarnessTest, FeedsTheLastOfSeveralValues)
{
    harness_.feed("in", "first");
    harness_.feed("in", "second");

    EXPECT_TRUE(harness_.step());
    EXPECT_EQ(harness_.output<std::string>("out"), "second");
    EXPECT_EQ(probe().runs, 1U);
}

TEST_F(HarnessTest, ShowsWhatTheStartLeft)
{
    EXPECT_EQ(harness_.output<std::string>("out"), "started");
    EXPECT_TRUE(harness_.is_triggered("out"));
    expect_wave_for_the_blocks_behind();
}

TEST_F(HarnessTest, RunsTheBlockOnceForARequest)
{
    harness_.feed("in", "ask");
    harness_.step();

    EXPECT_TRUE(harness_.step());
    EXPECT_FALSE(harness_.step());
}

TEST_F(HarnessTest, TakesARequestFromAThread)
{
    std::thread([this] { probe().get_tools().request_run(); }).join();

    EXPECT_TRUE(harness_.step());
}

TEST_F(HarnessTest, RunsTheBlockForAnEventThatItFired)
{
    harness_.feed("in", "fire");
    harness_.step();

    EXPECT_TRUE(harness_.step());
    EXPECT_FALSE(harness_.step());
}

TEST_F(HarnessTest, FiresAnEventPort)
{
    harness_.make_ready("next");

    EXPECT_TRUE(harness_.step());
    EXPECT_FALSE(harness_.step());
}

TEST_F(HarnessTest, MovesAClockThatStandsStill)
{
    EXPECT_EQ(probe().get_tools().now(), 0ms);
    harness_.feed("in", "at");
    harness_.step();

    harness_.advance(49ms);
    EXPECT_FALSE(harness_.step());
    harness_.advance(1ms);
    EXPECT_EQ(probe().runs, 1U);
    EXPECT_TRUE(harness_.step());
    EXPECT_FALSE(harness_.step());
    EXPECT_EQ(probe().get_tools().now(), 50ms);
}

TEST_F(HarnessTest, RunsABlockThatWantsToAtATimeThatHasCome)
{
    probe().get_tools().run_at(0ms);

    EXPECT_TRUE(harness_.step());
    EXPECT_FALSE(harness_.step());
}

TEST_F(HarnessTest, LetsOutWhatTheRunThrowsAndGoesOn)
{
    harness_.feed("in", "throw");

    expect_throw<Broken>([this] { harness_.step(); }, "cannot run");

    harness_.feed("in", "again");
    EXPECT_TRUE(harness_.step());
    EXPECT_EQ(harness_.output<std::string>("out"), "again");
}

TEST_F(HarnessTest, RunsABlockThatIsDoneNoMore)
{
    harness_.feed("in", "done");
    EXPECT_TRUE(harness_.step());
    EXPECT_TRUE(harness_.is_done());
    EXPECT_EQ(probe().next->get_event(), nullptr);

    harness_.feed("in", "more");
    harness_.make_ready("next");

    EXPECT_FALSE(harness_.step());
}

TEST_F(HarnessTest, PassesAllChangesSoFar)
{
    harness_.reconfigure({{"text", "a"}});
    harness_.reconfigure({{"more", "b"}});

    EXPECT_EQ(harness_.output<std::string>("out"), "ab");
    EXPECT_TRUE(harness_.is_triggered("out"));
}

TEST_F(HarnessTest, ShowsWhatAChangeLeft)
{
    expect_wave_for_the_blocks_behind();

    harness_.reconfigure({{"text", "a"}});

    EXPECT_TRUE(harness_.is_triggered("out"));
    expect_wave_for_the_blocks_behind();
}

TEST_F(HarnessTest, ForgetsAChangeThatIsRefused)
{
    harness_.reconfigure({{"text", "a"}});

    expect_throw<std::invalid_argument>(
        [this] {
            harness_.reconfigure({{"text", "bad"}});
        },
        "'text' is bad");

    harness_.reconfigure({{"more", "b"}});
    EXPECT_EQ(harness_.output<std::string>("out"), "ab");
}

TEST_F(HarnessTest, KeepsMessagesOfTheBlock)
{
    const quorval_test::LogRecorder log;

    harness_.feed("in", "stop");
    harness_.step();
    harness_.stop();

    EXPECT_EQ(harness_.messages(), (std::vector<std::string>{"starts", "runs", "stops"}));
    EXPECT_TRUE(log.lines().empty());
}

TEST_F(HarnessTest, KeepsWhatTheBlockReports)
{
    harness_.feed("in", "stop");
    harness_.step();

    EXPECT_EQ(harness_.stop_reasons(), std::vector<std::string>{"enough"});
    EXPECT_EQ(harness_.progress(), (std::pair<std::uint64_t, std::uint64_t>(1, 9)));
    EXPECT_EQ(probe().get_tools().path(), "probe");
    EXPECT_EQ(probe().get_tools().loop(), nullptr);
    EXPECT_EQ(probe().get_tools().bus(), nullptr);
}

TEST_F(HarnessTest, NamesWrongPortsAndTypes)
{
    expect_throw<std::out_of_range>([this] { harness_.feed("no", "a"); },
                                    "The InPort no does not exist in block probe");
    expect_throw<std::invalid_argument>([this] { harness_.feed("in", 2.5); },
                                        "in has the type string, not double");
    expect_throw<std::out_of_range>([this] { harness_.output<double>("no"); },
                                    "The OutPort no does not exist in block probe");
    expect_throw<std::invalid_argument>([this] { harness_.output<double>("out"); },
                                        "out has the type string, not double");
    expect_throw<std::out_of_range>([this] { static_cast<void>(harness_.is_triggered("no")); },
                                    "The OutPort no does not exist in block probe");
    expect_throw<std::out_of_range>([this] { harness_.make_ready("no"); },
                                    "the block has no descriptor port 'no'");
}

TEST_F(HarnessTest, CannotMakeABlockAnewThatTheTestHasMade)
{
    expect_throw<std::logic_error>([this] { harness_.restart(); },
                                   "a block that was handed over cannot be made again");
}

TEST(HarnessLife, IsStartedAndStoppedByHand)
{
    Harness harness(std::make_unique<Probe>("probe"));
    const auto refuse = [](auto action, const std::string& text) {
        expect_throw<std::logic_error>(action, text);
    };

    expect_throw<std::runtime_error>([&] { harness.output<std::string>("out"); },
                                     "out has no value");
    refuse([&] { harness.step(); }, "the block is not started");
    refuse([&] { harness.stop(); }, "the block is not started");
    harness.start();
    refuse([&] { harness.start(); }, "the block is started already");
    harness.stop();
    refuse([&] { harness.step(); }, "the block is not started");
}

TEST(HarnessLife, LetsOutWhatTheStartThrows)
{
    auto probe = std::make_unique<Probe>("probe");
    probe->throws_in_start = true;
    Harness harness(std::move(probe));

    expect_throw<Broken>([&] { harness.start(); }, "cannot start");
    expect_throw<std::logic_error>([&] { harness.step(); }, "the block is not started");
}

TEST(HarnessLife, GivesABlockThatHasNoStoreOneUntilTheEnd)
{
    std::string path;
    {
        Harness harness(std::make_unique<Probe>("probe"));
        path = harness.block().pstore().get_path();
        EXPECT_TRUE(std::filesystem::is_directory(path));
    }
    EXPECT_FALSE(std::filesystem::exists(path));
}

TEST(HarnessLife, LeavesABlockTheStoreThatItHas)
{
    auto probe = std::make_unique<Probe>("probe");
    probe->pstore().set_path("/own/");
    Harness harness(std::move(probe));

    EXPECT_EQ(harness.block().pstore().get_path(), "/own/");
}

TEST(HarnessLife, NamesTheDirectoryThatCannotBeMadeForTheStore)
{
    const quorval_test::ScopedEnvironment directory("TMPDIR", "/proc");

    try {
        Harness harness(std::make_unique<Probe>("probe"));
        ADD_FAILURE();
    } catch (const std::system_error& error) {
        EXPECT_EQ(std::string(error.what()).rfind("cannot make /proc/quorval-", 0), 0U)
            << error.what();
    }
}

/// A block with a plain descriptor port.
class Reader : public Block {
public:
    explicit Reader(int fd) : Block("reader") { make_fdport("pipe", fd, {true, false}); }

    bool run() override
    {
        was_readable = get_fdport("pipe")->is_readable();
        return true;
    }

    void stop() override { was_watched = get_fdport("pipe")->get_event() != nullptr; }

    bool was_readable = false;
    bool was_watched = false;  // when it was stopped
};

class HarnessPipe : public testing::Test {
protected:
    HarnessPipe() { EXPECT_EQ(::pipe(ends_.data()), 0); }
    ~HarnessPipe() override
    {
        ::close(ends_[0]);
        ::close(ends_[1]);
    }

    std::unique_ptr<Reader> make_reader() { return std::make_unique<Reader>(ends_[0]); }
    void write() { ASSERT_EQ(::write(ends_[1], "x", 1), 1); }

private:
    std::array<int, 2> ends_{};
};

TEST_F(HarnessPipe, TakesAPortForReadyOrFindsItSo)
{
    Harness harness(make_reader());
    harness.start();
    EXPECT_FALSE(harness.step());

    harness.make_ready("pipe");
    EXPECT_TRUE(harness.step());
    EXPECT_TRUE(static_cast<Reader&>(harness.block()).was_readable);
    EXPECT_FALSE(harness.step());

    write();
    EXPECT_TRUE(harness.step());
}

TEST_F(HarnessPipe, WatchesAPortUntilTheBlockStops)
{
    Harness harness(make_reader());
    auto& reader = static_cast<Reader&>(harness.block());
    harness.start();
    EXPECT_NE(reader.get_fdport("pipe")->get_event(), nullptr);

    harness.stop();

    EXPECT_FALSE(reader.was_watched);
}

TEST_F(HarnessPipe, HasAMessageWhereTheBlockMayNotDrainIt)
{
    Harness harness(make_reader());
    harness.start();
    write();

    for (int wave = 0; wave < 1001; ++wave) {
        EXPECT_TRUE(harness.step());
    }

    EXPECT_EQ(harness.messages(),
              std::vector<std::string>{
                  "descriptor port 'pipe' was still readable after its block's run in 1000 waves "
                  "in a row: the block may not drain it"});
}

TEST(HarnessDescriptors, TakesAPortForReadyBeforeTheStart)
{
    Harness harness(QUORVAL_OWN_PORT_PLUGIN, "OwnPort");

    harness.make_ready("input");
    harness.start();

    EXPECT_TRUE(harness.step());
    EXPECT_FALSE(harness.step());
}

TEST(HarnessDescriptors, TakesAPortWithoutTypeInformation)
{
    Harness harness(QUORVAL_OWN_PORT_WITHOUT_RTTI_PLUGIN, "OwnPort");
    harness.start();

    harness.make_ready("input");

    EXPECT_TRUE(harness.step());
    EXPECT_FALSE(harness.step());
}

TEST(HarnessLife, RefusesNoBlock)
{
    expect_throw<std::invalid_argument>([] { Harness harness(std::unique_ptr<Block>{}); },
                                        "there is no block");
}

/// Reads nothing.
class Keeper : public Block {
public:
    Keeper() : Block("keeper") { Quorval::add_input<std::shared_ptr<int>>(*this, "in"); }
};

TEST(HarnessLife, KeepsAValueUntilTheNextOneIsFed)
{
    Harness harness(std::make_unique<Keeper>());
    auto value = std::make_shared<int>(1);
    const std::weak_ptr<int> kept = value;

    harness.feed("in", std::move(value));
    EXPECT_FALSE(kept.expired());

    harness.feed("in", std::make_shared<int>(2));
    EXPECT_TRUE(kept.expired());
}

/// What an exception says whose class is one of a plug-in.
std::string text_of(const std::function<void()>& action)
{
    try {
        action();
    } catch (const std::exception& error) {
        return error.what();
    }
    return {};
}

TEST(HarnessPlugin, StaysLoadedForWhatItThrew)
{
    const std::string text = text_of([] {
        Harness harness(QUORVAL_PARTS_PLUGIN, "Once");
        harness.start();
        harness.block().get_tools().request_run();
        harness.step();
    });

    EXPECT_EQ(text, "an exception of its own");
}

TEST(HarnessPlugin, IsUnloadedWhereNothingWasThrown)
{
    const auto is_loaded = [] {
        void* handle = ::dlopen(QUORVAL_OWN_PORT_PLUGIN, RTLD_NOW | RTLD_NOLOAD);
        return handle != nullptr && ::dlclose(handle) == 0;
    };
    {
        Harness harness(QUORVAL_OWN_PORT_PLUGIN, "OwnPort");
        harness.start();
        EXPECT_TRUE(is_loaded());
    }

    EXPECT_FALSE(is_loaded());
}

TEST(HarnessPlugin, HasNoBlockWhenItCannotBeMadeAgain)
{
    Harness harness(QUORVAL_PARTS_PLUGIN, "Once");

    EXPECT_EQ(text_of([&] { harness.restart(); }), "an exception of its own");

    const std::string text = "there is no block: it could not be made again";
    expect_throw<std::logic_error>([&] { harness.start(); }, text);
    expect_throw<std::logic_error>([&] { harness.feed("in", 1.0); }, text);
    expect_throw<std::logic_error>([&] { harness.is_triggered("out"); }, text);
    EXPECT_EQ(text_of([&] { harness.restart(); }), "an exception of its own");
}

TEST(HarnessPlugin, KeepsTheTimeWhenItMakesANewBlock)
{
    Harness harness(QUORVAL_GAIN_PLUGIN, "Gain");
    harness.advance(5s);

    harness.restart();

    EXPECT_EQ(harness.block().get_tools().now(), 5s);
}

TEST(HarnessPlugin, MakesABlockOfAPlugin)
{
    Harness harness(QUORVAL_GAIN_PLUGIN, "Gain", {{"factor", 0.5}});

    harness.start();
    harness.feed("in", 3.0);
    harness.step();

    EXPECT_EQ(harness.output<double>("out"), 1.5);
    EXPECT_EQ(harness.block().get_name(), "Gain");
}

TEST(HarnessPlugin, MakesANewBlockOnTheSameStore)
{
    Harness harness(QUORVAL_GAIN_PLUGIN, "Gain", {{"factor", 0.5}});
    harness.start();
    harness.reconfigure({{"factor", 4}});
    harness.block().pstore().store("state", {{"n", 7}});
    const std::string path = harness.block().pstore().get_path();

    harness.restart();

    EXPECT_EQ(harness.block().pstore().load("state").getInt("n"), 7);
    EXPECT_EQ(harness.block().pstore().get_path(), path);
    harness.start();
    harness.feed("in", 3.0);
    EXPECT_TRUE(harness.step());
    EXPECT_EQ(harness.output<double>("out"), 1.5);
}

TEST(HarnessPlugin, ForgetsWhatWasDoneWhenItMakesANewBlock)
{
    Harness harness(QUORVAL_GAIN_PLUGIN, "Gain", {{"factor", 0.5}});
    harness.start();
    harness.reconfigure({{"factor", 4}});
    harness.feed("in", 3.0);
    harness.step();
    EXPECT_TRUE(harness.is_triggered("out"));

    harness.restart();

    EXPECT_FALSE(harness.is_triggered("out"));
    harness.start();
    harness.reconfigure({});
    harness.feed("in", 3.0);
    harness.step();
    EXPECT_EQ(harness.output<double>("out"), 1.5);
}

TEST(HarnessPlugin, DropsWhatWasFedWhenItMakesANewBlock)
{
    Harness harness(QUORVAL_PARTS_PLUGIN, "Ports",
                    {{"inputs", std::vector<std::string>{"in:shared"}}});
    auto value = std::make_shared<int>(1);
    const std::weak_ptr<int> fed = value;
    harness.feed("in", std::move(value));

    harness.restart();

    EXPECT_TRUE(fed.expired());
}

TEST(HarnessPlugin, IsToldThatItsBlocksAreToBeStarted)
{
    expect_throw<std::runtime_error>([] { Harness(QUORVAL_PARTS_PLUGIN, "Tells"); },
                                     "Tells in test");
}

TEST(HarnessPlugin, RemovesTheStoreInTheEnd)
{
    std::string path;
    {
        Harness harness(QUORVAL_GAIN_PLUGIN, "Gain");
        path = harness.block().pstore().get_path();
        EXPECT_TRUE(std::filesystem::is_directory(path));
    }
    EXPECT_FALSE(std::filesystem::exists(path));
}

TEST(HarnessPlugin, FindsAPluginInTheDirectoriesOfTheEnvironment)
{
    const std::filesystem::path file = QUORVAL_GAIN_PLUGIN;
    const quorval_test::ScopedEnvironment none("QUORVAL_PLUGIN_PATH", std::nullopt);
    const quorval_test::ScopedEnvironment directory("QUORVAL_PLUGIN_DIR",
                                                    file.parent_path().string());

    EXPECT_EQ(Harness(file.filename().string(), "Gain").block().get_name(), "Gain");
}

TEST(HarnessPlugin, NamesWhatIsMissing)
{
    const quorval_test::ScopedEnvironment path("QUORVAL_PLUGIN_PATH", "/nowhere");
    const quorval_test::ScopedEnvironment none("QUORVAL_PLUGIN_DIR", std::nullopt);

    try {
        Harness("missing.so", "Gain");
        ADD_FAILURE();
    } catch (const std::runtime_error& error) {
        EXPECT_EQ(
            std::string(error.what()).rfind("there is no plug-in 'missing.so' in /nowhere:", 0), 0U)
            << error.what();
    }
    expect_throw<std::runtime_error>([] { Harness(QUORVAL_GAIN_PLUGIN, "Loss"); },
                                     "plug-in '" QUORVAL_GAIN_PLUGIN "' has no block type 'Loss'");
    expect_throw<std::invalid_argument>(
        [] {
            Harness(QUORVAL_GAIN_PLUGIN, "Gain", {{"factor", 1001}});
        },
        "'factor' has to be from -1000 to 1000, not 1001");
}

}  // namespace
