#include "support/process.h"

#include <fcntl.h>
#include <poll.h>
#include <pty.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <system_error>

namespace quorval_test {

namespace {

/// Longer than any program takes, emulated or under a sanitizer.
constexpr int kPatienceMilliseconds = 100000;

void check(int result, const char* what)
{
    if (result < 0) {
        throw std::system_error(errno, std::generic_category(), what);
    }
}

Stream open_pipe()
{
    int ends[2];
    check(::pipe2(ends, O_CLOEXEC), "pipe2");
    return {ends[0], ends[1]};
}

/// Has a stream go to a file, if one is named.
void lead_to(const std::string& file, Stream& stream)
{
    if (!file.empty()) {
        ::close(stream.writer);
        stream.writer = ::open(file.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
        check(stream.writer, file.c_str());
    }
}

/// Has this process end with the test that started it, however that ends.
void end_with(pid_t test)
{
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (::getppid() != test) {  // it ended before
        ::_exit(EXIT_FAILURE);
    }
}

/// Becomes the program.
[[noreturn]] void become(const ProcessOptions& options, int out, int err)
{
    ::dup2(out, STDOUT_FILENO);
    ::dup2(err, STDERR_FILENO);
    for (const int fd : {out, err}) {
        ::close(fd);
    }
    const bool is_shown = !options.terminal.empty();
    const int in = is_shown ? ::open(options.terminal.c_str(), O_RDWR | O_NOCTTY)
                            : ::open("/dev/null", O_RDONLY);
    ::dup2(in, STDIN_FILENO);
    if (is_shown) {
        ::dup2(in, STDOUT_FILENO);
    }
    ::close(in);
    for (const int fd : options.closed) {
        ::close(fd);
    }
    for (const auto& [name, value] : options.environment) {
        if (value.has_value()) {
            ::setenv(name.c_str(), value->c_str(), 1);
        } else {
            ::unsetenv(name.c_str());
        }
    }
    std::vector<char*> arguments;
    for (const std::string& argument : options.command) {
        arguments.push_back(const_cast<char*>(argument.c_str()));
    }
    arguments.push_back(nullptr);
    // A shell has what it runs in the background ignore this one.
    ::signal(SIGINT, SIG_DFL);
    constexpr int kNotStarted = 127;
    if (options.directory.empty() || ::chdir(options.directory.c_str()) == 0) {
        ::execvp(arguments[0], arguments.data());
    }
    ::_exit(kNotStarted);
}

/// Appends what can be read; closes at the end.
void read_from(int& fd, std::string& text)
{
    char buffer[4096];
    const ssize_t count = ::read(fd, buffer, sizeof buffer);
    if (count > 0) {
        text.append(buffer, static_cast<std::size_t>(count));
    } else if (count == 0 || errno != EINTR) {  // EIO: the end of a terminal
        ::close(fd);
        fd = -1;
    }
}

/// Whether a stream holds the text from `end` on, which is left where the next look has to begin.
bool find_further(const std::string& stream, const std::string& text, std::size_t& end)
{
    const bool is_there = stream.find(text, end) != std::string::npos;
    end = stream.size() - std::min(stream.size(), text.size());
    return is_there;
}

}  // namespace

Stream open_terminal(unsigned short columns, unsigned short rows)
{
    Stream stream;
    winsize size{};
    size.ws_col = columns;
    size.ws_row = rows;
    check(::openpty(&stream.reader, &stream.writer, nullptr, nullptr, &size), "openpty");
    termios settings{};
    check(::tcgetattr(stream.writer, &settings), "tcgetattr");
    ::cfmakeraw(&settings);
    check(::tcsetattr(stream.writer, TCSANOW, &settings), "tcsetattr");
    for (const int fd : {stream.reader, stream.writer}) {
        check(::fcntl(fd, F_SETFD, FD_CLOEXEC), "fcntl");
    }
    return stream;
}

Process::Process(const ProcessOptions& options)
{
    Stream out = options.out_columns > 0 ? open_terminal(options.out_columns) : open_pipe();
    Stream err = options.err_is_terminal ? open_terminal() : open_pipe();
    lead_to(options.out_file, out);
    lead_to(options.err_file, err);
    const pid_t test = ::getpid();
    child_ = ::fork();
    check(child_, "fork");
    if (child_ == 0) {
        end_with(test);
        become(options, out.writer, err.writer);
    }
    ::close(out.writer);
    ::close(err.writer);
    out_ = out.reader;
    err_ = err.reader;
}

Process::~Process()
{
    if (child_ > 0) {
        ::kill(child_, SIGKILL);
        ::waitpid(child_, nullptr, 0);
    }
    for (const int fd : {out_, err_}) {
        if (fd >= 0) {
            ::close(fd);
        }
    }
}

void Process::send(int signal) const
{
    check(::kill(child_, signal), "kill");
}

bool Process::wait_for(const std::string& text)
{
    std::size_t out_end = 0;
    std::size_t err_end = 0;
    while (!find_further(result_.out, text, out_end) && !find_further(result_.err, text, err_end)) {
        if (!read_some()) {
            return false;
        }
    }
    return true;
}

bool Process::wait_for_next(const std::string& text)
{
    std::size_t at = result_.err.find(text, found_);
    while (at == std::string::npos) {
        if (!read_some()) {
            return false;
        }
        at = result_.err.find(text, found_);
    }
    found_ = at + text.size();
    return true;
}

ProcessResult Process::wait()
{
    while (read_some()) {}
    int state = 0;
    while (::waitpid(child_, &state, 0) < 0 && errno == EINTR) {}
    child_ = -1;
    result_.status = WIFEXITED(state) ? WEXITSTATUS(state) : -1;
    result_.signal = WIFSIGNALED(state) ? WTERMSIG(state) : 0;
    return result_;
}

/// Waits for output. False where both streams have ended.
bool Process::read_some()
{
    if (out_ < 0 && err_ < 0) {
        return false;
    }
    pollfd streams[] = {{out_, POLLIN, 0}, {err_, POLLIN, 0}};
    const int count = ::poll(streams, 2, kPatienceMilliseconds);
    if (count == 0) {
        ::kill(child_, SIGKILL);  // the test fails with what there is so far
        return false;
    }
    if (streams[0].revents != 0) {
        read_from(out_, result_.out);
    }
    if (streams[1].revents != 0) {
        read_from(err_, result_.err);
    }
    return true;
}

ProcessResult run_process(const ProcessOptions& options)
{
    return Process(options).wait();
}

}  // namespace quorval_test
