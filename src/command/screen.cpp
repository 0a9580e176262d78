#include "screen.h"

#include "output.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <system_error>

namespace {

constexpr const char* kEnter = "\033[?1049h\033[?25l";  // another screen, no cursor
constexpr const char* kLeave = "\033[?25h\033[?1049l";
constexpr const char* kHome = "\033[H";
constexpr const char* kWipeLine = "\033[K";
constexpr const char* kWipeRest = "\033[J";

[[noreturn]] void throw_no_terminal()
{
    throw std::system_error(errno, std::generic_category(), "the terminal cannot be drawn on");
}

void write_now(const std::string& text)
{
    write_output(text);
    static_cast<void>(std::fflush(stdout));  // what fails shows when the output is closed
}

}  // namespace

bool has_screen()
{
    const char* kind = std::getenv("TERM");
    return ::isatty(STDIN_FILENO) == 1 && ::isatty(STDOUT_FILENO) == 1 && kind != nullptr &&
           *kind != '\0' && std::string(kind) != "dumb";
}

Screen::Screen()
{
    enter();
}

Screen::~Screen()
{
    leave();
}

void Screen::enter()
{
    if (::tcgetattr(STDIN_FILENO, &before_) != 0) {
        throw_no_terminal();
    }
    termios wanted = before_;
    wanted.c_lflag &= ~static_cast<tcflag_t>(ICANON | ECHO);
    wanted.c_cc[VMIN] = 1;
    wanted.c_cc[VTIME] = 0;
    if (::tcsetattr(STDIN_FILENO, TCSAFLUSH, &wanted) != 0) {
        throw_no_terminal();
    }
    write_now(kEnter);
}

void Screen::leave() const
{
    write_now(kLeave);
    static_cast<void>(::tcsetattr(STDIN_FILENO, TCSAFLUSH, &before_));  // it may be gone
}

void Screen::suspend()
{
    leave();
    static_cast<void>(std::raise(SIGSTOP));
    enter();
}

void Screen::draw(const std::vector<std::string>& lines)
{
    // Wiped before it is written: a terminal may take what is written into its last column away
    // with the rest of the line.
    std::string text = kHome;
    for (std::size_t at = 0; at < lines.size(); ++at) {
        text += (at == 0 ? "" : "\n") + std::string(kWipeLine) + lines[at];
    }
    write_now(lines.size() < size().height ? text + "\n" + kWipeRest : text);
}

Screen::Size Screen::size()
{
    constexpr Size kUsual = {80, 24};
    winsize size{};
    const bool is_known =
        ::ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0 && size.ws_row > 0;
    return is_known ? Size{size.ws_col, size.ws_row} : kUsual;
}
