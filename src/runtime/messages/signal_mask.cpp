#include "messages/signal_mask.h"

#include <quorval/log.h>
#include "messages/context.h"

#include <array>
#include <csignal>
#include <cstring>
#include <string>

namespace Quorval::runtime {

namespace {

constexpr std::array kSignals = {SIGINT, SIGTERM, SIGHUP};

/// Those that are watched. Of the thread that runs a graph, which alone has such signals.
sigset_t& watched()
{
    static thread_local sigset_t signals{};
    return signals;
}

bool has(const sigset_t& signals, int signal)
{
    return ::sigismember(&signals, signal) == 1;
}

std::string describe_culprit()
{
    const Context& where = context();
    if (where.plugin != nullptr) {
        return std::string("plug-in '") + where.plugin + "' blocked ";
    }
    return where.path != nullptr ? std::string("block '") + where.path + "' blocked "
                                 : "a block blocked ";
}

/// " while it was loaded", " in start"; nothing where that is not known.
std::string describe_operation()
{
    const Context& where = context();
    if (where.plugin != nullptr) {
        return " while it was loaded";
    }
    return where.operation != nullptr ? std::string(" in ") + where.operation : std::string();
}

}  // namespace

void watch_signals()
{
    sigset_t present{};
    ::pthread_sigmask(SIG_SETMASK, nullptr, &present);
    forget_signals();
    for (const int signal : kSignals) {
        if (!has(present, signal)) {
            ::sigaddset(&watched(), signal);
        }
    }
}

void forget_signals()
{
    ::sigemptyset(&watched());
}

void give_back_signals()
{
    const sigset_t& mine = watched();
    if (::sigisemptyset(&mine) != 0) {
        return;
    }
    sigset_t present{};
    ::pthread_sigmask(SIG_SETMASK, nullptr, &present);
    std::string names;
    for (const int signal : kSignals) {
        if (has(mine, signal) && has(present, signal)) {
            names += (names.empty() ? "SIG" : ", SIG") + std::string(::sigabbrev_np(signal));
        }
    }
    if (names.empty()) {
        return;
    }
    logger(LOGLEVEL_WARNING, "%s%s%s: taken back", describe_culprit().c_str(), names.c_str(),
           describe_operation().c_str());
    ::pthread_sigmask(SIG_UNBLOCK, &mine, nullptr);
}

}  // namespace Quorval::runtime
