#include "apart.h"

#include <quorval/runtime/crash.h>
#include "command.h"
#include "command_line.h"
#include "output.h"

#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <string>
#include <system_error>

namespace {

[[noreturn]] void run_in_child(const std::function<int()>& work, pid_t parent)
{
    // A child that hangs goes with its parent.
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (::getppid() != parent) {
        ::_exit(kFailed);
    }
    Quorval::report_crashes();
    end_process(run_and_close_output(work));
}

int wait_for(pid_t child)
{
    int state = 0;
    while (::waitpid(child, &state, 0) < 0) {
        if (errno != EINTR) {
            throw std::system_error(errno, std::generic_category(), "waitpid");
        }
    }
    return state;
}

/// The signals that the child itself reports.
bool is_crash(int signal)
{
    constexpr std::array kCrashes = {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGABRT, SIGTRAP, SIGSYS};
    return std::find(kCrashes.begin(), kCrashes.end(), signal) != kCrashes.end();
}

}  // namespace

int run_apart(const std::function<int()>& work)
{
    const pid_t parent = ::getpid();
    const pid_t child = ::fork();
    if (child < 0) {
        throw std::system_error(errno, std::generic_category(), "fork");
    }
    if (child == 0) {
        run_in_child(work, parent);
    }
    const int state = wait_for(child);
    if (WIFEXITED(state)) {
        return WEXITSTATUS(state);
    }
    if (!is_crash(WTERMSIG(state))) {
        say_error("ended by signal " + std::to_string(WTERMSIG(state)) + " (SIG" +
                  ::sigabbrev_np(WTERMSIG(state)) + ")");
    }
    return kWrongGraph;
}
