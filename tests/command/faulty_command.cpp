#include "command/faulty_command.h"

#include <cerrno>
#include <filesystem>
#include <map>
#include <sstream>

namespace quorval_test {

namespace {

/// What each call may fail with.
const std::map<std::string, std::vector<int>> kErrors = {
    {"connect", {ECONNREFUSED, EACCES, EAGAIN, ETIMEDOUT}},
    {"epoll_create1", {EMFILE, ENOMEM}},
    {"epoll_ctl", {ENOMEM, ENOSPC}},
    {"epoll_wait", {EINTR}},
    {"eventfd", {EMFILE}},
    {"fcntl", {EMFILE}},
    {"flock", {ENOLCK, EINTR}},
    {"fork", {EAGAIN}},
    {"fsync", {EIO, ENOSPC}},
    {"ftruncate", {EIO}},
    {"getaddrinfo", {EMFILE}},
    {"getrandom", {EAGAIN}},
    {"getsockname", {ENOBUFS}},
    {"getsockopt", {ENOBUFS, ENOPROTOOPT}},
    {"inotify_init1", {EMFILE}},
    {"memfd_create", {EMFILE, ENOMEM}},
    {"mkdir", {ENOSPC, EROFS}},
    {"open", {EMFILE, EACCES, EROFS}},
    {"openat", {EMFILE, EACCES}},
    {"pipe2", {EMFILE}},
    {"poll", {EINTR, ENOMEM}},
    {"pthread_create", {EAGAIN}},
    {"pwrite", {ENOSPC, EIO, EINTR}},
    {"read", {EIO, EINTR}},
    {"receive", {ECONNRESET, ENOMEM, EINTR, EAGAIN}},
    {"rename", {ENOSPC, EROFS}},
    {"send", {EPIPE, ECONNRESET, ENOBUFS, EINTR, EAGAIN}},
    {"setsockopt", {ENOMEM, EPERM}},
    {"signalfd", {EMFILE}},
    {"socket", {EMFILE, ENOBUFS}},
    {"socketpair", {EMFILE}},
    {"timerfd_create", {EMFILE}},
    {"timerfd_settime", {ENOMEM}},
    {"unlink", {EROFS}},
    {"waitpid", {EINTR}},
    {"write", {ENOSPC, EIO, EINTR}},
};

}  // namespace

ProcessOptions FaultyCommand::preloaded(const Arguments& arguments, const std::string& name,
                                        const std::string& value) const
{
    ProcessOptions options = command(arguments);
    set_variable(options, "QUORVAL_PLUGIN_PATH", QUORVAL_BASIC_PLUGIN_DIR);
    set_variable(options, "LD_PRELOAD", QUORVAL_TEST_FAULTY_CALLS);
    set_variable(options, name, value);
    // The runtime of the sanitizer wants to be first.
    options.environment.emplace_back("ASAN_OPTIONS", "verify_asan_link_order=0:detect_leaks=0");
    return options;
}

ProcessOptions FaultyCommand::faulty(const Arguments& arguments, const Call& call, int what,
                                     int count) const
{
    return preloaded(arguments, "QUORVAL_TEST_CALL",
                     call.name + " " + std::to_string(call.number) + " " + std::to_string(what) +
                         " " + std::to_string(count));
}

std::vector<Call> FaultyCommand::calls_of(const Arguments& arguments)
{
    clean();
    std::filesystem::remove(file("calls"));
    const ProcessResult result =
        run_faulty(preloaded(arguments, "QUORVAL_TEST_CALL_LOG", file("calls")));
    EXPECT_EQ(result.status, 0) << result.err;
    std::vector<Call> calls;
    std::map<std::string, int> numbers;
    std::istringstream log(read_file(file("calls")));
    for (std::string name; std::getline(log, name);) {
        calls.push_back({name, numbers[name]++});
    }
    return calls;
}

ProcessResult FaultyCommand::run_with(const Arguments& arguments, const Call& call, int what)
{
    clean();
    return run_faulty(faulty(arguments, call, what));
}

void FaultyCommand::fail_each(const Arguments& arguments, const std::vector<Call>& calls,
                              const Check& check, std::size_t step)
{
    std::size_t number = 0;
    for (const Call& call : calls) {
        for (const int error : kErrors.at(call.name)) {
            if (number++ % (step * QUORVAL_FAULT_STEP) == 0) {
                SCOPED_TRACE(call.name + " " + std::to_string(call.number) + ", errno " +
                             std::to_string(error));
                check(run_with(arguments, call, error));
            }
        }
    }
    EXPECT_GT(number, 0U);
}

void FaultyCommand::expect_orderly_end(const ProcessResult& result)
{
    EXPECT_TRUE(result.status == 0 || result.status == 1 || result.status == 3)
        << result.status << ", signal " << result.signal << "\n"
        << result.err;
    EXPECT_TRUE(result.status == 0 || result.err.find("error: ") != std::string::npos)
        << result.err;
}

}  // namespace quorval_test
