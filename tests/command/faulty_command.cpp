#include "command/faulty_command.h"

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <map>
#include <random>
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

std::string text_of(const Call& call, int what, int count)
{
    return call.name + " " + std::to_string(call.number) + " " + std::to_string(what) + " " +
           std::to_string(count);
}

}  // namespace

ProcessOptions FaultyCommand::preloaded(const Arguments& arguments) const
{
    ProcessOptions options = command(arguments);
    set_variable(options, "QUORVAL_PLUGIN_PATH", QUORVAL_BASIC_PLUGIN_DIR);
    set_variable(options, "LD_PRELOAD", QUORVAL_TEST_FAULTY_CALLS);
    // The runtime of the sanitizer wants to be first.
    options.environment.emplace_back("ASAN_OPTIONS", "verify_asan_link_order=0:detect_leaks=0");
    return options;
}

ProcessOptions FaultyCommand::faulty(const Arguments& arguments, const Call& call, int what,
                                     int count) const
{
    ProcessOptions options = preloaded(arguments);
    set_variable(options, "QUORVAL_TEST_CALL", text_of(call, what, count));
    return options;
}

void FaultyCommand::fail_too(ProcessOptions& options, const Call& call, int what)
{
    set_variable(options, "QUORVAL_TEST_OTHER_CALL", text_of(call, what, 1));
}

ProcessResult FaultyCommand::run_noted(ProcessOptions options, std::vector<Call>& calls)
{
    clean();
    std::filesystem::remove(file("calls"));
    set_variable(options, "QUORVAL_TEST_CALL_LOG", file("calls"));
    ProcessResult result = run_faulty(options);
    std::map<std::string, int> numbers;
    std::istringstream log(read_file(file("calls")));
    for (std::string name; std::getline(log, name);) {
        calls.push_back({name, numbers[name]++});
    }
    return result;
}

std::vector<Call> FaultyCommand::calls_of(const Arguments& arguments)
{
    std::vector<Call> calls;
    const ProcessResult result = run_noted(preloaded(arguments), calls);
    EXPECT_EQ(result.status, 0) << result.err;
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

void FaultyCommand::fail_two(const Arguments& arguments, std::size_t pairs, const Check& check)
{
    std::mt19937 random(1);
    const auto choose = [&](const auto& list) { return list.at(random() % list.size()); };
    const std::vector<Call> calls = calls_of(arguments);
    std::size_t done = 0;
    for (std::size_t pair = 0; pair < pairs; ++pair) {
        const std::size_t at = random() % calls.size();
        const int error = choose(kErrors.at(calls[at].name));
        std::vector<Call> others;
        run_noted(faulty(arguments, calls[at], error), others);
        others.erase(others.begin(),
                     others.begin() + static_cast<std::ptrdiff_t>(std::min(at + 1, others.size())));
        if (others.empty()) {
            continue;
        }
        const Call other = choose(others);
        const int other_error = choose(kErrors.at(other.name));
        SCOPED_TRACE(text_of(calls[at], error, 1) + ", " + text_of(other, other_error, 1));
        ProcessOptions options = faulty(arguments, calls[at], error);
        fail_too(options, other, other_error);
        clean();
        check(run_faulty(options));
        ++done;
    }
    EXPECT_GT(done, 0U);
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
