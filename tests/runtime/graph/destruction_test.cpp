#include "graph/destruction.h"

#include "runtime/support/graph_files.h"

#include <gtest/gtest.h>

#include <dlfcn.h>

#include <optional>
#include <string>

using Quorval::runtime::context;
using Quorval::runtime::ContextScope;
using Quorval::runtime::Destruction;
using quorval_test::GraphFiles;

namespace {

std::string present()
{
    return context().path == nullptr ? "none" : context().path;
}

TEST(Destruction, NamesBlocksAsSuperblocksDestroyThem)
{
    std::optional<Destruction> destruction(std::in_place);
    for (const char* path : {"b/y", "c", "a", "b-c/x", "ab", "b/x", "aa"}) {
        destruction->add(path);
    }
    destruction->next();
    EXPECT_EQ(present(), "none");

    destruction->begin();
    EXPECT_STREQ(context().operation, "destroy");
    for (const char* path : {"c", "b-c/x", "b/y", "b/x", "ab", "aa", "a"}) {
        EXPECT_EQ(present(), path);
        destruction->next();
    }
    EXPECT_EQ(present(), "none");
}

TEST(Destruction, PutsTheContextBackAtItsEnd)
{
    {
        Destruction destruction;
        destruction.add("a");
        destruction.begin();
    }

    EXPECT_EQ(present(), "none");
}

TEST(Destruction, PutsAContextBackThatWasThere)
{
    const ContextScope outer("outer", "run");
    {
        Destruction destruction;
        destruction.add("a");
        destruction.begin();
        EXPECT_EQ(present(), "a");
        destruction.next();
        EXPECT_EQ(present(), "outer");
    }
    EXPECT_EQ(present(), "outer");
    EXPECT_STREQ(context().operation, "run");
}

TEST(Destruction, OfAGraphLeavesNoContext)
{
    GraphFiles files;
    files.load("blocks.b.type = \"parts:Gain\"\nblocks.a.type = \"parts:Gain\"\n");

    EXPECT_EQ(present(), "none");
    EXPECT_EQ(context().operation, nullptr);
}

TEST(LoadedPlugins, StayWhereTheyAreKept)
{
    GraphFiles files;
    files.write("g.toml", "format = 1\nblocks.a.type = \"registers_nothing:A\"\n");
    const std::string plugin = quorval_test::test_plugin_directory() + "/registers_nothing.so";
    const auto is_loaded = [&] {
        void* handle = ::dlopen(plugin.c_str(), RTLD_NOW | RTLD_NOLOAD);
        return handle != nullptr && ::dlclose(handle) == 0;
    };
    Quorval::GraphOptions options = files.options();

    files.findings(options);
    EXPECT_FALSE(is_loaded());

    options.keeps_plugins = true;
    files.findings(options);
    EXPECT_TRUE(is_loaded());
}

}  // namespace
