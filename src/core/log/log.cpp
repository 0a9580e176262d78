#include "quorval/log.h"

#include <pthread.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <memory>

namespace {

struct Free {
    void operator()(char* text) const { std::free(text); }  // NOLINT: what vasprintf() gives
};

/// What logger() does, but lets the exceptions of the sink pass.
void pass_on(loglevel level, const char* format, ...) __attribute__((format(printf, 2, 3)));

// NOLINTNEXTLINE(cert-dcl50-cpp): as logger() is
void pass_on(loglevel level, const char* format, ...)
{
    va_list args;
    va_start(args, format);
    Quorval::loginstance->vlog(level, format, args);
    va_end(args);
}

/// Holds a cancellation of the thread back. It would unwind a destructor that lets nothing out,
/// and so end the process.
class CancellationHeldBack {
public:
    CancellationHeldBack() { ::pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &before_); }
    CancellationHeldBack(const CancellationHeldBack&) = delete;
    CancellationHeldBack& operator=(const CancellationHeldBack&) = delete;
    ~CancellationHeldBack() { ::pthread_setcancelstate(before_, nullptr); }

private:
    int before_ = PTHREAD_CANCEL_ENABLE;
};

}  // namespace

void logger(loglevel level, const char* format, ...)
{
    va_list args;
    va_start(args, format);
    try {
        Quorval::loginstance->vlog(level, format, args);
    } catch (...) {
        // No exception of C++: the thread ends, and the C library lets nobody stop that.
        if (std::current_exception() == nullptr) {
            throw;
        }
        // Callers in C cannot catch, and a message is not worth failing for.
    }
    va_end(args);
}

namespace Quorval {

// NOLINTNEXTLINE(cert-err58-cpp): without memory at load there is nobody to tell
std::unique_ptr<LogInstance> loginstance = std::make_unique<LogInstance>(LOGLEVEL_INFO);

LogInstance::LogInstance(loglevel threshold) : threshold_(threshold) {}

LogInstance::~LogInstance() = default;

void LogInstance::emit(loglevel /*level*/, const char* /*text*/, int /*length*/) {}

void LogInstance::vlog(loglevel level, const char* format, va_list args)
{
    char* formatted = nullptr;
    const int length = vasprintf(&formatted, format, args);
    if (length < 0) {
        return;
    }
    const std::unique_ptr<char, Free> text(formatted);
    output(level, text.get(), length);
}

void LogInstance::output(loglevel level, const char* text, int length)
{
    if (level <= threshold_) {
        emit(level, text, length);
    }
}

ilog::ilog(loglevel level) : level_(level) {}

ilog::~ilog()
{
    const CancellationHeldBack held_back;
    pass_on(level_, "%s", str().c_str());
}

ilog& ilog::operator<<(std::ostream& (*manipulator)(std::ostream&))
{
    manipulator(*this);
    return *this;
}

}  // namespace Quorval
