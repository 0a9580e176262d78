#include "output.h"

#include "command/terminal.h"
#include "support/support.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <unistd.h>

#include <optional>
#include <string>
#include <vector>

namespace {

using quorval_test::OtherStreams;
using quorval_test::ScopedEnvironment;
using quorval_test::TerminalStreams;

TEST(Say, WritesALineWithoutControlCharacters)
{
    testing::internal::CaptureStderr();
    say("a\nb");
    say_error("c\033");

    EXPECT_EQ(testing::internal::GetCapturedStderr(), "quorval: a\\x0Ab\nquorval: error: c\\x1B\n");
}

TEST(HasUnicode, FollowsTheLocale)
{
    const ScopedEnvironment type("LC_CTYPE", std::nullopt);
    const ScopedEnvironment language("LANG", std::nullopt);
    for (const auto& [locale, has] : std::vector<std::pair<std::string, bool>>{
             {"C.UTF-8", true}, {"C", false}, {"POSIX", false}, {"no_SUCH.locale", false}}) {
        const ScopedEnvironment all("LC_ALL", locale);
        EXPECT_EQ(has_unicode(), has) << locale;
    }
}

TEST(OutputWidth, IsThatOfTheTerminal)
{
    TerminalStreams terminal({STDOUT_FILENO}, 72);
    const unsigned width = output_width();
    terminal.end();
    OtherStreams nothing({STDOUT_FILENO}, ::open("/dev/null", O_RDWR | O_CLOEXEC));
    const unsigned none = output_width();
    nothing.put_back();

    EXPECT_EQ(width, 72U);
    EXPECT_EQ(none, 0U);
}

TEST(HasColours, AsksTheStreamAndTheUser)
{
    struct Case {
        int stream;
        std::optional<std::string> kind;
        std::optional<std::string> no_color;
        std::vector<bool> expected;  // of standard error, of standard output
    };
    for (const Case& one : {Case{STDERR_FILENO, "xterm", std::nullopt, {true, false}},
                            Case{STDOUT_FILENO, "xterm", std::nullopt, {false, true}},
                            Case{STDOUT_FILENO, std::nullopt, "", {false, true}},
                            Case{STDERR_FILENO, "xterm", "1", {false, false}},
                            Case{STDOUT_FILENO, "xterm", "1", {false, false}},
                            Case{STDERR_FILENO, "dumb", std::nullopt, {false, false}},
                            Case{STDOUT_FILENO, "dumb", std::nullopt, {false, false}}}) {
        const ScopedEnvironment term("TERM", one.kind);
        const ScopedEnvironment colours("NO_COLOR", one.no_color);
        TerminalStreams terminal({one.stream});
        const int other = one.stream == STDERR_FILENO ? STDOUT_FILENO : STDERR_FILENO;
        OtherStreams nothing({other}, ::open("/dev/null", O_RDWR | O_CLOEXEC));
        const std::vector<bool> found = {has_colours(), has_output_colours()};
        nothing.put_back();
        terminal.end();

        EXPECT_EQ(found, one.expected)
            << one.stream << one.kind.value_or(" none") << one.no_color.value_or(" none");
    }
}

}  // namespace
