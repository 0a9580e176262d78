#include "look.h"

#include "support/support.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstdio>
#include <string>

namespace {

using nlohmann::json;
using Quorval::PluginFile;

PluginFile file_of(const std::string& name, const std::string& directory = QUORVAL_TEST_PLUGIN_DIR)
{
    return {name, directory + "/" + name + ".so", ""};
}

TEST(LookAt, GivesUpWhenTheTimeIsUp)
{
    LookOptions options;
    options.limit = std::chrono::milliseconds(1);
    const Look look = look_at(file_of("hangs", QUORVAL_TEST_PLUGIN_DIR "/slow"), options);

    EXPECT_FALSE(look.is_usable);
    EXPECT_EQ(look.plugin["problem"], "plug-in 'hangs' was not loaded within 0 seconds");
    EXPECT_EQ(look.plugin["note"]["interface"], 0);
    EXPECT_FALSE(look.plugin.contains("types"));
}

TEST(LookAt, TakesTenSecondsAtMost)
{
    EXPECT_EQ(LookOptions().limit, std::chrono::seconds(10));
}

/// The limit leaves time to load, and is the same for all types.
TEST(LookAt, NamesTheTypesThatTheTimeDidNotReachTo)
{
    LookOptions options;
    options.limit = std::chrono::seconds(5);
    options.assignments = {"where=constructor", "what=hang"};
    const Look look = look_at(file_of("trouble"), options);

    EXPECT_FALSE(look.is_usable);
    EXPECT_FALSE(look.plugin.contains("problem"));
    ASSERT_EQ(look.plugin["types"].size(), 1U);
    EXPECT_EQ(look.plugin["types"][0]["problem"],
              "block 'Trouble' was not created within 5 seconds");
}

TEST(LookAt, MakesNoBlocksWhereNoneAreWanted)
{
    LookOptions options;
    options.makes_blocks = false;
    const Look look = look_at(file_of("shapes"), options);

    EXPECT_TRUE(look.is_usable);
    ASSERT_EQ(look.plugin["types"].size(), 5U);
    EXPECT_EQ(look.plugin["types"][0], (json{{"type", "Crash"}}));
    EXPECT_EQ(look.plugin["types"][2]["summary"], "Has a bit of everything.");
    EXPECT_FALSE(look.plugin["types"][2].contains("inports"));
}

TEST(LookAt, NamesTheTypesWhereTheOneThatIsWantedIsMissing)
{
    LookOptions options;
    options.type = "Wanted";
    const auto problem_of = [&](const PluginFile& file) {
        const Look look = look_at(file, options);
        EXPECT_FALSE(look.is_usable);
        EXPECT_EQ(look.plugin["types"], json::array());
        return look.plugin["problem"].get<std::string>();
    };

    EXPECT_EQ(problem_of(file_of("trouble")),
              "plug-in 'trouble' has no block type 'Wanted'; it has Trouble");
    EXPECT_EQ(problem_of(file_of("nothing", QUORVAL_TEST_PLUGIN_DIR "/nothing")),
              "plug-in 'nothing' has no block type 'Wanted'; it has none");
}

TEST(LookAt, HasNoNoteOfALibraryThatIsNoPlugin)
{
    const Look look = look_at({"secure", QUORVAL_TEST_SECURE, ""}, {});

    EXPECT_FALSE(look.is_usable);
    EXPECT_EQ(look.plugin["file"], QUORVAL_TEST_SECURE);
    EXPECT_FALSE(look.plugin.contains("note"));
    EXPECT_EQ(look.plugin["problem"],
              "plug-in 'secure' cannot be loaded: Found no C++ register function in plugin "
              "libtest_command_secure.so");
}

TEST(LookAt, LoadsNothingThatIsRefused)
{
    PluginFile file = file_of("numbers");
    file.problem = "no such luck";
    const Look look = look_at(file, {});

    EXPECT_FALSE(look.is_usable);
    EXPECT_EQ(look.plugin["problem"], "no such luck");
    EXPECT_FALSE(look.plugin.contains("types"));
}

TEST(LookAt, LeavesWhatIsNotWrittenYetAlone)
{
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    std::fputs("mine", stdout);

    look_at(file_of("numbers"), {});

    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "mine");
}

TEST(LookAt, LeavesNoProcessAndNoDescriptorBehind)
{
    const auto children = [] { return quorval_test::read_file("/proc/thread-self/children"); };
    const std::string children_before = children();
    const auto before = quorval_test::open_descriptors();
    LookOptions options;
    options.limit = std::chrono::milliseconds(1);

    look_at(file_of("numbers"), {});
    look_at(file_of("hangs", QUORVAL_TEST_PLUGIN_DIR "/slow"), options);

    EXPECT_EQ(quorval_test::open_descriptors(), before);
    EXPECT_EQ(children(), children_before);
}

TEST(LookAt, GoesOnBehindATypeThatEndsTheProcess)
{
    const Look look = look_at(file_of("shapes"), {});

    EXPECT_FALSE(look.is_usable);
    const json& types = look.plugin["types"];
    ASSERT_EQ(types.size(), 5U);
    EXPECT_EQ(types[0]["problem"], "block 'Crash' crashed in create: signal 11 (SIGSEGV)");
    EXPECT_EQ(types[1]["problem"], "block 'Exit' called exit in create");
    EXPECT_EQ(types[2]["problem"], "'count' is missing");
    EXPECT_EQ(types[3]["problem"],
              "block 'Plain' cannot be created: BlockConfiguration::getString failed, "
              "the parameter 'path' does not exist");
    EXPECT_EQ(types[4]["problem"], "block 'Super' cannot be created: it is no plain block");
}

}  // namespace
