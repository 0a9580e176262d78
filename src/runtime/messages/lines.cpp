#include "messages/lines.h"

#include "messages/printable.h"

namespace Quorval::runtime {

namespace {

/// What stands in front of the text; INFO has no name.
std::string_view prefix_of(loglevel level)
{
    switch (level) {
        case LOGLEVEL_FATAL:
            return "fatal: ";
        case LOGLEVEL_CRITICAL:
            return "critical: ";
        case LOGLEVEL_ERROR:
            return "error: ";
        case LOGLEVEL_WARNING:
            return "warning: ";
        case LOGLEVEL_INFO:
            break;
        case LOGLEVEL_DEBUG:
            return "debug: ";
    }
    return "";
}

/// `beginning`, a line of `text` and `end`, for each line.
std::string wrap_lines(const std::string& beginning, std::string_view text, std::string_view end)
{
    if (!text.empty() && text.back() == '\n') {
        text.remove_suffix(1);
    }
    std::string lines;
    for (std::size_t next = 0; next != std::string_view::npos;) {
        next = text.find('\n');
        lines += beginning;
        lines += printable(std::string(text.substr(0, next)));
        lines += end;
        text.remove_prefix(next == std::string_view::npos ? text.size() : next + 1);
    }
    return lines;
}

std::string path_prefix(const char* path)
{
    return path == nullptr ? std::string() : std::string(path) + ": ";
}

}  // namespace

std::string to_lines(loglevel level, const char* path, std::string_view text)
{
    std::string beginning = "quorval: ";
    beginning += prefix_of(level);
    return wrap_lines(beginning + path_prefix(path), text, "\n");
}

std::string to_entry(const char* path, std::string_view text)
{
    std::string entry = path_prefix(path) + wrap_lines("", text, "\n");
    entry.pop_back();
    return entry;
}

}  // namespace Quorval::runtime
