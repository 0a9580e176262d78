// The terminal of a command that draws on all of it.
#pragma once

#include <termios.h>

#include <string>
#include <vector>

/// Whether both standard input and standard output are a terminal that can be drawn on.
bool has_screen();

/// While it lives, the terminal shows a screen of its own, the cursor and what is typed are not
/// seen, and keys can be read one by one. Afterwards all is as it was. One at a time.
class Screen {
public:
    /// @throws std::system_error  standard input is no terminal any more, or its settings cannot be
    ///     changed: "the terminal cannot be drawn on"
    Screen();
    Screen(const Screen&) = delete;
    Screen& operator=(const Screen&) = delete;
    ~Screen();

    /// Stops the process as the terminal's user wants it to, and goes on when he does.
    /// @throws std::system_error  as the constructor does
    void suspend();

    /// @param lines  no more than there is room for
    static void draw(const std::vector<std::string>& lines);

    struct Size {
        unsigned width;
        unsigned height;
    };
    /// At present; a usual size where the terminal knows none.
    static Size size();

private:
    void enter();
    void leave() const;

    termios before_{};
};
