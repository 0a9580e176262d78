#include "progress.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <cstdio>

namespace {

constexpr const char* kWipe = "\r\033[K";
constexpr std::size_t kUsualWidth = 80;
constexpr double kPercent = 100;

std::size_t terminal_width()
{
    winsize size{};
    const bool is_known = ::ioctl(STDERR_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0;
    return is_known ? size.ws_col : kUsualWidth;
}

}  // namespace

std::string describe_progress(const std::string& path, std::uint64_t done, std::uint64_t total)
{
    if (total == 0) {
        return path + ": " + std::to_string(done);
    }
    const double share = static_cast<double>(std::min(done, total)) / static_cast<double>(total);
    return path + ": " + std::to_string(static_cast<int>(kPercent * share)) + " %";
}

ProgressLine::~ProgressLine()
{
    if (is_shown_) {
        static_cast<void>(std::fputs(kWipe, stderr));
    }
}

void ProgressLine::show(const std::string& path, std::uint64_t done, std::uint64_t total)
{
    const std::string text = describe_progress(path, done, total).substr(0, terminal_width() - 1);
    static_cast<void>(std::fputs((kWipe + text + "\r").c_str(), stderr));
    is_shown_ = true;
}
