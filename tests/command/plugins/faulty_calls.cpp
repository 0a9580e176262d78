// Preloaded, it notes the system calls of a program, and lets one of them fail or end the program.
//
// QUORVAL_TEST_CALL_LOG: a file to which the name of each call is appended, a line each.
// QUORVAL_TEST_CALL: "NAME NUMBER WHAT", the call of that name and number, from 0, and the errno
// with which it fails; -1: the program dies before it, -2: behind it.
#undef _FORTIFY_SOURCE

#include <dlfcn.h>
#include <fcntl.h>
#include <pthread.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

constexpr int kDiesBefore = -1;
constexpr int kDiesBehind = -2;

struct Fault {
    char name[32] = {};
    int number = -1;
    int what = 0;
};

const Fault& fault()
{
    static const Fault kFault = [] {
        Fault read;
        const char* text = std::getenv("QUORVAL_TEST_CALL");
        if (text != nullptr) {
            std::sscanf(text, "%31s %d %d", read.name, &read.number, &read.what);
        }
        return read;
    }();
    return kFault;
}

void note(const char* name)
{
    static const char* const kLog = std::getenv("QUORVAL_TEST_CALL_LOG");
    if (kLog == nullptr) {
        return;
    }
    const long fd = ::syscall(SYS_openat, AT_FDCWD, kLog, O_WRONLY | O_APPEND | O_CREAT, 0600);
    ::syscall(SYS_write, fd, name, std::strlen(name));
    ::syscall(SYS_write, fd, "\n", 1);
    ::syscall(SYS_close, fd);
}

std::atomic<int> count{0};  // of the calls of that name

/// Does a call, unless it is the one that is to fail.
template <class Work>
long make(const char* name, Work work)
{
    note(name);
    const Fault& wanted = fault();
    if (std::strcmp(wanted.name, name) != 0 || count++ != wanted.number) {
        return work();
    }
    if (wanted.what > 0) {
        errno = wanted.what;
        return -1;
    }
    if (wanted.what == kDiesBehind) {
        work();
    }
    ::kill(::getpid(), SIGKILL);
    for (;;) {
        ::pause();
    }
}

int open_at(const char* name, int directory, const char* path, int flags, std::va_list rest)
{
    const mode_t mode = (flags & O_CREAT) != 0 ? va_arg(rest, mode_t) : 0;
    return static_cast<int>(
        make(name, [&] { return ::syscall(SYS_openat, directory, path, flags, mode); }));
}

}  // namespace

extern "C" {

int epoll_create1(int flags) noexcept
{
    return static_cast<int>(
        make("epoll_create1", [&] { return ::syscall(SYS_epoll_create1, flags); }));
}

int epoll_ctl(int set, int operation, int fd, struct epoll_event* event) noexcept
{
    return static_cast<int>(
        make("epoll_ctl", [&] { return ::syscall(SYS_epoll_ctl, set, operation, fd, event); }));
}

int epoll_wait(int set, struct epoll_event* events, int most, int timeout)
{
    return static_cast<int>(make("epoll_wait", [&] {
        return ::syscall(SYS_epoll_pwait, set, events, most, timeout, nullptr, 0);
    }));
}

int timerfd_create(clockid_t clock, int flags) noexcept
{
    return static_cast<int>(
        make("timerfd_create", [&] { return ::syscall(SYS_timerfd_create, clock, flags); }));
}

int timerfd_settime(int fd, int flags, const struct itimerspec* time,
                    struct itimerspec* before) noexcept
{
    return static_cast<int>(make("timerfd_settime", [&] {
        return ::syscall(SYS_timerfd_settime, fd, flags, time, before);
    }));
}

int eventfd(unsigned int value, int flags) noexcept
{
    return static_cast<int>(make("eventfd", [&] { return ::syscall(SYS_eventfd2, value, flags); }));
}

int pipe2(int* ends, int flags) noexcept
{
    return static_cast<int>(make("pipe2", [&] { return ::syscall(SYS_pipe2, ends, flags); }));
}

pid_t fork() noexcept
{
    return static_cast<pid_t>(make("fork", [] {
        return static_cast<long>(reinterpret_cast<pid_t (*)()>(::dlsym(RTLD_NEXT, "fork"))());
    }));
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
    return make("read", [&] { return ::syscall(SYS_read, fd, data, size); });
}

ssize_t write(int fd, const void* data, size_t size)
{
    return make("write", [&] { return ::syscall(SYS_write, fd, data, size); });
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
    return static_cast<int>(make("fsync", [&] { return ::syscall(SYS_fsync, fd); }));
}

int fdatasync(int fd)
{
    return static_cast<int>(make("fsync", [&] { return ::syscall(SYS_fdatasync, fd); }));
}

int ftruncate(int fd, off_t size) noexcept
{
    return static_cast<int>(make("ftruncate", [&] { return ::syscall(SYS_ftruncate, fd, size); }));
}

int ftruncate64(int fd, off64_t size) noexcept
{
    return static_cast<int>(make("ftruncate", [&] { return ::syscall(SYS_ftruncate, fd, size); }));
}

int flock(int fd, int operation) noexcept
{
    return static_cast<int>(make("flock", [&] { return ::syscall(SYS_flock, fd, operation); }));
}

int mkdir(const char* path, mode_t mode) noexcept
{
    return static_cast<int>(
        make("mkdir", [&] { return ::syscall(SYS_mkdirat, AT_FDCWD, path, mode); }));
}

int rename(const char* from, const char* to) noexcept
{
    return static_cast<int>(
        make("rename", [&] { return ::syscall(SYS_renameat, AT_FDCWD, from, AT_FDCWD, to); }));
}

int renameat(int from_directory, const char* from, int to_directory, const char* to) noexcept
{
    return static_cast<int>(make(
        "rename", [&] { return ::syscall(SYS_renameat, from_directory, from, to_directory, to); }));
}

int unlink(const char* path) noexcept
{
    return static_cast<int>(
        make("unlink", [&] { return ::syscall(SYS_unlinkat, AT_FDCWD, path, 0); }));
}

}  // extern "C"
