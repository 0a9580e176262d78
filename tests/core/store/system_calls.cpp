// With it, headers of the system would define some of the functions below.
#undef _FORTIFY_SOURCE

#include "core/store/system_calls.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <stdexcept>

namespace quorval_test {

namespace {

// The recorder of this moment. Null while it works itself.
SystemCalls* active = nullptr;

std::string format(const char* pattern, unsigned int number)
{
    char text[32];
    std::snprintf(text, sizeof text, pattern, number);
    return text;
}

std::string octal(mode_t mode)
{
    return format("0%o", mode);
}

}  // namespace

std::string hexadecimal(int flags)
{
    return format("0x%x", static_cast<unsigned int>(flags));
}

bool dies(const std::function<void()>& action)
{
    const pid_t child = ::fork();
    if (child == 0) {
        try {
            action();
        } catch (...) {
            ::_exit(1);
        }
        ::_exit(0);
    }
    int status = 0;
    const bool is_waited_for = ::waitpid(child, &status, 0) == child;
    return is_waited_for && WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL;
}

SystemCalls::SystemCalls()
{
    if (active != nullptr) {
        throw std::logic_error("the system calls are watched already");
    }
    active = this;
}

SystemCalls::~SystemCalls()
{
    active = nullptr;
}

void SystemCalls::fail(std::size_t number, int error, long result)
{
    faults_[number] = {error, result};
}

void SystemCalls::shorten(std::size_t number, std::size_t count)
{
    short_counts_[number] = count;
}

long SystemCalls::make(const std::string& text, bool always, const std::function<long()>& work)
{
    active = nullptr;
    const std::size_t number = made_.size();
    made_.push_back(text);
    if (before_) {
        before_(number);
    }
    const auto fault = faults_.find(number);
    long result = 0;
    int error = 0;
    if (fault == faults_.end() || always) {
        errno = 0;
        result = work();
        error = errno;
    }
    if (fault != faults_.end()) {
        result = fault->second.result;
        error = fault->second.error;
    }
    if (after_) {
        after_(number);
    }
    active = this;
    errno = error;
    return result;
}

long SystemCalls::make_open(bool is_directory, const std::string& text,
                            const std::function<long()>& work)
{
    const long descriptor = make(text, false, work);
    (is_directory ? directory_ : file_) = static_cast<int>(descriptor);
    return descriptor;
}

long SystemCalls::make_write(int descriptor, const void* data, std::size_t size)
{
    written_.append(static_cast<const char*>(data), size);
    const auto found = short_counts_.find(made_.size());
    const std::size_t count = found != short_counts_.end() ? found->second : size;
    return make("write(" + name_of(descriptor) + ", " + std::to_string(size) + ")", false,
                [&] { return ::syscall(SYS_write, descriptor, data, count); });
}

std::string SystemCalls::name_of(int descriptor) const
{
    if (descriptor >= 0 && descriptor == directory_) {
        return "directory";
    }
    if (descriptor >= 0 && descriptor == file_) {
        return "file";
    }
    return std::to_string(descriptor);
}

}  // namespace quorval_test

// What this program defines goes before what the C library has under the same name, for the
// libraries of the process too.
using quorval_test::active;

extern "C" {

int stat(const char* path, struct stat* status) noexcept
{
    const auto work = [&] { return ::syscall(SYS_newfstatat, AT_FDCWD, path, status, 0); };
    if (active == nullptr) {
        return static_cast<int>(work());
    }
    return static_cast<int>(active->make("stat(" + std::string(path) + ")", false, work));
}

int mkdir(const char* path, mode_t mode) noexcept
{
    const auto work = [&] { return ::syscall(SYS_mkdirat, AT_FDCWD, path, mode); };
    if (active == nullptr) {
        return static_cast<int>(work());
    }
    const std::string text = "mkdir(" + std::string(path) + ", " + quorval_test::octal(mode) + ")";
    return static_cast<int>(active->make(text, false, work));
}

int unlink(const char* path) noexcept
{
    const auto work = [&] { return ::syscall(SYS_unlinkat, AT_FDCWD, path, 0); };
    if (active == nullptr) {
        return static_cast<int>(work());
    }
    return static_cast<int>(active->make("unlink(" + std::string(path) + ")", false, work));
}

int lchown(const char* path, uid_t user, gid_t group) noexcept
{
    const auto work = [&] {
        return ::syscall(SYS_fchownat, AT_FDCWD, path, user, group, AT_SYMLINK_NOFOLLOW);
    };
    if (active == nullptr) {
        return static_cast<int>(work());
    }
    return static_cast<int>(active->make("lchown(" + std::string(path) + ")", false, work));
}

int rename(const char* from, const char* to) noexcept
{
    const auto work = [&] { return ::syscall(SYS_renameat, AT_FDCWD, from, AT_FDCWD, to); };
    if (active == nullptr) {
        return static_cast<int>(work());
    }
    const std::string text = "rename(" + std::string(from) + ", " + to + ")";
    return static_cast<int>(active->make(text, false, work));
}

int open(const char* path, int flags, ...)
{
    std::va_list rest;
    va_start(rest, flags);
    const mode_t mode = (flags & O_CREAT) != 0 ? va_arg(rest, mode_t) : 0;
    va_end(rest);

    const auto work = [&] { return ::syscall(SYS_openat, AT_FDCWD, path, flags, mode); };
    if (active == nullptr) {
        return static_cast<int>(work());
    }
    const std::string text =
        "open(" + std::string(path) + ", " + quorval_test::hexadecimal(flags) + ")";
    return static_cast<int>(active->make_open(true, text, work));
}

int openat(int directory, const char* path, int flags, ...)
{
    std::va_list rest;
    va_start(rest, flags);
    const mode_t mode = (flags & O_CREAT) != 0 ? va_arg(rest, mode_t) : 0;
    va_end(rest);

    const auto work = [&] { return ::syscall(SYS_openat, directory, path, flags, mode); };
    if (active == nullptr) {
        return static_cast<int>(work());
    }
    const std::string text = "openat(" + active->name_of(directory) + ", " + path + ", " +
                             quorval_test::hexadecimal(flags) + ", " + quorval_test::octal(mode) +
                             ")";
    return static_cast<int>(active->make_open(false, text, work));
}

ssize_t write(int descriptor, const void* data, size_t size)
{
    if (active == nullptr) {
        return ::syscall(SYS_write, descriptor, data, size);
    }
    return active->make_write(descriptor, data, size);
}

int fsync(int descriptor)
{
    const auto work = [&] { return ::syscall(SYS_fsync, descriptor); };
    if (active == nullptr) {
        return static_cast<int>(work());
    }
    const std::string text = "fsync(" + active->name_of(descriptor) + ")";
    return static_cast<int>(active->make(text, false, work));
}

int close(int descriptor)
{
    const auto work = [&] { return ::syscall(SYS_close, descriptor); };
    if (active == nullptr) {
        return static_cast<int>(work());
    }
    const std::string text = "close(" + active->name_of(descriptor) + ")";
    return static_cast<int>(active->make(text, true, work));
}

int renameat(int from_directory, const char* from, int to_directory, const char* to) noexcept
{
    const auto work = [&] {
        return ::syscall(SYS_renameat, from_directory, from, to_directory, to);
    };
    if (active == nullptr) {
        return static_cast<int>(work());
    }
    const std::string text = "renameat(" + active->name_of(from_directory) + ", " + from + ", " +
                             active->name_of(to_directory) + ", " + to + ")";
    return static_cast<int>(active->make(text, false, work));
}

}  // extern "C"
