// Plug-ins that were built against the installed headers.
#include <quorval/pluginloader.h>
#include <quorval/superblock.h>
#include "support/support.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <filesystem>
#include <memory>
#include <string>
#include <tuple>
#include <utility>

using Quorval::Block;
using Quorval::BlockConfiguration;
using Quorval::Container;
using Quorval::FdPort;
using Quorval::PluginLoader;
using Quorval::Superblock;
using Quorval::UniqueDlPtr;

namespace Quorval {

struct InitTools {};

}  // namespace Quorval

namespace {

class BuiltPlugin : public testing::Test {
protected:
    bool is_mapped(const std::string& file) const
    {
        return quorval_test::read_file("/proc/self/maps").find("/" + file) != std::string::npos;
    }

    Quorval::InitTools tools_;

private:
    quorval_test::ScopedEnvironment directory_{"QUORVAL_PLUGIN_DIR", QUORVAL_TEST_PLUGIN_DIR};
};

TEST_F(BuiltPlugin, CreatesBlocksThatRun)
{
    PluginLoader loader("abi_gain.so", tools_);

    auto [block, setup] = loader.create("Gain", {{"gain", 0.5}}, "left");

    auto& gain = dynamic_cast<Block&>(*block);
    EXPECT_TRUE(gain.run());
    const Quorval::OutPortInternal& out = gain.get_outport("out").second;
    EXPECT_EQ(*static_cast<const double*>(out.get_data()), 0.5);
    EXPECT_TRUE(out.is_triggered());
}

TEST_F(BuiltPlugin, IsGoneFromTheProcessMapWhenLoaderAndBlocksAreGone)
{
    auto loader = std::make_unique<PluginLoader>("abi_gain.so", tools_);
    auto created = loader->create("Gain", {{"gain", 1.0}}, "left");
    UniqueDlPtr<Container> block = std::move(std::get<0>(created));
    dynamic_cast<Block&>(*block).run();

    const bool mapped_at_first = is_mapped("abi_gain.so");
    loader.reset();
    const bool mapped_with_block = is_mapped("abi_gain.so");
    block = UniqueDlPtr<Container>();
    const bool mapped_at_last = is_mapped("abi_gain.so");

    EXPECT_TRUE(mapped_at_first);
    EXPECT_TRUE(mapped_with_block);
    EXPECT_FALSE(mapped_at_last);
}

TEST_F(BuiltPlugin, StartsAfreshWhenItIsLoadedAgain)
{
    for (int round = 0; round < 3; ++round) {
        PluginLoader loader("abi_gain.so", tools_);

        auto created = loader.create("Gain", {{"gain", 1.0}}, "left");
        auto& gain = dynamic_cast<Block&>(*std::get<0>(created));
        gain.run();

        // The plug-in counts its blocks in a static, so the first of each loading writes 1.
        const void* data = gain.get_outport("out").second.get_data();
        EXPECT_EQ(*static_cast<const double*>(data), 1.0) << "round " << round;
    }
}

TEST_F(BuiltPlugin, HasItsOwnMembersDirectlyBehindTheTwoPointersOfABlock)
{
    PluginLoader loader("abi_wider.so", tools_);

    auto [block, setup] = loader.create("Wide", {}, "wide");

    EXPECT_EQ(setup.getInt("offset"), 2 * static_cast<int>(sizeof(void*)));
}

TEST_F(BuiltPlugin, KeepsItsOwnMembersAndOperationsWhateverIsCalledOnItsBase)
{
    PluginLoader loader("abi_wider.so", tools_);
    auto created = loader.create("Wide", {{"pstore_path", "/nowhere/"}, {"rate", 1}}, "wide");
    auto& block = dynamic_cast<Block&>(*std::get<0>(created));
    Quorval::OutPort<int> source("source", Quorval::Datatype("int32"));
    source.write(7);

    block.setup({});
    block.set_name(std::string(1000, 'n'));
    block.add_outport(std::make_unique<Quorval::OutPort<int>>("out", Quorval::Datatype("int32")));
    block.make_fdport("fd", 0, {true, false});
    block.get_inport("in").front().second.get_connectable()->update(source);
    block.start();
    block.get_fdport("tick")->trigger(false, false);
    block.get_fdport("tick")->set_eventmask({true, true});
    block.override_config({{"rate", 2}});
    block.reset_inports(true);
    block.stop();

    EXPECT_TRUE(block.run());
    EXPECT_EQ(block.get_name(), std::string(1000, 'n'));
    EXPECT_EQ(block.get_fdports_info().size(), 2U);
}

TEST_F(BuiltPlugin, MayDeriveFromASuperblockAndFillIt)
{
    PluginLoader loader("abi_wider.so", tools_);
    auto outer = loader.create("WideSuper", {}, "outer");
    auto& superblock = dynamic_cast<Superblock&>(*std::get<0>(outer));

    superblock.add_block(loader.create("Wide", {}, "a"));
    superblock.add_block(loader.create("Wide", {}, "b"));
    superblock.add_inport("in", superblock.get_block("a"), "in");
    superblock.set_name("renamed");

    EXPECT_TRUE(superblock.setup({}).getBool("intact"));
    EXPECT_EQ(superblock.get_blocks().size(), 2U);
    EXPECT_TRUE(superblock.get_blocks().front()->run());
    EXPECT_EQ(superblock.get_fdports_info().count("renamed::tick"), 1U);
}

}  // namespace
