// What the functions that fail on demand have in common. They are preloaded, note the system calls
// of a program, and let some of them fail or one of them end the program.
//
// QUORVAL_TEST_CALL_LOG: a file to which the name of each call is appended, a line each.
// QUORVAL_TEST_CALL: "NAME NUMBER WHAT COUNT", the first call that fails, by its name and number
// from 0, the errno with which it fails, and how many of that name fail. In place of an errno -1:
// the program dies before it, -2: behind it. QUORVAL_TEST_OTHER_CALL: another one.
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

    explicit Fault(const char* variable)
    {
        const char* text = std::getenv(variable);
        if (text != nullptr) {
            std::sscanf(text, "%31s %d %d %d", name, &number, &what, &count);
        }
    }

    /// Whether this call, which is counted, fails.
    bool hits(const char* call)
    {
        if (std::strcmp(name, call) != 0) {
            return false;
        }
        const int present = seen++;
        return present >= number && present - number < count;
    }
};

/// What this call fails with; 0: it does not.
inline int find_fault(const char* call)
{
    static Fault first("QUORVAL_TEST_CALL");
    static Fault second("QUORVAL_TEST_OTHER_CALL");
    const bool is_first = first.hits(call);
    const bool is_second = second.hits(call);
    return is_first ? first.what : (is_second ? second.what : 0);
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
    const int what = find_fault(name);
    if (what == 0) {
        return work();
    }
    if (what > 0) {
        errno = what;
        return -1;
    }
    if (what == kDiesBehind) {
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
