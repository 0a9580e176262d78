#include "console.h"

#include <quorval/log.h>

#include <unistd.h>

#include <iostream>
#include <memory>

namespace host {

namespace {

/// Sends the messages of the library and of the blocks to the console.
class Sink : public Quorval::LogInstance {
public:
    Sink(Console& console, loglevel threshold) : LogInstance(threshold), console_(console) {}

    void emit(loglevel level, const char* text, int length) override
    {
        std::string line(text, static_cast<std::size_t>(length));
        line.erase(line.find_last_not_of('\n') + 1);
        console_.complain((level <= LOGLEVEL_WARNING ? "warning: " : "") + line);
    }

private:
    Console& console_;
};

}  // namespace

Console::Console(bool verbose) : is_terminal_(::isatty(STDERR_FILENO) == 1)
{
    Quorval::loginstance =
        std::make_unique<Sink>(*this, verbose ? LOGLEVEL_INFO : LOGLEVEL_WARNING);
}

Console::~Console()
{
    clear_progress();
    Quorval::loginstance = std::make_unique<Quorval::LogInstance>();
}

void Console::say(const std::string& line)
{
    clear_progress();
    std::cout << line << std::endl;
}

void Console::complain(const std::string& line)
{
    clear_progress();
    std::cerr << "quorval-sound: " << line << std::endl;
}

void Console::progress(std::int64_t done, std::int64_t total)
{
    constexpr double kHundred = 100;
    const double share = total == 0 ? 1 : static_cast<double>(done) / static_cast<double>(total);
    const int percent = static_cast<int>(kHundred * share);
    if (is_terminal_ && percent != percent_) {
        percent_ = percent;
        std::cerr << '\r' << percent << " % done" << std::flush;
    }
}

void Console::clear_progress()
{
    if (percent_ >= 0) {
        std::cerr << "\r\033[K" << std::flush;
        percent_ = -1;
    }
}

// NOLINTNEXTLINE(readability-convert-member-functions-to-static): one console, one interface
bool Console::flush()
{
    return static_cast<bool>(std::cout.flush());
}

}  // namespace host
