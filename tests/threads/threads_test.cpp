#include <quorval/block.h>
#include <quorval/config.h>
#include <quorval/log.h>
#include <quorval/pluginloader.h>
#include <quorval/port.h>
#include <quorval/pstore.h>
#include <quorval/superblock.h>
#include "support/support.h"

#include <gtest/gtest.h>

#include <atomic>
#include <exception>
#include <functional>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <tuple>
#include <utility>
#include <vector>

namespace Quorval {

// The application's to define: here they hold nothing.
struct InitTools {};
struct RuntimeTools {
    int number = 0;
};

}  // namespace Quorval

namespace {

using namespace quorval_test;
using Quorval::Block;
using Quorval::BlockConfiguration;
using Quorval::Container;
using Quorval::Datatype;
using Quorval::PluginLoader;
using Quorval::Superblock;
using Quorval::UniqueDlPtr;

using Created = std::tuple<UniqueDlPtr<Container>, BlockConfiguration>;

constexpr int kThreads = 4;
constexpr int kRounds = 25;
const char* const kPlugin = "quorval_test_threads_plugin.so";

const Quorval::InitTools tools;

/// Counts messages, from whatever thread they come.
class CountingSink : public Quorval::LogInstance {
public:
    explicit CountingSink(std::atomic<int>& count) : LogInstance(LOGLEVEL_INFO), count_(count) {}

