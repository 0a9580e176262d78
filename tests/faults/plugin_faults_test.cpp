#include <quorval/block.h>
#include <quorval/dlloader.h>
#include <quorval/pluginloader.h>
#include <quorval/superblock.h>
#include "faults/faults.h"

#include <memory>
#include <sstream>
#include <stdexcept>
#include <string>
#include <tuple>

namespace Quorval {

// The application's to define: here it holds nothing.
struct InitTools {};

}  // namespace Quorval

namespace {

using namespace quorval_test;
using Quorval::Block;
using Quorval::BlockConfiguration;
using Quorval::Container;
using Quorval::DlLoader;
using Quorval::PluginLoader;
using Quorval::Superblock;
using Quorval::UniqueDlPtr;

const char* const kPlugin = "quorval_test_faults_plugin.so";
const char* const kType = "a-plain-block-with-a-long-type-name";

const Quorval::InitTools tools;

class PluginOutOfMemory : public testing::Test {
protected:
    static std::unique_ptr<PluginLoader> prepare()
    {
        return std::make_unique<PluginLoader>(kPlugin, tools);
    }

    /// Whether the types that it had can still be created, and no other.
    static std::string describe_loader(PluginLoader& loader)
    {
        std::string text;
        for (const char* type : {kType, "t", "another"}) {
            try {
                const auto created = loader.create(type, BlockConfiguration(), "a");
                text += std::get<0>(created)->get_name() + "|";
            } catch (const std::runtime_error& error) {
                text += std::string(error.what()) + "|";
            }
        }
        return text;
    }

private:
    ScopedEnvironment directory_{"QUORVAL_PLUGIN_DIR", QUORVAL_TEST_PLUGIN_DIR};
};

TEST_F(PluginOutOfMemory, CreatesABlockWholeOrNotAtAll)
{
    const BlockConfiguration config{{"returned", {{"an-element-with-a-long-key", 5}}}};
    const auto create = [&config](PluginLoader& loader) {
        const auto created = loader.create(kType, config, "a-block-with-a-long-name");
        EXPECT_EQ(std::get<0>(created)->get_name(), "a-block-with-a-long-name");
        EXPECT_EQ(std::get<1>(created).getInt("an-element-with-a-long-key"), 5);
    };

    EXPECT_GT(fail_each_allocation(prepare, create, describe_loader), 0U);
}

// A stream of the standard library swallows the failed allocation and gives a cut text, so that
// blocks could come out with the same short name.
TEST_F(PluginOutOfMemory, GeneratesAWholeNameOrNone)
{
    for (const char* const type : {kType, "t"}) {
        SCOPED_TRACE(type);
        const auto create = [type](PluginLoader& loader) {
            const auto created = loader.create(type, BlockConfiguration(), "");
            const Container* block = std::get<0>(created).get();
            char expected[128];
            std::snprintf(expected, sizeof expected, "%s_%p", type,
                          static_cast<const void*>(block));
            EXPECT_STREQ(block->get_name().c_str(), expected);
        };

        EXPECT_GT(fail_each_allocation(prepare, create, describe_loader), 0U);
    }
}

TEST_F(PluginOutOfMemory, StaysAsItWasWhenARequestIsRefused)
{
    const auto refuse_unknown = [](PluginLoader& loader) {
        refuse<std::runtime_error>(
            [&] { loader.create("a-type-that-nobody-has-registered", {}, "a"); });
    };
    const auto refuse_twice = [](PluginLoader& loader) {
        refuse<std::runtime_error>([&] { loader.register_block_create_fn(kType, {}); });
    };
    const auto refuse_type = [](PluginLoader& loader) {
        refuse<std::runtime_error>([&] { loader.register_type("a-data-type-with-a-long-name"); });
    };

    EXPECT_GT(fail_each_allocation(prepare, refuse_unknown, describe_loader), 0U);
    EXPECT_GT(fail_each_allocation(prepare, refuse_twice, describe_loader), 0U);
    EXPECT_GT(fail_each_allocation(prepare, refuse_type, describe_loader), 0U);
}

TEST_F(PluginOutOfMemory, StaysAsItWasWhenATypeCannotBeRegistered)
{
    const auto act = [](PluginLoader& loader) {
        const std::string captured = "a text that the create function keeps, not a short one";
        loader.register_block_create_fn(
            "another",
            [captured](std::string, const BlockConfiguration&, const Quorval::InitTools&)
                -> std::unique_ptr<Container> { throw std::runtime_error(captured); });
    };

    EXPECT_GT(fail_each_allocation(prepare, act, describe_loader), 0U);
}

TEST_F(PluginOutOfMemory, ClosesAPluginThatCannotBeLoadedOrEndsTheProcessInAMessage)
{
    const auto load = [] { PluginLoader loader(kPlugin, tools); };

    for (const Mode mode : kModes) {
        const Endings endings = fail_each_allocation_in_child(mode, load);

        // A message about the loading, one about the unloading.
        EXPECT_LE(endings.terminated, 2U) << name_of(mode);
        EXPECT_GT(endings.ran_out, 0U) << name_of(mode);
    }
}

TEST_F(PluginOutOfMemory, LetsGoOfAMemberThatASuperblockRefusesOrEndsTheProcessInAMessage)
{
    const auto act = [] {
        Superblock graph("graph");
        graph.add_block({nullptr, std::make_unique<Block>("a-block-with-a-long-name")});
        auto created = PluginLoader(kPlugin, tools).create(kType, {}, "a-block-with-a-long-name");
        // The member holds the last share of the plug-in, and is destroyed when it is refused.
        refuse<std::runtime_error>([&] { graph.add_block(std::move(created)); });
    };

    for (const Mode mode : kModes) {
        const Endings endings = fail_each_allocation_in_child(mode, act);

        // A message about the loading, one about the unloading.
        EXPECT_LE(endings.terminated, 2U) << name_of(mode);
        EXPECT_GT(endings.ran_out, 0U) << name_of(mode);
    }
}

TEST_F(PluginOutOfMemory, PassesAPluginOnWithoutAnAllocation)
{
    struct Held {
        UniqueDlPtr<Container> first =
            std::get<0>(PluginLoader(kPlugin, tools).create("t", {}, "a"));
        UniqueDlPtr<Container> second;
    };
    const auto act = [](Held& held) {
        UniqueDlPtr<Container> moved(std::move(held.first));
        held.second = std::move(moved);
        held.second->get_name();
    };
    const auto look = [](Held& held) { return std::string(held.second ? "second" : "first"); };

    EXPECT_EQ(fail_each_allocation([] { return std::make_unique<Held>(); }, act, look), 0U);
}

TEST_F(PluginOutOfMemory, ClosesALibraryThatCannotBeOpenedOrEndsTheProcessInAMessage)
{
    const std::string path = std::string(QUORVAL_TEST_PLUGIN_DIR) + "/" + kPlugin;
    const auto load = [&path] {
        DlLoader loader(path);
        EXPECT_NE(loader.get_fn_address("lib_register_cpp"), nullptr);
        EXPECT_EQ(loader.get_fn_address("a_symbol_that_is_not_there"), nullptr);
        loader.get_path();
    };

    for (const Mode mode : kModes) {
        const Endings endings = fail_each_allocation_in_child(mode, load);

        EXPECT_LE(endings.terminated, 2U) << name_of(mode);
        EXPECT_GT(endings.ran_out, 0U) << name_of(mode);
    }
}

TEST_F(PluginOutOfMemory, LosesNothingWhenALibraryIsRefused)
{
    EXPECT_GT(fail_each_allocation([] {
                  refuse<std::runtime_error>([] { DlLoader("/a/library/that/is/not/there.so"); });
              }),
              0U);
    EXPECT_GT(fail_each_allocation([] {
                  refuse<std::runtime_error>([] { PluginLoader("a-missing-plug-in.so", tools); });
              }),
              0U);
    EXPECT_GT(fail_each_allocation([] {
                  refuse<std::runtime_error>([] { PluginLoader("with/a/path.so", tools); });
              }),
              0U);
    const ScopedEnvironment unset("QUORVAL_PLUGIN_DIR", std::nullopt);
    EXPECT_GT(fail_each_allocation(
                  [] { refuse<std::runtime_error>([] { PluginLoader(kPlugin, tools); }); }),
              0U);
}

}  // namespace
