// What the functions that fail on demand have in common. They are preloaded, note the system calls
// of a program, and let some of them fail or one of them end the program.
//
// QUORVAL_TEST_CALL_LOG: a file to which the name of each call is appended, a line each.
// QUORVAL_TEST_CALL: "NAME NUMBER WHAT COUNT", the first call that fails, by its name and number
// from 0, the errno with which it fails, and how many of that name fail, one if nothing is said. In
// place of an errno -1: the program dies before it, -2: behind it.
#pragma once

#include <fcntl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace faulty {

constexpr int kDiesBefore = -1;
constexpr int kDiesBehind = -2;

struct Fault {
    char name[32] = {};
    int number = -1;
    int what = 0;
    int count = 1;
    std::atomic<int> seen{0};  // calls of that name

    Fault()
    {
        const char* text = std::getenv("QUORVAL_TEST_CALL");
        if (text != nullptr) {
            std::sscanf(text, "%31s %d %d %d", name, &number, &what, &count);
        }
    }
};

inline Fault& fault()
{
    static Fault wanted;
    return wanted;
}

inline void note(const char* name)
{
    static const char* const kLog = std::getenv("QUORVAL_TEST_CALL_LOG");
    if (kLog == nullptr) {
        return;
    }
    const int error = errno;
    const long fd = ::syscall(SYS_openat, AT_FDCWD, kLog, O_WRONLY | O_APPEND | O_CREAT, 0600);
    char line[40];  // written in one call, as threads of the program write theirs between
    const int size = std::snprintf(line, sizeof line, "%s\n", name);
    ::syscall(SYS_write, fd, line, size);
    ::syscall(SYS_close, fd);
    errno = error;
}

/// Does a call, unless it is one that is to fail.
template <class Work>
long make(const char* name, Work work)
{
    note(name);
    Fault& wanted = fault();
    if (std::strcmp(wanted.name, name) != 0) {
        return work();
    }
    const int number = wanted.seen++;
    if (number < wanted.number || number - wanted.number >= wanted.count) {
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

/// Does a call that gives an int.
template <class Work>
int make_int(const char* name, Work work)
{
    return static_cast<int>(make(name, work));
}

}  // namespace faulty
