#include <quorval/runtime/crash.h>
#include "messages/context.h"
#include "messages/crash_threads.h"
#include "messages/plugin_code.h"
#include "messages/turn.h"

#include <execinfo.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <charconv>
#include <csignal>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <string>
#include <string_view>
#include <utility>

namespace Quorval {

namespace {

using runtime::Context;
using runtime::context;
using runtime::Deeds;
using runtime::find_plugin_code;
using runtime::present_deeds;
using runtime::was_started;

constexpr std::array kSignals = {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGABRT, SIGTRAP, SIGSYS};
constexpr std::size_t kStackSize = 65536;
constexpr int kFailedRun = 1;
constexpr int kWrongGraph = 3;

std::atomic<bool> reports_exit{false};
std::atomic<pid_t> reporting_process{0};
std::atomic<pid_t> naming_thread{0};  // 0: nobody was named yet

/// A line made without memory from the heap, which a crash may have left broken. What does not
/// fit is cut.
class Line {
public:
    Line& operator<<(const char* text)
    {
        const std::size_t length = std::min(std::strlen(text), text_.size() - 1 - length_);
        std::memcpy(text_.data() + length_, text, length);
        length_ += length;
        return *this;
    }

    Line& operator<<(int number)
    {
        constexpr std::size_t kLongest = 12;
        std::array<char, kLongest> digits{};  // the last one ends the text
        std::to_chars(digits.data(), digits.data() + digits.size() - 1, number);
        return *this << digits.data();
    }

    void write()
    {
        text_[length_] = '\n';
        // Nothing can be done about a message that is not written.
        [[maybe_unused]] const auto written = ::write(STDERR_FILENO, text_.data(), length_ + 1);
    }

private:
    std::array<char, 8192> text_{};
    std::size_t length_ = 0;
};

/// "block 'a/b' crashed in run"; nothing outside of plug-in code.
void append_culprit(Line& line, const Context& where, const char* deed)
{
    if (where.plugin != nullptr) {
        line << "plug-in '" << where.plugin << "' " << deed << " while it was loaded";
    } else if (where.operation != nullptr) {
        line << "block '" << where.path << "' " << deed << " in " << where.operation;
    }
}

bool is_in_plugin(const Context& where)
{
    return where.plugin != nullptr || (where.path != nullptr && where.operation != nullptr);
}

/// Whether the present thread is the first one, and comes here for the first time. A second one
/// waits for the end of the process, which it would bring before the first one has said what
/// happened.
bool is_first(std::atomic<pid_t>& thread)
{
    const pid_t mine = ::gettid();
    pid_t present = 0;
    const bool has_come_first = thread.compare_exchange_strong(present, mine);
    if (!has_come_first && present != mine) {
        while (true) {
            ::pause();
        }
    }
    return has_come_first;
}

void report_signal(int signal)
{
    static std::atomic<pid_t> reporter{0};
    if (is_first(reporter)) {
        const Context where = context();
        Line line;
        line << "quorval: fatal: ";
        if (is_in_plugin(where)) {
            append_culprit(line, where, "crashed");
            line << ": ";
        }
        const char* name = ::sigabbrev_np(signal);
        line << "signal " << signal << " (SIG" << (name != nullptr ? name : "?") << ")";
        line.write();
    }
    // The signal is not blocked.
    static_cast<void>(::signal(signal, SIG_DFL));
    static_cast<void>(::raise(signal));
}

/// Whether the graph was started before what happened there.
bool is_running(const Context& where)
{
    if (where.plugin != nullptr) {
        return false;
    }
    const std::string_view operation = where.operation != nullptr ? where.operation : "";
    if (operation.empty() || operation == "destroy") {
        return was_started();
    }
    return operation != "create" && operation != "connect";
}

int status_of(const Context& where)
{
    return is_running(where) ? kFailedRun : kWrongGraph;
}

/// The plug-in whose code called what the present function was called for.
std::string find_caller()
{
    std::array<void*, 64> frames{};
    ::backtrace(frames.data(), static_cast<int>(frames.size()));
    for (const void* frame : frames) {
        std::string plugin = find_plugin_code(frame);
        if (!plugin.empty()) {
            return plugin;
        }
    }
    return {};
}

/// What the block of the present thread said before, whose turn does not come any more.
void say_what_waits()
{
    if (const Deeds* deeds = std::exchange(present_deeds(), nullptr)) {
        for (const std::function<void()>& deed : *deeds) {
            deed();
        }
    }
}

/// Names who called exit(): a block in an operation, else a plug-in, in a thread of its own for
/// example. A process that plug-in code has forked ends as it wants to.
void report_exit()
{
    if (reporting_process != ::getpid()) {
        return;
    }
    const Context where = context();
    const std::string caller = is_in_plugin(where) ? std::string() : find_caller();
    if ((!is_in_plugin(where) && caller.empty()) || !is_first(naming_thread)) {
        return;
    }
    Line line;
    line << "quorval: fatal: ";
    if (caller.empty()) {
        append_culprit(line, where, "called exit");
    } else {
        line << "plug-in '" << caller.c_str() << "' called exit";
    }
    say_what_waits();
    static_cast<void>(std::fflush(nullptr));
    line.write();
    ::_exit(status_of(where));
}

}  // namespace

void report_crashes()
{
    // A stack of its own: the other one may have run over.
    alignas(16) static std::array<char, kStackSize> stack;
    stack_t alternative{};
    alternative.ss_sp = stack.data();
    alternative.ss_size = stack.size();
    ::sigaltstack(&alternative, nullptr);

    struct sigaction action {};
    action.sa_handler = report_signal;
    action.sa_flags = SA_ONSTACK | SA_NODEFER;
    for (const int signal : kSignals) {
        ::sigaction(signal, &action, nullptr);
    }
    static_cast<void>(std::atexit(report_exit));
    static_cast<void>(std::at_quick_exit(report_exit));
    reports_exit = true;
    reporting_process = ::getpid();
}

bool report_sudden_exit(int& status) noexcept
{
    const Context where = context();
    if (!is_in_plugin(where) || reporting_process != ::getpid() || !is_first(naming_thread)) {
        return false;
    }
    Line line;
    line << "quorval: fatal: ";
    append_culprit(line, where, "called exit");
    line.write();
    status = status_of(where);
    return true;
}

void runtime::report_exit_first()
{
    // The last one that was registered comes first; the other one finds the process ended.
    if (reports_exit.exchange(false)) {
        static_cast<void>(std::atexit(report_exit));
    }
}

}  // namespace Quorval
