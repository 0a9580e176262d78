// System calls of files, descriptors and processes that fail on demand.
#undef _FORTIFY_SOURCE

#include "faulty_calls.h"

#include <dlfcn.h>
#include <pthread.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/timerfd.h>

#include <cstdarg>

namespace {

using faulty::make;
using faulty::make_int;

int open_at(const char* name, int directory, const char* path, int flags, std::va_list rest)
{
    const mode_t mode = (flags & O_CREAT) != 0 ? va_arg(rest, mode_t) : 0;
    return make_int(name, [&] { return ::syscall(SYS_openat, directory, path, flags, mode); });
}

bool is_socket(int fd)
{
    const int error = errno;
    struct stat status = {};
    const bool is_one = ::fstat(fd, &status) == 0 && S_ISSOCK(status.st_mode);
    errno = error;
    return is_one;
}

}  // namespace

extern "C" {

int epoll_create1(int flags) noexcept
{
    return make_int("epoll_create1", [&] { return ::syscall(SYS_epoll_create1, flags); });
}

int epoll_ctl(int set, int operation, int fd, struct epoll_event* event) noexcept
{
    return make_int("epoll_ctl",
                    [&] { return ::syscall(SYS_epoll_ctl, set, operation, fd, event); });
}

int epoll_wait(int set, struct epoll_event* events, int most, int timeout)
{
    return make_int("epoll_wait", [&] {
        return ::syscall(SYS_epoll_pwait, set, events, most, timeout, nullptr, 0);
    });
}

int timerfd_create(clockid_t clock, int flags) noexcept
{
    return make_int("timerfd_create", [&] { return ::syscall(SYS_timerfd_create, clock, flags); });
}

int timerfd_settime(int fd, int flags, const struct itimerspec* time,
                    struct itimerspec* before) noexcept
{
    return make_int("timerfd_settime",
                    [&] { return ::syscall(SYS_timerfd_settime, fd, flags, time, before); });
}

int eventfd(unsigned int value, int flags) noexcept
{
    return make_int("eventfd", [&] { return ::syscall(SYS_eventfd2, value, flags); });
}

int pipe2(int* ends, int flags) noexcept
{
    return make_int("pipe2", [&] { return ::syscall(SYS_pipe2, ends, flags); });
}

pid_t fork() noexcept
{
    return static_cast<pid_t>(make("fork", [] {
        return static_cast<long>(reinterpret_cast<pid_t (*)()>(::dlsym(RTLD_NEXT, "fork"))());
    }));
}

pid_t waitpid(pid_t child, int* state, int options)
{
    return make_int("waitpid",
                    [&] { return ::syscall(SYS_wait4, child, state, options, nullptr); });
}

int memfd_create(const char* name, unsigned flags) noexcept
{
    return make_int("memfd_create", [&] { return ::syscall(SYS_memfd_create, name, flags); });
}

int pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*work)(void*),
                   void* data) noexcept
{
    const long result = make("pthread_create", [&] {
        static auto* const next =
            reinterpret_cast<decltype(&pthread_create)>(::dlsym(RTLD_NEXT, "pthread_create"));
        return static_cast<long>(next(thread, attributes, work, data));
    });
    return result < 0 ? errno : static_cast<int>(result);
}

int open(const char* path, int flags, ...)
{
    std::va_list rest;
    va_start(rest, flags);
    const int fd = open_at("open", AT_FDCWD, path, flags, rest);
    va_end(rest);
    return fd;
}

int open64(const char* path, int flags, ...)
{
    std::va_list rest;
    va_start(rest, flags);
    const int fd = open_at("open", AT_FDCWD, path, flags, rest);
    va_end(rest);
    return fd;
}

int openat(int directory, const char* path, int flags, ...)
{
    std::va_list rest;
    va_start(rest, flags);
    const int fd = open_at("openat", directory, path, flags, rest);
    va_end(rest);
    return fd;
}

ssize_t read(int fd, void* data, size_t size)
{
    return make(is_socket(fd) ? "receive" : "read",
                [&] { return ::syscall(SYS_read, fd, data, size); });
}

/// Standard error does not fail: what is written there is looked for.
ssize_t write(int fd, const void* data, size_t size)
{
    if (fd == STDERR_FILENO) {
        return ::syscall(SYS_write, fd, data, size);
    }
    return make(is_socket(fd) ? "send" : "write",
                [&] { return ::syscall(SYS_write, fd, data, size); });
}

ssize_t pwrite(int fd, const void* data, size_t size, off_t at)
{
    return make("pwrite", [&] { return ::syscall(SYS_pwrite64, fd, data, size, at); });
}

ssize_t pwrite64(int fd, const void* data, size_t size, off64_t at)
{
    return make("pwrite", [&] { return ::syscall(SYS_pwrite64, fd, data, size, at); });
}

int fsync(int fd)
{
    return make_int("fsync", [&] { return ::syscall(SYS_fsync, fd); });
}

int fdatasync(int fd)
{
    return make_int("fsync", [&] { return ::syscall(SYS_fdatasync, fd); });
}

int ftruncate(int fd, off_t size) noexcept
{
    return make_int("ftruncate", [&] { return ::syscall(SYS_ftruncate, fd, size); });
}

int ftruncate64(int fd, off64_t size) noexcept
{
    return make_int("ftruncate", [&] { return ::syscall(SYS_ftruncate, fd, size); });
}

int flock(int fd, int operation) noexcept
{
    return make_int("flock", [&] { return ::syscall(SYS_flock, fd, operation); });
}

int mkdir(const char* path, mode_t mode) noexcept
{
    return make_int("mkdir", [&] { return ::syscall(SYS_mkdirat, AT_FDCWD, path, mode); });
}

int rename(const char* from, const char* to) noexcept
{
    return make_int("rename",
                    [&] { return ::syscall(SYS_renameat, AT_FDCWD, from, AT_FDCWD, to); });
}

int renameat(int from_directory, const char* from, int to_directory, const char* to) noexcept
{
    return make_int(
        "rename", [&] { return ::syscall(SYS_renameat, from_directory, from, to_directory, to); });
}

int unlink(const char* path) noexcept
{
    return make_int("unlink", [&] { return ::syscall(SYS_unlinkat, AT_FDCWD, path, 0); });
}

}  // extern "C"
