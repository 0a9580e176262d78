#include "command/terminal.h"

#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
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

}  // namespace

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
