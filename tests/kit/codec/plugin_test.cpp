// A codec in a plug-in: what reaches the registry, and whether the plug-in goes away again.
#include <quorval/codec.h>
#include <quorval/dlloader.h>
#include "plugins/points.h"
#include "process_map.h"
#include "support/support.h"

#include <gtest/gtest.h>

#include <functional>
#include <map>
#include <memory>
#include <string>

namespace Quorval {
struct InitTools {};
}  // namespace Quorval

namespace {

using Quorval::BlockConfiguration;
using Quorval::Codec;
using Quorval::DlLoader;
using Quorval::InitTools;
using quorval_test::fixture_dir;
using quorval_test::fixture_path;
using quorval_test::is_mapped;
using quorval_test::ScopedEnvironment;

/// A registry that takes codecs.
class Registry : public Quorval::IRegistry, public Quorval::ICodecRegistry {
public:
    using CreateFunction = std::function<std::unique_ptr<Quorval::Container>(
        std::string, const BlockConfiguration&, const InitTools&)>;

    void register_block_create_fn(const std::string& /*type*/, CreateFunction /*fn*/) override {}
    void register_type(const std::string& /*name*/) override {}
    void add_codec(const std::string& type, const Codec& codec) override { codecs[type] = codec; }

    std::map<std::string, Codec> codecs;
};

void register_plugin(DlLoader& plugin, Registry& registry)
{
    auto* const entry =
        reinterpret_cast<int (*)(Quorval::IRegistry&)>(plugin.get_fn_address("lib_register_cpp"));
    ASSERT_NE(entry, nullptr);
    ASSERT_EQ(entry(registry), 0);
}

TEST(PluginWithACodec, HandsItOverAndIsUnloadedWithItsLastValueGone)
{
    {
        const auto plugin = std::make_shared<DlLoader>(fixture_path("codec_points.so"));
        Registry registry;
        register_plugin(*plugin, registry);
        ASSERT_EQ(registry.codecs.size(), 1U);
        const Codec& codec = registry.codecs.at("points");
        const Points points{"a", {{1, 2}, {3, 4}}};
        std::string bytes;

        codec.encode(&points, bytes);
        const auto decoded = std::static_pointer_cast<Points>(codec.make());
        codec.decode(bytes, decoded.get());

        EXPECT_EQ(decoded->name, "a");
        ASSERT_EQ(decoded->points.size(), 2U);
        EXPECT_EQ(decoded->points[1].x, 3);
        EXPECT_EQ(decoded->points[1].y, 4);
    }
    EXPECT_FALSE(is_mapped(fixture_path("codec_points.so")));
}

TEST(PluginWithACodec, WorksInALoaderThatKnowsNoCodecs)
{
    const ScopedEnvironment directory("QUORVAL_PLUGIN_DIR", fixture_dir());
    const InitTools tools;
    {
        const Quorval::PluginLoader loader("codec_points.so", tools);
        EXPECT_TRUE(is_mapped(fixture_path("codec_points.so")));
    }
    EXPECT_FALSE(is_mapped(fixture_path("codec_points.so")));
}

}  // namespace
