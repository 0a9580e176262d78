#include "command_line.h"

#include "command.h"
#include "plugin_path.h"
#include "support/support.h"

#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

namespace {

using quorval_test::expect_throw;

/// A command with an option of each kind.
struct Example {
    CommandLine line{{"quorval example", "Does nothing.", "More."}};
    bool flag = false;
    int count = 0;
    std::string value = "default";
    std::vector<std::string> list;

    Example()
    {
        line.add_flag("-f,--flag", flag, "a flag");
        line.add_count("-c,--count", count, "a count");
        line.add_value("--value", value, "V", "a value");
        line.add_list("--list", list, "L", "a list");
    }
};

TEST(CommandLine, ReadsOptionsOfEachKind)
{
    Example example;

    const auto rest = example.line.read({"-cc", "a", "--value=1", "--list", "x", "--flag",
                                         "--value", "2", "[b,c]", "--list=y", "--", "--flag", "-"});

    EXPECT_EQ(rest, (std::vector<std::string>{"a", "[b,c]", "--flag", "-"}));
    EXPECT_EQ(example.count, 2);
    EXPECT_EQ(example.value, "2");
    EXPECT_TRUE(example.flag);
    EXPECT_EQ(example.list, (std::vector<std::string>{"x", "y"}));
    EXPECT_TRUE(example.line.has("--value"));
}

TEST(CommandLine, TakesOneValueForAnOption)
{
    Example example;

    const auto rest = example.line.read({"--list", "x", "y", "--value", "1", "z"});

    EXPECT_EQ(rest, (std::vector<std::string>{"y", "z"}));
    EXPECT_EQ(example.list, std::vector<std::string>{"x"});
    EXPECT_EQ(example.value, "1");
    EXPECT_TRUE(example.line.has("--value"));
}

TEST(CommandLine, LeavesArgumentsThatLookLikeOptionsWithoutAValue)
{
    Example example;

    EXPECT_EQ(example.line.read({"a=", "-", "--", "--value="}),
              (std::vector<std::string>{"a=", "-", "--value="}));
}

TEST(CommandLine, ShowsOptionsInTwoColumns)
{
    Example example;
    testing::internal::CaptureStdout();

    EXPECT_FALSE(example.line.read({"--help"}).has_value());

    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "usage: quorval example\n"
              "\n"
              "Does nothing.\n"
              "\n"
              "Options:\n"
              "  -h,--help               print this text\n"
              "  -f,--flag               a flag\n"
              "  -c,--count              a count\n"
              "  --value V               a value\n"
              "  --list L                a list\n"
              "\n"
              "More.\n");
}

TEST(CommandLine, LeavesOptionsThatAreNotGivenAlone)
{
    Example example;

    EXPECT_EQ(example.line.read({}), std::vector<std::string>());
    EXPECT_EQ(example.value, "default");
    EXPECT_FALSE(example.line.has("--value"));
}

TEST(CommandLine, RefusesWhatIsWrong)
{
    const std::vector<std::pair<Arguments, std::string>> cases = {
        {{"--value="}, "'--value=' has no value"},
        {{"--vlaue=1"}, "unknown option '--vlaue'; did you mean '--value'?"},
        {{"--vlaue=1", "--list"}, "unknown option '--vlaue'; did you mean '--value'?"},
        {{"a", "-x"}, "unknown option '-x'"},
        {{"---"}, "unknown option '---'"},
        {{"---="}, "unknown option '---'"},
    };
    for (const auto& [arguments, text] : cases) {
        SCOPED_TRACE(arguments.front());
        Example example;
        expect_throw<UsageError>([&, &given = arguments] { example.line.read(given); }, text);
    }
}

TEST(PluginPath, IsPartedWithoutEmptyParts)
{
    const std::vector<std::pair<Arguments, std::vector<std::string>>> cases = {
        {{}, {}},
        {{"--plugin-path=a"}, {"a"}},
        {{"--plugin-path=a:b/c", "--plugin-path", "d"}, {"a", "b/c", "d"}},
        {{"--plugin-path=:a::b:"}, {"a", "b"}},
        {{"--plugin-path", ":"}, {}},
    };
    for (const auto& [arguments, directories] : cases) {
        CommandLine line({"", "", ""});
        const PluginPathOption option(line);
        line.read(arguments);
        EXPECT_EQ(option.directories(), directories) << testing::PrintToString(arguments);
    }
}

TEST(Set, RefusesWhatIsNoAssignment)
{
    for (const std::string text :
         {"", "a", "a.b", "a=1", "=1", ".b=1", "a=1.5", "a.=1", "a/b.=1", "=a.b"}) {
        expect_throw<UsageError>(
            [&] {
                set_command({"no-graph", "a.b=1", text});
            },
            "'" + text + "' is not of the form PATH.KEY=VALUE");
    }
}

}  // namespace
