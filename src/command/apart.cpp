#include "apart.h"

#include <quorval/runtime/crash.h>
#include "command.h"
#include "command_line.h"
#include "output.h"

#include <sys/mman.h>
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

/// A word from the child to its parent: it has come to its end itself.
class Completion {
public:
    Completion()
        : memory_(::mmap(nullptr, sizeof(bool), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS,
                         -1, 0))
    {
        if (memory_ == MAP_FAILED) {
            throw std::system_error(errno, std::generic_category(), "mmap");
        }
    }
    Completion(const Completion&) = delete;
    Completion& operator=(const Completion&) = delete;
    ~Completion() { ::munmap(memory_, sizeof(bool)); }

    void note() { *static_cast<bool*>(memory_) = true; }
    /// Of a child that has ended.
    bool is_noted() const { return *static_cast<bool*>(memory_); }

private:
    void* memory_;  // zeros at first
};

[[noreturn]] void run_in_child(const std::function<int()>& work, pid_t parent,
                               Completion& completion)
{
    // A child that hangs goes with its parent.
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (::getppid() != parent) {
        ::_exit(kFailed);
    }
    Quorval::report_crashes();
    const int status = run_and_close_output(work);
    completion.note();
    end_process(status);
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
    Completion completion;
    const pid_t parent = ::getpid();
    const pid_t child = ::fork();
    if (child < 0) {
        throw std::system_error(errno, std::generic_category(), "fork");
    }
    if (child == 0) {
        run_in_child(work, parent, completion);
    }
    const int state = wait_for(child);
    if (WIFEXITED(state)) {
        // The child itself tells who called exit(), and ends with the status of a wrong graph.
        if (!completion.is_noted() && WEXITSTATUS(state) != kWrongGraph) {
            say_error("a plug-in ended the process without exit()");
            return kWrongGraph;
        }
        return WEXITSTATUS(state);
    }
    if (!is_crash(WTERMSIG(state))) {
        say_error("ended by signal " + std::to_string(WTERMSIG(state)) + " (SIG" +
                  ::sigabbrev_np(WTERMSIG(state)) + ")");
    }
    return kWrongGraph;
}