    void emit(loglevel /*level*/, const char* /*text*/, int /*length*/) override { ++count_; }

private:
    std::atomic<int>& count_;
};

/// Runs `work` on several threads at once, each with its number, and waits for all of them. What
/// comes out of one as an exception is a failure.
void run_on_threads(const std::function<void(int thread)>& work)
{
    std::atomic<int> waiting{kThreads};
    std::vector<std::string> failures(kThreads);
    std::vector<std::thread> threads;
    for (int number = 0; number < kThreads; ++number) {
        threads.emplace_back([&, number] {
            --waiting;
            while (waiting > 0) {
                std::this_thread::yield();
            }
            try {
                work(number);
            } catch (const std::exception& error) {
                failures[static_cast<std::size_t>(number)] = error.what();
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(failures, std::vector<std::string>(kThreads));
}

void require(bool condition, const char* text)
{
    if (!condition) {
        throw std::runtime_error(text);
    }
}

BlockConfiguration make_config(int number)
{
    return {{"number", number},
            {"name", "of thread " + std::to_string(number)},
            {"taps", {0.5, 1.5}},
            {"inputs", {{{"name", "left"}, {"muted", {true, false}}}, {{"name", "right"}}}}};
}

class WithPlugins : public testing::Test {
private:
    ScopedEnvironment directory_{"QUORVAL_PLUGIN_DIR", QUORVAL_TEST_PLUGIN_DIR};
};

TEST(Threads, UseConfigurationsOfTheirOwn)
{
    run_on_threads([](int thread) {
        for (int round = 0; round < kRounds; ++round) {
            BlockConfiguration config = make_config(thread);
            config += {{"number", thread + round}, {"added", true}};
            config.rebase("block");
            int children = 0;
            for (const auto& child : config.iterate_subtree("block.inputs")) {
                children += child.getString("name").empty() ? 0 : 1;
            }
            std::ostringstream text;
            text << config;

            require(config.getInt("block.number") == thread + round, "another number");
            require(children == 2, "other children");
            require(config.getSubtree("block").diff(make_config(thread)).getBool("added"),
                    "another difference");
            require(text.str().find("of thread " + std::to_string(thread)) != std::string::npos,
                    "another text");
        }
    });
}

TEST(Threads, ReadTheSameLiteralMemberAndTypeAtOnce)
{
    const BlockConfiguration::KeyValue member("a", {{"b", 1}, {"c", "text"}});
    const Datatype type("/prefix/image/");

    run_on_threads([&](int /*thread*/) {
        for (int round = 0; round < kRounds; ++round) {
            BlockConfiguration config;
            const BlockConfiguration::KeyValue copy = member;
            BlockConfiguration::KeyValue::set_recursively(config, "", copy);

            require(config.getInt("a.b") == 1, "another value");
            require(type.is_assignable_from(Datatype("/prefix/image/rgb")), "not assignable");
        }
    });
}

TEST(Threads, StoreAndLoadFilesOfTheirOwnInOneDirectory)
{
    const TemporaryDirectory directory;

    run_on_threads([&directory](int thread) {
        Quorval::PStore store(directory.store_path());
        const std::string name = "state-" + std::to_string(thread);
        for (int round = 0; round < kRounds; ++round) {
            BlockConfiguration config = make_config(thread);
            config.set("round", round);
            store.store(name, config);

            require(store.load(name) == config, "another configuration");
        }
    });
}

TEST(Threads, RefuseInTheirOwnWords)
{
    run_on_threads([](int thread) {
        const std::string key = "missing-" + std::to_string(thread);
        for (int round = 0; round < kRounds; ++round) {
            try {
                BlockConfiguration().getInt(key);
                require(false, "not refused");
            } catch (const std::out_of_range& error) {
                require(error.what() == "BlockConfiguration::getInt failed, the parameter '" + key +
                                            "' does not exist",
                        "another text");
            }
        }
    });
}

UniqueDlPtr<Container> make_block(const std::string& name)
{
    auto block = std::make_unique<Block>(name, BlockConfiguration{{"pstore_path", "/a/path/"}});
    block->add_inport(std::make_unique<Quorval::InPort<int>>("in", Datatype("int32")));
    block->add_outport(std::make_unique<Quorval::OutPort<int>>("out", Datatype("int32")));
    block->make_eventport("wake");
    return UniqueDlPtr<Container>(nullptr, std::move(block));
}

TEST(Threads, BuildAndRunGraphsOfTheirOwn)
{
    const auto shared = std::make_shared<Quorval::RuntimeTools>();

    run_on_threads([&shared](int thread) {
        for (int round = 0; round < kRounds; ++round) {
            Superblock outer("outer");
            Container& first = outer.add_block(make_block("first"));
            Container& second = outer.add_block(make_block("second"));
            outer.add_connection(first, "out", second, "in");
            outer.add_inport("in", first, "in");
            outer.add_outport("out", second, "out");
            for (Block* block : outer.get_blocks()) {
                block->set_tools(shared);
                auto& wake = dynamic_cast<Quorval::EventPort&>(*block->get_fdport("wake"));
                wake.fire();
                wake.trigger(true, false);
                block->reset_fdports(false);
            }
            auto& output = dynamic_cast<Quorval::OutPort<int>&>(first.get_outport("out").second);
            auto& input = dynamic_cast<Quorval::InPort<int>&>(
                *second.get_inport("in").front().second.get_connectable());
            output.write(thread + round);
            input.update(output);

            require(input.value() == thread + round, "another value");
            require(outer.get_connections().size() == 1, "other connections");
            require(outer.get_fdports_info().size() == 1, "other descriptor ports");
        }
    });

    EXPECT_EQ(shared.use_count(), 1);
}

TEST(Threads, LogIntoOneSink)
{
    std::atomic<int> count{0};
    const LogRecorder put_back;
    Quorval::loginstance = std::make_unique<CountingSink>(count);

    run_on_threads([](int thread) {
        for (int round = 0; round < kRounds; ++round) {
            logger(LOGLEVEL_INFO, "round %d", round);
            Quorval::ilog(LOGLEVEL_WARNING) << "thread " << thread << std::endl;
        }
    });

    EXPECT_EQ(count, 2 * kThreads * kRounds);
}

using ThreadsWithPlugins = WithPlugins;

TEST_F(ThreadsWithPlugins, LoadOnePluginWithLoadersOfTheirOwn)
{
    std::atomic<int> messages{0};
    const LogRecorder put_back;
    Quorval::loginstance = std::make_unique<CountingSink>(messages);

    run_on_threads([](int thread) {
        for (int round = 0; round < kRounds; ++round) {
            PluginLoader loader(kPlugin, tools);
            Created created = loader.create("doubler", {{"factor", thread}}, "");
            auto& block = dynamic_cast<Block&>(*std::get<0>(created));
            block.run();

            require(block.has_triggered_port(), "did not run");
        }
    });

    EXPECT_EQ(messages, 2 * kThreads * kRounds);
}

TEST_F(ThreadsWithPlugins, CreateAndDestroyBlocksOfOneLoaderAtOnce)
{
    const PluginLoader loader(kPlugin, tools);

    run_on_threads([&loader](int thread) {
        const BlockConfiguration config{{"factor", thread}};
        for (int round = 0; round < kRounds; ++round) {
            std::vector<Created> blocks;
            for (int block = 0; block < 4; ++block) {
                blocks.push_back(loader.create("doubler", config, ""));
            }

            for (Created& created : blocks) {
                require(dynamic_cast<Block&>(*std::get<0>(created)).run(), "did not run");
            }
        }
    });
}

TEST_F(ThreadsWithPlugins, DestroyTheLastBlocksOfAPluginAfterItsLoader)
{
    std::atomic<int> messages{0};
    const LogRecorder put_back;
    Quorval::loginstance = std::make_unique<CountingSink>(messages);
    for (int round = 0; round < kRounds; ++round) {
        auto loader = std::make_unique<PluginLoader>(kPlugin, tools);
        std::vector<Created> blocks;
        for (int block = 0; block < kThreads; ++block) {
            blocks.push_back(loader->create("doubler", {}, ""));
        }
        loader.reset();

        run_on_threads([&blocks](int thread) {
            std::get<0>(blocks[static_cast<std::size_t>(thread)]) = UniqueDlPtr<Container>();
        });

        // Whichever was the last one has closed the plug-in.
        ASSERT_EQ(messages, 2 * (round + 1));
    }
}

TEST_F(ThreadsWithPlugins, TakeBlocksOfOnePluginIntoGraphsOfTheirOwn)
{
    const PluginLoader loader(kPlugin, tools);

    run_on_threads([&loader](int /*thread*/) {
        for (int round = 0; round < kRounds; ++round) {
            Superblock graph("graph");
            Container& first = graph.add_block(loader.create("doubler", {}, "first"));
            Container& second = graph.add_block(loader.create("doubler", {}, "second"));
            graph.add_connection(first, "out", second, "in");

            require(graph.get_blocks().size() == 2, "other blocks");
            require(graph.get_connections().size() == 1, "other connections");
        }
    });
}

}  // namespace
