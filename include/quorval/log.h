// Diagnostics: levels, the process-wide sink and the stream-style message builder.
#pragma once

#include <quorval/export.h>

#include <cstdarg>
#include <memory>
#include <ostream>
#include <sstream>
#include <type_traits>
#include <utility>

/// How severe a message is: the lower, the more severe. The library itself writes warnings and
/// informational notes.
enum loglevel : int {
    LOGLEVEL_FATAL = 0,
    LOGLEVEL_CRITICAL = 1,
    LOGLEVEL_ERROR = 2,
    LOGLEVEL_WARNING = 3,
    LOGLEVEL_INFO = 4,
    LOGLEVEL_DEBUG = 5
};

/// Formats a message as printf does and hands it to the sink in Quorval::loginstance, which must
/// not be null. Never throws: a message that cannot be formatted is lost, and so is an exception
/// that the sink throws. A thread that is cancelled while it logs ends as any cancelled thread.
extern "C" QUORVAL_EXPORT void logger(loglevel level, const char* format, ...)
    __attribute__((format(printf, 2, 3)));

namespace Quorval {

/// A sink for messages. The class itself drops every message; an application derives from it,
/// overrides emit() and installs an object in `loginstance`. Nothing is locked: where several
/// threads log, emit() has to be safe for that.
class QUORVAL_EXPORT LogInstance {
public:
    /// @param threshold  the most verbose level that still reaches emit()
    explicit LogInstance(loglevel threshold = LOGLEVEL_INFO);
    LogInstance(const LogInstance&) = delete;
    LogInstance& operator=(const LogInstance&) = delete;
    virtual ~LogInstance();

    /// Receives each message that passes the threshold. The base version does nothing.
    /// @param text    the formatted message, zero-terminated; valid during the call only
    /// @param length  characters in `text`, without the terminating zero
    virtual void emit(loglevel level, const char* text, int length);

    /// Formats a message as vprintf does and passes it to output(). A message that cannot be
    /// formatted is lost. What emit() throws passes through.
    void vlog(loglevel level, const char* format, va_list args)
        __attribute__((format(printf, 3, 0)));

    /// Passes `text` to emit(), unless `level` is more verbose than the threshold.
    void output(loglevel level, const char* text, int length);

private:
    loglevel threshold_;
};

/// The sink of the whole process. At load it is a plain LogInstance, which drops everything;
/// replace the object to see messages. It is destroyed when the process exits.
extern QUORVAL_EXPORT std::unique_ptr<LogInstance> loginstance;

/// Builds one message by stream insertions and logs it when it is destroyed:
/// `ilog(LOGLEVEL_INFO) << "rate " << rate;`. The text is never taken for a format.
/// An exception while the finished text is copied or logged ends the process, as does a
/// pthread_exit(3) in the sink. A cancellation of the thread waits until the message is logged.
class QUORVAL_EXPORT ilog : private std::ostringstream {
public:
    explicit ilog(loglevel level);
    ilog(const ilog&) = delete;
    ilog& operator=(const ilog&) = delete;
    ~ilog() override;

    /// Takes numbers, characters, pointers and string literals. By value, so that bit fields and
    /// constants without a definition can be written as they can to any stream.
    template <class T, std::enable_if_t<std::is_scalar<T>::value, int> = 0>
    ilog& operator<<(T value)
    {
        static_cast<std::ostream&>(*this) << value;
        return *this;
    }

    /// Takes everything else that can be written to a std::ostream, std::setw() and the like too.
    template <class T, std::enable_if_t<!std::is_scalar<std::decay_t<T>>::value, int> = 0>
    ilog& operator<<(T&& value)
    {
        static_cast<std::ostream&>(*this) << std::forward<T>(value);
        return *this;
    }

    /// Takes manipulators that are templates, such as std::endl.
    ilog& operator<<(std::ostream& (*manipulator)(std::ostream&));

private:
    loglevel level_;
};

}  // namespace Quorval
