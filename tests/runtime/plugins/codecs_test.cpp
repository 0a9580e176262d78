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
using Quorval::Datatype;
using Quorval::runtime::DecodedOutPort;
using Quorval::runtime::find_standard_codec;
using Quorval::runtime::PluginSet;
using quorval_test::expect_throw;
using namespace std::string_literals;

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
    DecodedOutPort port("out", Datatype("double-vector"), codec);
    port.write(bytes);

    EXPECT_TRUE(port.is_triggered());
    EXPECT_EQ(*static_cast<const std::vector<double>*>(port.get_data()), value);
}

TEST(DecodedOutPort, HasNoValueBeforeTheFirstAndThenOnePlaceForAll)
{
    DecodedOutPort port("out", Datatype("bool"), *find_standard_codec("bool"));
    EXPECT_EQ(port.get_data(), nullptr);
    EXPECT_FALSE(port.is_triggered());

    port.write("\x01\x01"s);
    const auto* const place = static_cast<const bool*>(port.get_data());
    EXPECT_TRUE(*place);
    port.write("\x01\x00"s);

    EXPECT_EQ(port.get_data(), place);
    EXPECT_FALSE(*place);
}

TEST(DecodedOutPort, KeepsItsValueWhenTheNextOneIsNone)
{
    DecodedOutPort port("out", Datatype("string"), *find_standard_codec("string"));
    port.write("\x01\x01\x00\x00\x00\x00\x00\x00\x00x"s);
    port.reset(false);

    expect_throw<std::runtime_error>([&] { port.write("\x01\x01"s); }, "the value ends too early");

    EXPECT_FALSE(port.is_triggered());
    EXPECT_EQ(*static_cast<const std::string*>(port.get_data()), "x");
}

TEST(Codecs, AreContainedWhenTheyThrow)
{
    const Codec throws = {
        [](const void*, std::string&) { throw 42; },
        [] { return std::shared_ptr<void>(std::make_shared<int>()); },
        [](std::string_view, void*) { throw std::bad_alloc(); },
    };
    std::string bytes;

    expect_throw<std::runtime_error>([&] { Quorval::runtime::encode(throws, nullptr, bytes); },
                                     "an unknown exception");
    DecodedOutPort port("out", Datatype("int32"), throws);
    expect_throw<std::runtime_error>([&] { port.write(""); }, "std::bad_alloc");
}

TEST(Codecs, HaveToMakeAValue)
{
    const Codec none = {nullptr, [] { return std::shared_ptr<void>(); }, nullptr};

    expect_throw<std::runtime_error>(
        [&] { const DecodedOutPort port("out", Datatype("int32"), none); },
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
