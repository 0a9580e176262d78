#include "graphviz.h"

#include <spawn.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstddef>
#include <stdexcept>
#include <system_error>

namespace {

[[noreturn]] void throw_failed(const char* call, int error)
{
    throw std::system_error(error, std::generic_category(), call);
}

[[noreturn]] void throw_missing()
{
    throw std::runtime_error("svg needs the program 'dot' of Graphviz");
}

/// A file without a name.
class MemoryFile {
public:
    MemoryFile() : fd_(::memfd_create("dot", MFD_CLOEXEC))
    {
        if (fd_ < 0) {
            throw_failed("memfd_create", errno);
        }
    }
    MemoryFile(const MemoryFile&) = delete;
    MemoryFile& operator=(const MemoryFile&) = delete;
    ~MemoryFile() { ::close(fd_); }

    int fd() const { return fd_; }

    /// Fills the file with a text, to be read from its beginning.
    void fill(const std::string& text) const
    {
        for (std::size_t done = 0; done < text.size();) {
            const ssize_t count = ::write(fd_, text.data() + done, text.size() - done);
            if (count < 0) {
                throw_failed("write", errno);
            }
            done += static_cast<std::size_t>(count);
        }
        ::lseek(fd_, 0, SEEK_SET);
    }

    /// All that is in the file.
    std::string read() const
    {
        std::string text;
        std::array<char, 65536> buffer;  // NOLINT(cppcoreguidelines-pro-type-member-init)
        ssize_t count = 0;
        while ((count = ::pread(fd_, buffer.data(), buffer.size(),
                                static_cast<off_t>(text.size()))) > 0) {
            text.append(buffer.data(), static_cast<std::size_t>(count));
        }
        if (count < 0) {
            throw_failed("read", errno);
        }
        return text;
    }

private:
    int fd_;
};

/// Starts `dot -Tsvg` with `in` and `out` as its standard input and output. No shell comes in.
pid_t start_dot(int in, int out)
{
    posix_spawn_file_actions_t actions;
    ::posix_spawn_file_actions_init(&actions);
    ::posix_spawn_file_actions_adddup2(&actions, in, STDIN_FILENO);
    ::posix_spawn_file_actions_adddup2(&actions, out, STDOUT_FILENO);
    posix_spawnattr_t attributes;
    ::posix_spawnattr_init(&attributes);
    sigset_t signals;
    ::sigemptyset(&signals);
    ::sigaddset(&signals, SIGPIPE);
    ::sigaddset(&signals, SIGXFSZ);
    ::posix_spawnattr_setsigdefault(&attributes, &signals);
    ::posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGDEF);

    std::string program = "dot";
    std::string format = "-Tsvg";
    const std::array<char*, 3> arguments = {program.data(), format.data(), nullptr};
    pid_t child = 0;
    const int error =
        ::posix_spawnp(&child, "dot", &actions, &attributes, arguments.data(), ::environ);
    ::posix_spawnattr_destroy(&attributes);
    ::posix_spawn_file_actions_destroy(&actions);
    if (error == ENOENT || error == EACCES || error == ENOTDIR) {
        throw_missing();
    }
    if (error != 0) {
        throw_failed("posix_spawnp", error);
    }
    return child;
}

}  // namespace

std::string draw_svg(const std::string& dot)
{
    const MemoryFile input;
    input.fill(dot);
    // Not the standard output itself: dot may not notice what cannot be written there.
    const MemoryFile output;
    const pid_t child = start_dot(input.fd(), output.fd());
    int state = 0;
    while (::waitpid(child, &state, 0) < 0) {
        if (errno != EINTR) {
            throw_failed("waitpid", errno);
        }
    }
    if (WIFSIGNALED(state)) {
        throw std::runtime_error("'dot' was ended by signal " + std::to_string(WTERMSIG(state)));
    }
    constexpr int kNotFound = 127;  // where a program is found missing only in the child
    if (WEXITSTATUS(state) == kNotFound) {
        throw_missing();
    }
    if (WEXITSTATUS(state) != 0) {
        throw std::runtime_error("'dot' failed with exit status " +
                                 std::to_string(WEXITSTATUS(state)));
    }
    return output.read();
}
