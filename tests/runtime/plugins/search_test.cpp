#include "plugins/search.h"

#include "support/support.h"

#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <vector>

namespace {

using Quorval::PluginFile;
using Quorval::runtime::find_plugin;
using Quorval::runtime::installed_plugin_directory;
using Quorval::runtime::list_plugins;
using Quorval::runtime::plugin_directories;
using Quorval::runtime::split_path;
using quorval_test::ScopedEnvironment;
using quorval_test::TemporaryDirectory;
using quorval_test::write_file;

using Names = std::vector<std::string>;

TEST(SplitPath, LeavesOutWhatIsEmpty)
{
    EXPECT_EQ(split_path(""), Names());
    EXPECT_EQ(split_path(":"), Names());
    EXPECT_EQ(split_path("a"), Names{"a"});
    EXPECT_EQ(split_path("/a:b"), (Names{"/a", "b"}));
    EXPECT_EQ(split_path("::/a::b:c:"), (Names{"/a", "b", "c"}));
}

TEST(PluginDirectories, AreThoseGivenThenThoseOfTheEnvironment)
{
    const ScopedEnvironment path("QUORVAL_PLUGIN_PATH", "/b:/c");
    const ScopedEnvironment directory("QUORVAL_PLUGIN_DIR", "/d");

    const Names directories = plugin_directories({"", "a"});

    ASSERT_EQ(directories.size(), 5U);
    EXPECT_EQ(Names(directories.begin(), directories.end() - 1), (Names{"a", "/b", "/c", "/d"}));
    EXPECT_EQ(directories.back(), installed_plugin_directory());
    EXPECT_EQ(directories.back().front(), '/');
}

TEST(PluginDirectories, AreThatOfTheInstallationAlone)
{
    const ScopedEnvironment path("QUORVAL_PLUGIN_PATH", std::nullopt);
    const ScopedEnvironment directory("QUORVAL_PLUGIN_DIR", std::nullopt);

    EXPECT_EQ(plugin_directories({}), Names{installed_plugin_directory()});
}

TEST(FindPlugin, JoinsDirectoriesAndNames)
{
    const TemporaryDirectory directory;
    write_file(directory.path() / "a.so", "");

    for (const std::string& given : {directory.path().string(), directory.store_path()}) {
        const PluginFile found = find_plugin("a", {"/nowhere", given});
        EXPECT_EQ(found.name, "a");
        EXPECT_EQ(found.file, directory.store_path() + "a.so");
        EXPECT_EQ(found.problem, "");
    }
    const PluginFile none = find_plugin("b", {"/nowhere", directory.path()});
    EXPECT_EQ(none.name, "b");
    EXPECT_EQ(none.file, "");
    EXPECT_EQ(none.problem, "there is no plug-in 'b' in /nowhere:" + directory.path().string());
    EXPECT_EQ(find_plugin("b", {}).problem, "there is no plug-in 'b' in ");
}

TEST(ListPlugins, HasEachNameOnceInOrder)
{
    const TemporaryDirectory first;
    const TemporaryDirectory second;
    for (const char* const name : {"b.so", "d.so", "x.sox", "y"}) {
        write_file(first.path() / name, "");
    }
    for (const char* const name : {"a.so", "b.so", "no name.so"}) {
        write_file(second.path() / name, "");
    }

    Names files;
    for (const PluginFile& plugin : list_plugins({"/nowhere", first.path(), second.path()})) {
        EXPECT_EQ(plugin.problem, "");
        files.push_back(plugin.file);
    }
    EXPECT_EQ(files, (Names{second.path() / "a.so", first.path() / "b.so", first.path() / "d.so"}));
}

}  // namespace
