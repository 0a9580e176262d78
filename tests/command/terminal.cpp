#include "command/terminal.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <system_error>
#include <utility>

namespace quorval_test {

namespace {

int check(int result, const char* what)
{
    if (result < 0) {
        throw std::system_error(errno, std::generic_category(), what);
    }
    return result;
}

void write_all(int fd, const std::string& text)
{
    EXPECT_EQ(::write(fd, text.data(), text.size()), static_cast<ssize_t>(text.size()));
}

}  // namespace

Terminal::~Terminal()
{
    ::close(stream_.writer);
    ::close(stream_.reader);
}

std::string Terminal::file() const
{
    return ::ptsname(stream_.reader);
}

void Terminal::type(const std::string& keys) const
{
    write_all(stream_.reader, keys);
}

void Terminal::show(const std::string& text) const
{
    write_all(stream_.writer, text);
}

bool Terminal::wait_for(const std::string& text)
{
    constexpr int kPatience = 100000;
    while (shown_.find(text) == std::string::npos) {
        if (!read_some(kPatience)) {
            return false;
        }
    }
    return true;
}

const std::string& Terminal::shown()
{
    while (read_some(0)) {}
    return shown_;
}

bool Terminal::read_some(int milliseconds)
{
    pollfd waited{stream_.reader, POLLIN, 0};
    std::array<char, 4096> buffer{};
    if (::poll(&waited, 1, milliseconds) != 1) {
        return false;
    }
    const ssize_t count = ::read(stream_.reader, buffer.data(), buffer.size());
    shown_.append(buffer.data(), static_cast<std::size_t>(std::max<ssize_t>(0, count)));
    return count > 0;
}

OtherStreams::OtherStreams(std::vector<int> streams, int fd)
{
    static_cast<void>(std::fflush(nullptr));
    for (const int stream : streams) {
        before_.emplace_back(stream, check(::fcntl(stream, F_DUPFD_CLOEXEC, 3), "fcntl"));
        check(::dup2(fd, stream), "dup2");
    }
    ::close(fd);
}

void OtherStreams::put_back()
{
    static_cast<void>(std::fflush(nullptr));
    for (const auto& [stream, before] : before_) {
        ::dup2(before, stream);
        ::close(before);
    }
    before_.clear();
}

TerminalStreams::TerminalStreams(std::vector<int> streams, unsigned short columns,
                                 unsigned short rows)
    : TerminalStreams(std::move(streams), open_terminal(columns, rows))
{
}

TerminalStreams::TerminalStreams(std::vector<int> streams, Stream terminal)
    : terminal_(terminal.reader), streams_(std::move(streams), terminal.writer)
{
}

TerminalStreams::~TerminalStreams()
{
    streams_.put_back();
    ::close(terminal_);
}

std::string TerminalStreams::end()
{
    streams_.put_back();
    std::string text;
    std::array<char, 4096> buffer{};
    ssize_t count = 0;
    while ((count = ::read(terminal_, buffer.data(), buffer.size())) > 0) {  // then EIO
        text.append(buffer.data(), static_cast<std::size_t>(count));
    }
    return text;
}

}  // namespace quorval_test
