#include "output.h"

#include "text.h"

#include <langinfo.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cerrno>
#include <clocale>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <iostream>
#include <iterator>
#include <system_error>

namespace {

std::string variable(const char* name)
{
    const char* value = std::getenv(name);
    return value == nullptr ? "" : value;
}

bool wants_colours()
{
    return variable("NO_COLOR").empty() && variable("TERM") != "dumb";
}

/// The number of the first error of write_output(), 0 for none.
int write_error = 0;  // NOLINT(cppcoreguidelines-avoid-non-const-global-variables)

/// Flushes and closes; gives the number of the error, 0 for none.
int close_standard_output()
{
    errno = 0;
    std::cout.flush();
    const bool was_bad = !std::cout || std::ferror(stdout) != 0;
    const int error = errno;
    if (std::fclose(stdout) != 0) {  // NOLINT(cppcoreguidelines-owning-memory)
        return errno;
    }
    // The call that failed may be long gone.
    return !was_bad ? 0 : write_error != 0 ? write_error : error != 0 ? error : EIO;
}

bool has_other_threads()
{
    std::error_code error;
    const std::filesystem::directory_iterator threads("/proc/self/task", error);
    return !error && std::distance(begin(threads), end(threads)) > 1;
}

}  // namespace

void write_output(const std::string& text)
{
    // What fails shows when the output is closed.
    if (std::fwrite(text.data(), 1, text.size(), stdout) < text.size() && write_error == 0) {
        write_error = errno;
    }
}

bool close_output()
{
    const int error = close_standard_output();
    if (error != 0) {
        say_error(std::string("cannot write to standard output: ") + std::strerror(error));
    }
    return error == 0;
}

void end_process(int status)
{
    if (has_other_threads()) {
        static_cast<void>(std::fflush(nullptr));
        ::_exit(status);
    }
    std::exit(status);
}

void say(const std::string& text)
{
    // In one call, so that lines of several processes do not mix.
    const std::string line = "quorval: " + escape_controls(text) + "\n";
    static_cast<void>(std::fwrite(line.data(), 1, line.size(), stderr));
}

void say_error(const std::string& text)
{
    say("error: " + text);
}

bool has_terminal()
{
    return ::isatty(STDERR_FILENO) == 1;
}

bool has_colours()
{
    return has_terminal() && wants_colours();
}

bool has_output_colours()
{
    return ::isatty(STDOUT_FILENO) == 1 && wants_colours();
}

bool has_unicode()
{
    locale_t locale = ::newlocale(LC_CTYPE_MASK, "", nullptr);
    if (locale == nullptr) {
        return false;
    }
    const bool is_utf8 = std::strcmp(::nl_langinfo_l(CODESET, locale), "UTF-8") == 0;
    ::freelocale(locale);
    return is_utf8;
}

unsigned output_width()
{
    winsize size{};
    return ::ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 ? size.ws_col : 0;
}
