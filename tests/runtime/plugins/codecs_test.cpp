// The codecs of the runtime and of plug-ins, and what their failures become.
#include "plugins/codecs.h"

#include <quorval/runtime/tools.h>
#include "plugins/plugin_set.h"
#include "runtime/support/graph_files.h"
#include "support/support.h"

#include <gtest/gtest.h>

#include <memory>
#include <new>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace {

using Quorval::Codec;
using Quorval::runtime::find_standard_codec;
using Quorval::runtime::PluginSet;
using quorval_test::expect_throw;

TEST(Codecs, AreThereForTheStandardTypes)
{
    for (const char* const type :
         {"bool", "int32", "int64", "float", "double", "string", "int32-vector", "int64-vector",
          "float-vector", "double-vector"}) {
        EXPECT_NE(find_standard_codec(type), nullptr) << type;
    }
    EXPECT_EQ(find_standard_codec("sample-block"), nullptr);
    EXPECT_EQ(find_standard_codec(""), nullptr);
}

TEST(Codecs, BringAValueBack)
{
    const Codec& codec = *find_standard_codec("double-vector");
    const std::vector<double> value = {1, 2.5};
    std::string bytes = "what was there before";

    Quorval::runtime::encode(codec, &value, bytes);
    const auto decoded = Quorval::runtime::decode(codec, bytes);

    EXPECT_EQ(*static_cast<const std::vector<double>*>(decoded.get()), value);
}

TEST(Codecs, AreContainedWhenTheyThrow)
{
    const Codec throws = {
        [](const void*, std::string&) { throw 42; },
        [](std::string_view) -> std::shared_ptr<void> { throw std::bad_alloc(); },
    };
    std::string bytes;

    expect_throw<std::runtime_error>([&] { Quorval::runtime::encode(throws, nullptr, bytes); },
                                     "an unknown exception");
    expect_throw<std::runtime_error>([&] { Quorval::runtime::decode(throws, ""); },
                                     "std::bad_alloc");
}

TEST(Codecs, HaveToMakeAValue)
{
    const Codec none = {nullptr, [](std::string_view) { return std::shared_ptr<void>(); }};

    expect_throw<std::runtime_error>([&] { Quorval::runtime::decode(none, ""); },
                                     "the codec made no value");
}

class PluginCodecs : public testing::Test {
protected:
    Quorval::InitTools tools_;
    PluginSet plugins_{{quorval_test::test_plugin_directory()}, tools_};
};

TEST_F(PluginCodecs, AreThereOnceTheirPluginIsLoaded)
{
    EXPECT_EQ(plugins_.find_codec("label"), nullptr);

    ASSERT_NE(plugins_.get("parts").plugin, nullptr);

    ASSERT_NE(plugins_.find_codec("label"), nullptr);
    EXPECT_EQ(plugins_.find_codec("int32"), find_standard_codec("int32"));
    EXPECT_EQ(plugins_.find_codec("other"), nullptr);
}

TEST_F(PluginCodecs, AreRefusedForAStandardTypeAndTheSecondTime)
{
    EXPECT_EQ(plugins_.get("registers_standard_codec").problem,
              "plug-in 'registers_standard_codec' cannot be loaded: Try to register codec int32 "
              "twice.");
    EXPECT_EQ(plugins_.get("registers_codec_twice").problem,
              "plug-in 'registers_codec_twice' cannot be loaded: Try to register codec a twice.");
    EXPECT_EQ(plugins_.find_codec("a"), nullptr);
}

}  // namespace
