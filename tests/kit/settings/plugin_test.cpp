// Settings in a plug-in: what reaches the registry, and whether the plug-in goes away again.
#include <quorval/dlloader.h>
#include <quorval/settings.h>
#include "process_map.h"
#include "support/support.h"

#include <gtest/gtest.h>

#include <functional>
#include <map>
#include <memory>
#include <stdexcept>
#include <string>

namespace Quorval {
struct InitTools {
    int number = 0;
};
}  // namespace Quorval

namespace {

using Quorval::BlockConfiguration;
using Quorval::DlLoader;
using Quorval::InitTools;
using quorval_test::expect_throw;
using quorval_test::fixture_dir;
using quorval_test::fixture_path;
using quorval_test::is_mapped;
using quorval_test::ScopedEnvironment;

using CreateFunction = std::function<std::unique_ptr<Quorval::Container>(
    std::string, const BlockConfiguration&, const InitTools&)>;

/// A registry that takes descriptions.
class Registry : public Quorval::IRegistry, public Quorval::IDescriptionRegistry {
public:
    void register_block_create_fn(const std::string& type, CreateFunction fn) override
    {
        functions[type] = std::move(fn);
    }
    void register_type(const std::string& /*name*/) override {}
    void describe_block(const std::string& type, const BlockConfiguration& description) override
    {
        EXPECT_EQ(functions.count(type), 1U);
        descriptions[type] = description;
    }

    std::map<std::string, CreateFunction> functions;
    std::map<std::string, BlockConfiguration> descriptions;
};

void register_plugin(DlLoader& plugin, Registry& registry)
{
    auto* const entry =
        reinterpret_cast<int (*)(Quorval::IRegistry&)>(plugin.get_fn_address("lib_register_cpp"));
    ASSERT_NE(entry, nullptr);
    ASSERT_EQ(entry(registry), 0);
}

TEST(DeclaringPlugin, HandsItsDescriptionOver)
{
    const auto plugin = std::make_shared<DlLoader>(fixture_path("settings_gain.so"));
    Registry registry;

    register_plugin(*plugin, registry);

    ASSERT_EQ(registry.descriptions.size(), 1U);
    const BlockConfiguration& description = registry.descriptions.at("Gain");
    EXPECT_EQ(description.getString("summary"), "Multiplies every sample.");
    EXPECT_EQ(description.getString("settings.2.key"), "taps");
    EXPECT_EQ(Quorval::read_settings(description).size(), 3U);
}

#ifdef QUORVAL_PLUGIN_WITHOUT_RTTI
TEST(DeclaringPlugin, RegistersWithoutRunTimeTypesAndKeepsItsDescription)
{
    const auto plugin = std::make_shared<DlLoader>(fixture_path("settings_gain_without_rtti.so"));
    Registry registry;

    register_plugin(*plugin, registry);

    EXPECT_TRUE(registry.descriptions.empty());
    const auto block = registry.functions.at("Gain")("g", {}, InitTools());
    EXPECT_EQ(block->get_name(), "g");
}
#endif

class SettingsPlugin : public testing::TestWithParam<std::string> {};

TEST_P(SettingsPlugin, WorksInALoaderThatKnowsNoDescriptionsAndIsUnloaded)
{
    const std::string file = GetParam() + ".so";
    const ScopedEnvironment directory("QUORVAL_PLUGIN_DIR", fixture_dir());
    const InitTools tools;
    {
        const Quorval::PluginLoader loader(file, tools);
        EXPECT_TRUE(is_mapped(fixture_path(file)));
        const auto gain = loader.create("Gain", {{"factor", 0.5}}, "gain");
        Quorval::Block& block = *std::get<0>(gain)->get_blocks().at(0);

        block.override_config({{"factor", 3}});
        expect_throw<std::invalid_argument>(
            [&] {
                block.override_config({{"mode", "dB"}});
            },
            "'mode' cannot be changed while the graph runs");
        expect_throw<std::invalid_argument>(
            [&] {
                loader.create("Gain", {{"factor", 1001}}, "other");
            },
            "'factor' has to be from -1000 to 1000, not 1001");

        EXPECT_EQ(block.get_inports_info().at("in").get_name(), "double");
    }
    EXPECT_FALSE(is_mapped(fixture_path(file)));
}

INSTANTIATE_TEST_SUITE_P(Plugins, SettingsPlugin, testing::Values("settings_gain"));
#ifdef QUORVAL_PLUGIN_WITHOUT_RTTI
INSTANTIATE_TEST_SUITE_P(PluginsWithoutRunTimeTypes, SettingsPlugin,
                         testing::Values("settings_gain_without_rtti"));
#endif

TEST(DeclaringPlugin, IsRefusedWhenItsDeclarationIsWrong)
{
    const ScopedEnvironment directory("QUORVAL_PLUGIN_DIR", fixture_dir());
    const InitTools tools;

    expect_throw<std::logic_error>(
        [&] { const Quorval::PluginLoader loader("settings_gain_wrong.so", tools); },
        "block type 'Gain': setting 'factor' (double): its default is wrong: 'factor' has to be "
        "from -0.5 to 0.5, not 1");

    EXPECT_FALSE(is_mapped(fixture_path("settings_gain_wrong.so")));
}

class WithTools : public Quorval::Block {
public:
    WithTools(std::string name, const BlockConfiguration& config, const InitTools& tools)
        : Block(std::move(name), config), number(tools.number)
    {
    }

    int number;
};

struct Nothing {};

TEST(RegisterBlock, PassesTheToolsToAConstructorThatTakesThem)
{
    Registry registry;

    Quorval::register_block<WithTools>(registry, "T", Quorval::Settings<Nothing>("Has tools."));

    const auto block = registry.functions.at("T")("t", {}, InitTools{7});
    EXPECT_EQ(static_cast<WithTools&>(*block).number, 7);
}

}  // namespace
