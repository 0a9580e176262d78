#include "messages/left_open.h"

#include <quorval/log.h>
#include "messages/context.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <exception>
#include <filesystem>
#include <iterator>
#include <map>
#include <stdexcept>
#include <string_view>
#include <system_error>

namespace Quorval::runtime {

namespace {

LeftOpen*& present()
{
    static thread_local LeftOpen* watch = nullptr;
    return watch;
}

/// Sorted. That of the directory that is read is among them, and closed by then. Empty where they
/// cannot be listed.
std::vector<int> open_descriptors()
{
    std::vector<int> fds;
    std::error_code error;
    for (std::filesystem::directory_iterator at("/proc/self/fd", error), end; !error && at != end;
         at.increment(error)) {
        fds.push_back(std::stoi(at->path().filename().string()));
    }
    if (error) {
        return {};
    }
    std::sort(fds.begin(), fds.end());
    return fds;
}

std::string target_of(int fd)
{
    std::error_code error;
    return std::filesystem::read_symlink("/proc/self/fd/" + std::to_string(fd), error).string();
}

[[noreturn]] void throw_closed_another()
{
    throw std::runtime_error("it closed a descriptor that is not its own");
}

/// The path of the block that the present operation is of; empty outside of one.
std::string_view present_block()
{
    const char* path = context().path;
    return path != nullptr ? path : "";
}

template <class Action>
void do_where_watched(const Action& action) noexcept
{
    try {
        if (present() != nullptr) {
            action(*present());
        }
    } catch (const std::exception&) {
        // There is no memory for it.
        return;
    }
}

/// Whether it is what the C library or that of the journal keeps to send messages through.
bool is_for_messages(int fd)
{
    int domain = 0;
    int type = 0;
    socklen_t size = sizeof(int);
    return ::getsockopt(fd, SOL_SOCKET, SO_DOMAIN, &domain, &size) == 0 &&
           ::getsockopt(fd, SOL_SOCKET, SO_TYPE, &type, &size) == 0 && domain == AF_UNIX &&
           type == SOCK_DGRAM;
}

}  // namespace

LeftOpen::LeftOpen(bool is_on) : is_on_(is_on)
{
    if (is_on_) {
        before_ = open_descriptors();
        present() = this;
    }
}

LeftOpen::~LeftOpen()
{
    if (!is_on_) {
        return;
    }
    present() = nullptr;
    try {
        warn();
    } catch (const std::exception&) {
        // There is no memory for a warning.
        return;
    }
}

void LeftOpen::note()
{
    // Both in one call. What is not open is not valid, and what is negative is not looked at.
    std::array<pollfd, 2> looked{{{next_, 0, 0}, {guarded_, 0, 0}}};
    ::poll(looked.data(), looked.size(), 0);
    if ((looked[0].revents & POLLNVAL) == 0) {
        take_opened();
    }
    if ((looked[1].revents & POLLNVAL) != 0) {
        guarded_ = -1;
        throw_closed_another();
    }
}

/// The system gives the lowest number that is free, so what was opened stands behind what is known.
void LeftOpen::take_opened()
{
    for (; take(next_); ++next_) {}
}

void LeftOpen::note_failure()
{
    // What the block closed when it failed may have had lower numbers than what it left open.
    constexpr std::size_t kLooked = 64;
    std::array<pollfd, kLooked> looked{};
    int fd = next_;
    for (pollfd& one : looked) {
        one.fd = fd++;
    }
    ::poll(looked.data(), looked.size(), 0);
    for (const pollfd& one : looked) {
        if ((one.revents & POLLNVAL) == 0) {
            take(one.fd);
        }
    }
}

void LeftOpen::begin_end()
{
    for (const int fd : open_descriptors()) {
        if (!was_there(fd)) {
            opened_.try_emplace(fd);
        }
    }
    next_ = std::max(find_free(), 0);
}

void LeftOpen::note_end()
{
    forget_closed();
    if (take(next_)) {
        note_failure();
    }
    next_ = std::max(find_free(), 0);
}

/// What the present block opened before may stand for what another one opens later.
void LeftOpen::forget_closed()
{
    for (auto at = opened_.begin(); at != opened_.end();) {
        struct stat status = {};
        const bool is_closed =
            at->second.path == present_block() && ::fstat(at->first, &status) != 0;
        at = is_closed ? opened_.erase(at) : std::next(at);
    }
}

/// The number that the next descriptor will get; negative where that cannot be known.
int LeftOpen::find_free() const
{
    const int fd = ::fcntl(guarded_, F_DUPFD_CLOEXEC, 0);
    if (fd >= 0) {
        ::close(fd);
    }
    return fd;
}

/// Where it is known already, only the next one can be another file by now.
/// @return whether it is open
bool LeftOpen::take(int fd)
{
    struct stat status = {};
    if (::fstat(fd, &status) != 0) {
        return false;
    }
    if (!was_there(fd)) {
        const auto [at, is_new] = opened_.try_emplace(fd);
        if (is_new || fd == next_) {
            at->second = {status.st_dev, status.st_ino, std::string(present_block())};
        }
    }
    return true;
}

bool LeftOpen::was_there(int fd) const
{
    return std::binary_search(before_.begin(), before_.end(), fd);
}

/// Empty where that is not known: the number may stand for another file by now.
const std::string& LeftOpen::opener_of(int fd) const
{
    static const std::string kNobody;
    struct stat status = {};
    const auto opened = opened_.find(fd);
    const bool is_same = opened != opened_.end() && ::fstat(fd, &status) == 0 &&
                         status.st_dev == opened->second.device &&
                         status.st_ino == opened->second.file;
    return is_same ? opened->second.path : kNobody;
}

void LeftOpen::warn() const
{
    if (before_.empty()) {
        return;
    }
    std::map<std::string, std::vector<int>> left;  // by block
    for (const int fd : open_descriptors()) {
        struct stat status = {};
        if (!was_there(fd) && ::fstat(fd, &status) == 0 && !is_for_messages(fd)) {
            left[opener_of(fd)].push_back(fd);
        }
    }
    for (const auto& [path, fds] : left) {
        const std::string who = path.empty() ? "a block" : "block '" + path + "'";
        const std::string many = std::to_string(fds.size()) + " descriptors open, the first is";
        logger(LOGLEVEL_WARNING, "%s left %s '%s'", who.c_str(),
               fds.size() == 1 ? "a descriptor open:" : many.c_str(), target_of(fds[0]).c_str());
    }
}

void note_left_open()
{
    if (present() != nullptr) {
        present()->note();
    }
}

void note_left_open_of_failure() noexcept
{
    do_where_watched([](LeftOpen& watch) { watch.note_failure(); });
}

void note_open_before_end() noexcept
{
    do_where_watched([](LeftOpen& watch) { watch.begin_end(); });
}

void note_left_open_at_end(const char* path) noexcept
{
    const ContextScope scope(path, nullptr);
    do_where_watched([](LeftOpen& watch) { watch.note_end(); });
}

}  // namespace Quorval::runtime
