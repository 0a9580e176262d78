#include <quorval/runtime/plugin.h>
#include "runtime/support/graph_files.h"
#include "support/support.h"

#include <gtest/gtest.h>

#include <dlfcn.h>

#include <filesystem>
#include <map>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>
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

TEST(PluginViewTest, MakesABlockAndShowsItsPorts)
{
    using Names = std::map<std::string, std::string>;
    const BlockPorts ports = PluginView(plugin("parts"))
                                 .make_block("Ports", {{"inputs", {"in:double", "more:int32"}},
                                                       {"outputs", {"out:label"}}});

    EXPECT_EQ(ports.inports, (Names{{"in", "double"}, {"more", "int32"}}));
    EXPECT_EQ(ports.outports, (Names{{"out", "label"}}));
    EXPECT_EQ(ports.fdports, Names());
    EXPECT_TRUE(ports.dbus.empty());

    const BlockPorts idle = PluginView(plugin("running")).make_block("Tell", {{"is_idle", true}});
    EXPECT_EQ(idle.fdports, (Names{{"never", "extfd"}}));
    const BlockPorts on_bus = PluginView(plugin("own_port")).make_block("OnBus", {});
    ASSERT_EQ(on_bus.dbus.size(), 1U);
    EXPECT_EQ(on_bus.dbus[0].first, "/OnBus");
    EXPECT_EQ(on_bus.dbus[0].second, "quorval.test.OnBus");
}

TEST(PluginViewTest, SaysAllThatIsWrongWithAConfiguration)
{
    const PluginView view(plugin("parts"));
    const std::vector<std::pair<BlockConfiguration, std::string>> cases = {
        {{}, "'needed' is missing"},
        {{{"needed", 10}}, "'needed' has to be from 1 to 9, not 10"},
        {{{"needed", true}, {"mode", "middle"}},
         "BlockConfiguration::getInt failed, the parameter 'needed' is type: bool; 'mode' has to "
         "be one of up, down, not 'middle'"},
        {{{"needed", 1}, {"tapes", {0.5, 1.0}}, {"other", 1}},
         "block type 'parts:Declared' has no setting 'other'; block type 'parts:Declared' has no "
         "setting 'tapes'; did you mean 'taps'?"},
        {{{"taps", {0.5}}}, "'needed' is missing; 'taps' has to be of 2 to 3 items, not 1"},
    };
    for (const auto& [config, text] : cases) {
        expect_throw<std::runtime_error>(
            [&, config = config] { view.make_block("Declared", config); }, text);
    }
    EXPECT_NO_THROW(view.make_block("Declared", {{"needed", 1}, {"pstore_path", "/nowhere/"}}));
}

TEST(PluginViewTest, SaysWhyABlockCannotBeMade)
{
    const PluginView view(plugin("parts"));
    const std::vector<std::pair<std::string, std::string>> cases = {
        {"ThrowsItsOwn", "an exception of its own"},
        {"ThrowsANumber", "an unknown exception"},
        {"Null", "Create function returned no block for Null"},
        {"Composite", "it is no plain block"},
        {"Tells", "Tells in , dry"},
    };
    for (const auto& [type, text] : cases) {
        expect_throw<std::runtime_error>([&, type = type] { view.make_block(type, {}); },
                                         "block '" + type + "' cannot be created: " + text);
    }
}

// A thread that a block leaves must not lose its code.
TEST(PluginViewTest, LeavesTheCodeOfThePluginLoaded)
{
    const PluginFile file = plugin("registers_nothing");
    const auto is_loaded = [&file] {
        void* handle = ::dlopen(file.file.c_str(), RTLD_NOW | RTLD_NOLOAD);
        return handle != nullptr && ::dlclose(handle) == 0;
    };
    ASSERT_FALSE(is_loaded());

    PluginView(file).types();

    EXPECT_TRUE(is_loaded());
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
