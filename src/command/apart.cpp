#include "apart.h"

#include <quorval/runtime/crash.h>
#include "command.h"
#include "command_line.h"
#include "output.h"
#include "signal_name.h"

#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <system_error>

namespace {

/// What the child tells its parent about its end.
struct End {
    bool is_done;  // the work, with this status
    int status;
    bool is_reported;  // exit() was called, and report_crashes() tells by whom
    bool is_crash_reported;

    bool has_reason_for(int exit_status) const
    {
        return (is_done && exit_status == status) || (is_reported && exit_status == kWrongGraph);
    }
};

/// In memory that parent and child share, zeros at first.
class SharedEnd {
public:
    SharedEnd()
        : memory_(::mmap(nullptr, sizeof(End), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS,
                         -1, 0))
    {
        if (memory_ == MAP_FAILED) {
            throw std::system_error(errno, std::generic_category(), "mmap");
        }
    }
    SharedEnd(const SharedEnd&) = delete;
    SharedEnd& operator=(const SharedEnd&) = delete;
    ~SharedEnd() { ::munmap(memory_, sizeof(End)); }

    End& get() const { return *static_cast<End*>(memory_); }

private:
    void* memory_;
};

/// Of the present process, where it is a child.
End* own_end = nullptr;

constexpr std::array kCrashes = {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGABRT, SIGTRAP, SIGSYS};

void (*report_crash)(int) = nullptr;

void note_and_report_crash(int signal)
{
    own_end->is_crash_reported = true;
    report_crash(signal);
}

/// Has a crash be noted before it is reported.
void note_crashes()
{
    for (const int signal : kCrashes) {
        struct sigaction action {};
        ::sigaction(signal, nullptr, &action);
        report_crash = action.sa_handler;
        action.sa_handler = note_and_report_crash;
        ::sigaction(signal, &action, nullptr);
    }
}

/// Has an exit() be noted before it is reported: the last one that is registered comes first.
void note_and_report_ends(End& end)
{
    own_end = &end;
    Quorval::report_crashes();
    note_crashes();
    static_cast<void>(std::atexit(note_reported_end));
    static_cast<void>(std::at_quick_exit(note_reported_end));
}

[[noreturn]] void run_in_child(const std::function<int()>& work, pid_t parent, End& end)
{
    // A child that hangs goes with its parent.
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (::getppid() != parent) {
        ::_exit(kFailed);
    }
    note_and_report_ends(end);
    const int status = run_and_close_output(work);
    end.status = status;
    end.is_done = true;
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

}  // namespace

void note_reported_end()
{
    if (own_end != nullptr) {
        own_end->is_reported = true;
    }
}

int run_apart(const std::function<int()>& work)
{
    const SharedEnd end;
    const pid_t parent = ::getpid();
    const pid_t child = ::fork();
    if (child < 0) {
        throw std::system_error(errno, std::generic_category(), "fork");
    }
    if (child == 0) {
        run_in_child(work, parent, end.get());
    }
    const int state = wait_for(child);
    if (WIFEXITED(state)) {
        if (!end.get().has_reason_for(WEXITSTATUS(state))) {
            say_error("a plug-in ended the process without exit()");
            return kWrongGraph;
        }
        return WEXITSTATUS(state);
    }
    // A crash whose signal is blocked ends the process at once.
    if (!end.get().is_crash_reported) {
        say_error("ended by " + describe_signal(WTERMSIG(state)));
    }
    return kWrongGraph;
}
