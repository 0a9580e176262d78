// System calls of sockets that fail on demand.
#undef _FORTIFY_SOURCE

#include "faulty_calls.h"

#include <dlfcn.h>
#include <netdb.h>
#include <poll.h>
#include <sys/inotify.h>
#include <sys/random.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <sys/un.h>

#include <cstdarg>
#include <ctime>

namespace {

using faulty::make;
using faulty::make_int;

/// Of the program in front of which this stands.
template <class Function>
Function* next(const char* name)
{
    return reinterpret_cast<Function*>(::dlsym(RTLD_NEXT, name));
}

/// Those that make another descriptor; the others just look.
bool makes_descriptor(int command)
{
    return command == F_DUPFD || command == F_DUPFD_CLOEXEC;
}

}  // namespace

extern "C" {

int socket(int domain, int type, int protocol) noexcept
{
    return make_int("socket", [&] { return ::syscall(SYS_socket, domain, type, protocol); });
}

int socketpair(int domain, int type, int protocol, int* ends) noexcept
{
    return make_int("socketpair",
                    [&] { return ::syscall(SYS_socketpair, domain, type, protocol, ends); });
}

int connect(int fd, const struct sockaddr* address, socklen_t size)
{
    return make_int("connect", [&] { return ::syscall(SYS_connect, fd, address, size); });
}

ssize_t send(int fd, const void* data, size_t size, int flags)
{
    return make("send", [&] { return ::syscall(SYS_sendto, fd, data, size, flags, nullptr, 0); });
}

ssize_t sendto(int fd, const void* data, size_t size, int flags, const struct sockaddr* address,
               socklen_t address_size)
{
    return make("send", [&] {
        return ::syscall(SYS_sendto, fd, data, size, flags, address, address_size);
    });
}

/// What goes to the journal goes to the socket that QUORVAL_TEST_JOURNAL names.
ssize_t sendmsg(int fd, const struct msghdr* message, int flags)
{
    const char* const journal = std::getenv("QUORVAL_TEST_JOURNAL");
    struct msghdr sent = *message;
    struct sockaddr_un address = {};
    if (journal != nullptr) {
        address.sun_family = AF_UNIX;
        std::strncpy(address.sun_path, journal, sizeof address.sun_path - 1);
        sent.msg_name = &address;
        sent.msg_namelen = sizeof address;
    }
    return make("send", [&] { return ::syscall(SYS_sendmsg, fd, &sent, flags); });
}

ssize_t recv(int fd, void* data, size_t size, int flags)
{
    return make("receive",
                [&] { return ::syscall(SYS_recvfrom, fd, data, size, flags, nullptr, nullptr); });
}

ssize_t recvmsg(int fd, struct msghdr* message, int flags)
{
    return make("receive", [&] { return ::syscall(SYS_recvmsg, fd, message, flags); });
}

ssize_t writev(int fd, const struct iovec* parts, int count)
{
    return make("send", [&] { return ::syscall(SYS_writev, fd, parts, count); });
}

ssize_t readv(int fd, const struct iovec* parts, int count)
{
    return make("receive", [&] { return ::syscall(SYS_readv, fd, parts, count); });
}

int poll(struct pollfd* looked, nfds_t count, int timeout)
{
    return make_int("poll", [&] { return next<decltype(poll)>("poll")(looked, count, timeout); });
}

int ppoll(struct pollfd* looked, nfds_t count, const struct timespec* timeout,
          const sigset_t* signals)
{
    return make_int(
        "poll", [&] { return next<decltype(ppoll)>("ppoll")(looked, count, timeout, signals); });
}

int getsockopt(int fd, int level, int name, void* value, socklen_t* size) noexcept
{
    return make_int("getsockopt",
                    [&] { return ::syscall(SYS_getsockopt, fd, level, name, value, size); });
}

int setsockopt(int fd, int level, int name, const void* value, socklen_t size) noexcept
{
    return make_int("setsockopt",
                    [&] { return ::syscall(SYS_setsockopt, fd, level, name, value, size); });
}

int getsockname(int fd, struct sockaddr* address, socklen_t* size) noexcept
{
    return make_int("getsockname", [&] { return ::syscall(SYS_getsockname, fd, address, size); });
}

int fcntl(int fd, int command, ...)
{
    std::va_list rest;
    va_start(rest, command);
    void* const argument = va_arg(rest, void*);
    va_end(rest);
    const auto work = [&] { return ::syscall(SYS_fcntl, fd, command, argument); };
    return makes_descriptor(command) ? make_int("fcntl", work) : static_cast<int>(work());
}

[[gnu::alias("fcntl")]] int fcntl64(int fd, int command, ...);

int signalfd(int fd, const sigset_t* signals, int flags) noexcept
{
    return make_int("signalfd",
                    [&] { return next<decltype(signalfd)>("signalfd")(fd, signals, flags); });
}

int inotify_init1(int flags) noexcept
{
    return make_int("inotify_init1", [&] { return ::syscall(SYS_inotify_init1, flags); });
}

ssize_t getrandom(void* data, size_t size, unsigned flags)
{
    return make("getrandom", [&] { return ::syscall(SYS_getrandom, data, size, flags); });
}

int getaddrinfo(const char* node, const char* service, const struct addrinfo* hints,
                struct addrinfo** result)
{
    int error = EAI_SYSTEM;
    make("getaddrinfo", [&] {
        error = next<decltype(getaddrinfo)>("getaddrinfo")(node, service, hints, result);
        return 0;
    });
    return error;
}

}  // extern "C"
