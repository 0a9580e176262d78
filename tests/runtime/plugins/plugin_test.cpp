// What plug-ins throw and give.
#include "plugins/plugin.h"

#include <quorval/block.h>
#include <quorval/superblock.h>
#include "messages/plugin_code.h"
#include "plugins/plugin_set.h"
#include "runtime/support/graph_files.h"
#include "support/support.h"

#include <gtest/gtest.h>

#include <dlfcn.h>

#include <exception>
#include <filesystem>
#include <memory>
#include <stdexcept>
#include <string>

namespace {

using Quorval::Block;
using Quorval::Container;
using Quorval::Superblock;
using Quorval::UniqueDlPtr;
using Quorval::runtime::find_plugin_code;
using Quorval::runtime::Plugin;
using Quorval::runtime::PluginSet;
using Quorval::runtime::text_of_failure;
using Quorval::runtime::to_block;
using quorval_test::expect_throw;

struct Silent : std::exception {
    explicit Silent(const char* given) : text(given) {}
    const char* what() const noexcept override { return text; }
    const char* text;
};

struct Plain : Block {
    using Block::Block;
};

TEST(TextOfFailure, IsThatOfTheException)
{
    bool is_called = false;

    EXPECT_EQ(text_of_failure([&] { is_called = true; }), "");
    EXPECT_TRUE(is_called);
    EXPECT_EQ(text_of_failure([] { throw std::runtime_error("a text"); }), "a text");
    EXPECT_EQ(text_of_failure([] { throw 42; }), "an unknown exception");
}

TEST(TextOfFailure, IsNeverEmpty)
{
    EXPECT_EQ(text_of_failure([] { throw Silent(""); }), "an exception without a text");
    EXPECT_EQ(text_of_failure([] { throw Silent(nullptr); }), "an exception without a text");
}

TEST(ToBlock, TakesPlainBlocksAlone)
{
    const auto add = [](Superblock& superblock, const std::string& name) {
        superblock.add_block(UniqueDlPtr<Container>(nullptr, std::make_unique<Plain>(name)));
    };
    Plain plain("a");
    Superblock superblock("s");

    EXPECT_EQ(&to_block(plain), &plain);
    for (const char* const name : {"a", "b", "c"}) {
        expect_throw<std::runtime_error>([&] { to_block(superblock); }, "it is no plain block");
        add(superblock, name);
    }
    expect_throw<std::runtime_error>([&] { to_block(superblock); }, "it is no plain block");
}

/// Code of the plug-in that is loaded from the file.
const void* find_code(const std::string& file)
{
    void* const handle = ::dlopen(file.c_str(), RTLD_NOW | RTLD_NOLOAD);
    const void* const code = ::dlsym(handle, "lib_register_cpp");
    ::dlclose(handle);
    return code;
}

TEST(PluginCode, IsKnownAsLongAsThePluginIsThere)
{
    const std::string file = quorval_test::test_plugin_directory() + "/parts.so";
    const Quorval::InitTools tools;
    auto plugin = std::make_unique<Plugin>(file, tools);
    const void* const code = find_code(file);
    ASSERT_NE(code, nullptr);
    EXPECT_EQ(find_plugin_code(code), "parts");

    plugin.reset();

    EXPECT_EQ(find_plugin_code(code), "");
}

TEST(PluginCode, StaysKnownWherePluginsAreKept)
{
    const std::string file = quorval_test::test_plugin_directory() + "/running.so";
    const Quorval::InitTools tools;

    std::make_unique<Plugin>(file, tools, true).reset();

    const void* const code = find_code(file);
    ASSERT_NE(code, nullptr);
    EXPECT_EQ(find_plugin_code(code), "running");
}

TEST(PluginSetTest, UnloadsItsPluginsUnlessTheyAreKept)
{
    const Quorval::InitTools tools;
    const quorval_test::TemporaryDirectory directory;
    const std::string file = directory.path() / "registers_nothing.so";
    // A copy, since what is kept is there for as long as the process.
    std::filesystem::copy_file(quorval_test::test_plugin_directory() + "/registers_nothing.so",
                               file);
    const auto is_loaded = [&] {
        void* const handle = ::dlopen(file.c_str(), RTLD_NOW | RTLD_NOLOAD);
        return handle != nullptr && ::dlclose(handle) == 0;
    };

    EXPECT_NE(PluginSet({directory.path()}, tools).get("registers_nothing").plugin, nullptr);
    EXPECT_FALSE(is_loaded());
    EXPECT_NE(PluginSet({directory.path()}, tools, true).get("registers_nothing").plugin, nullptr);
    EXPECT_TRUE(is_loaded());
}

TEST(PluginSetTest, LoadsAPluginOnce)
{
    const Quorval::InitTools tools;
    PluginSet plugins({quorval_test::test_plugin_directory()}, tools);

    const Plugin* const plugin = plugins.get("parts").plugin.get();
    EXPECT_NE(plugin, nullptr);
    EXPECT_EQ(plugins.get("parts").plugin.get(), plugin);
    EXPECT_NE(plugins.get("running").plugin.get(), plugin);
}

}  // namespace
