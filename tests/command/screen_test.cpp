#include "screen.h"

#include "command/terminal.h"
#include "support/support.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <termios.h>
#include <unistd.h>

#include <optional>
#include <string>
#include <system_error>
#include <vector>

namespace {

using quorval_test::OtherStreams;
using quorval_test::ScopedEnvironment;
using quorval_test::TerminalStreams;
using Lines = std::vector<std::string>;

const std::vector<int> kBoth = {STDIN_FILENO, STDOUT_FILENO};

int open_nothing()
{
    return ::open("/dev/null", O_RDWR | O_CLOEXEC);
}

termios settings_of_input()
{
    termios settings{};
    EXPECT_EQ(::tcgetattr(STDIN_FILENO, &settings), 0);
    return settings;
}

/// What a terminal of 10 columns and 3 rows gets.
std::string draw(const Lines& lines)
{
    TerminalStreams terminal(kBoth, 10, 3);
    Screen::draw(lines);
    return terminal.end();
}

TEST(Screen, IsRefusedWhereInputIsNoTerminal)
{
    const OtherStreams input({STDIN_FILENO}, open_nothing());

    testing::internal::CaptureStdout();
    quorval_test::expect_throw<std::system_error>(
        [] { const Screen screen; },
        "the terminal cannot be drawn on: Inappropriate ioctl for device");
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
}

TEST(Screen, IsThereWhereATerminalCanBeDrawnOn)
{
    for (const auto& [kind, is_there] : std::vector<std::pair<std::optional<std::string>, bool>>{
             {"xterm", true}, {"dumb", false}, {"", false}, {std::nullopt, false}}) {
        const ScopedEnvironment term("TERM", kind);
        TerminalStreams terminal(kBoth);
        const bool found = has_screen();
        terminal.end();
        EXPECT_EQ(found, is_there) << kind.value_or("none");
    }
}

TEST(Screen, NeedsBothStreams)
{
    const ScopedEnvironment term("TERM", "xterm");
    for (const int stream : kBoth) {
        TerminalStreams terminal(kBoth);
        OtherStreams other({stream}, open_nothing());
        const bool found = has_screen();
        other.put_back();
        terminal.end();
        EXPECT_FALSE(found) << stream;
    }
}

TEST(Screen, TakesTheTerminalForAWhile)
{
    TerminalStreams terminal(kBoth);
    termios before = settings_of_input();
    before.c_lflag |= ICANON | ECHO;
    before.c_cc[VMIN] = 3;
    before.c_cc[VTIME] = 4;
    EXPECT_EQ(::tcsetattr(STDIN_FILENO, TCSANOW, &before), 0);
    termios during{};
    {
        const Screen screen;
        during = settings_of_input();
    }
    const termios after = settings_of_input();
    const std::string shown = terminal.end();

    EXPECT_EQ(during.c_lflag, before.c_lflag & ~tcflag_t(ICANON | ECHO));
    EXPECT_EQ(during.c_cc[VMIN], 1);
    EXPECT_EQ(during.c_cc[VTIME], 0);
    EXPECT_EQ(after.c_lflag, before.c_lflag);
    EXPECT_EQ(after.c_cc[VMIN], 3);
    EXPECT_EQ(after.c_cc[VTIME], 4);
    EXPECT_EQ(shown, "\033[?1049h\033[?25l\033[?25h\033[?1049l");
}

TEST(Screen, WipesWhatWasThereBefore)
{
    EXPECT_EQ(draw({"one", "two"}), "\033[H\033[Kone\n\033[Ktwo\n\033[J");
    EXPECT_EQ(draw({"one", "two", "three"}), "\033[H\033[Kone\n\033[Ktwo\n\033[Kthree");
    EXPECT_EQ(draw({}), "\033[H\n\033[J");
}

TEST(Screen, HasAUsualSizeWhereTheTerminalKnowsNone)
{
    struct Case {
        unsigned short columns;
        unsigned short rows;
        Lines shown;  // columns and rows
    };
    for (const Case& one :
         {Case{100, 30, {"100", "30"}}, Case{1, 1, {"1", "1"}}, Case{0, 0, {"80", "24"}},
          Case{100, 0, {"80", "24"}}, Case{0, 30, {"80", "24"}}}) {
        TerminalStreams terminal(kBoth, one.columns, one.rows);
        const Screen::Size size = Screen::size();
        terminal.end();
        EXPECT_EQ((Lines{std::to_string(size.width), std::to_string(size.height)}), one.shown)
            << one.columns << " x " << one.rows;
    }
    const OtherStreams nothing({STDOUT_FILENO}, open_nothing());
    EXPECT_EQ(Screen::size().width, 80U);
}

}  // namespace
