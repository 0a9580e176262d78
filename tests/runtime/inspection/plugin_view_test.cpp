#include <quorval/runtime/plugin.h>
#include "runtime/support/graph_files.h"
#include "support/support.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

using namespace Quorval;
using quorval_test::expect_throw;
using quorval_test::ScopedEnvironment;
using quorval_test::TemporaryDirectory;
using quorval_test::write_file;

PluginFile plugin(const std::string& name)
{
    return find_plugin(name, {quorval_test::test_plugin_directory()});
}

TEST(FindPlugin, TakesTheFirstDirectoryThatHasIt)
{
    const TemporaryDirectory first;
    const TemporaryDirectory second;
    write_file(second.path() / "a.so", "");
    const ScopedEnvironment path("QUORVAL_PLUGIN_PATH", second.path().string());
    const ScopedEnvironment directory("QUORVAL_PLUGIN_DIR", std::nullopt);

    EXPECT_EQ(find_plugin("a", {first.path()}).file, second.path() / "a.so");
    write_file(first.path() / "a.so", "");
    const PluginFile found = find_plugin("a", {first.path()});
    EXPECT_EQ(found.name, "a");
    EXPECT_EQ(found.file, first.path() / "a.so");
    EXPECT_EQ(found.problem, "");
}

TEST(FindPlugins, ListsNamesThatAGraphCanHave)
{
    const TemporaryDirectory directory;
    for (const std::string name : {"b.so", "a-1.so", "not a name.so", "x.so.1", "lib.a", ".so"}) {
        write_file(directory.path() / name, "");
    }
    std::filesystem::create_symlink("nowhere", directory.path() / "gone.so");
    const ScopedEnvironment path("QUORVAL_PLUGIN_PATH", std::nullopt);
    const ScopedEnvironment other("QUORVAL_PLUGIN_DIR", std::nullopt);

    std::vector<std::string> names;
    for (const PluginFile& file : find_plugins({directory.path(), "/nowhere/at/all"})) {
        names.push_back(file.name);
    }
    EXPECT_EQ(names, (std::vector<std::string>{"a-1", "b"}));
}

TEST(PluginViewTest, ShowsTypesAndPorts)
{
    const PluginView view(plugin("running"));

    EXPECT_FALSE(view.types().empty());
    for (const std::string& type : view.types()) {
        EXPECT_EQ(view.description(type), nullptr) << type;
    }
}

TEST(PluginViewTest, SaysWhyAPluginCannotBeLoaded)
{
    expect_throw<std::runtime_error>([] { PluginView view(plugin("throws")); },
                                     "plug-in 'throws' cannot be loaded: an exception of its own");
    expect_throw<std::runtime_error>(
        [] {
            PluginView view({"x", "/x.so", "a problem"});
        },
        "a problem");
}

TEST(ReadAssignments, GivesAConfiguration)
{
    const BlockConfiguration config =
        read_assignments({"a=1", "b.c=[1, 2.5]", "d=plain text", "e={f = true}", "a=2"});

    EXPECT_EQ(config.getInt("a"), 2);
    EXPECT_EQ(config.getDoubleVector("b.c"), (std::vector<double>{1, 2.5}));
    EXPECT_EQ(config.getString("d"), "plain text");
    EXPECT_TRUE(config.getBool("e.f"));
}

TEST(ReadAssignments, RefusesWhatIsNone)
{
    for (const std::string text : {"", "a", "=1"}) {
        expect_throw<std::invalid_argument>([&] { read_assignments({text}); },
                                            "'" + text + "' is not of the form KEY=VALUE");
    }
    expect_throw<std::invalid_argument>([] { read_assignments({"a=[]"}); }, "'a' is an empty list");
}

}  // namespace
