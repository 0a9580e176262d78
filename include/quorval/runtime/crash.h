// What is said when the code of a plug-in ends the process.
#pragma once

#include <quorval/export.h>

namespace Quorval {

/// From now on the last line on standard error names what crashed:
/// `quorval: fatal: block '<path>' crashed in <operation>: signal <n> (<name>)`, or
/// `quorval: fatal: plug-in '<plugin>' crashed while it was loaded: signal <n> (<name>)`; outside
/// of both `quorval: fatal: signal <n> (<name>)`. The process then dies of that signal.
///
/// A plug-in that calls exit() or quick_exit() is named likewise, `block '<path>' called exit in
/// <operation>` and `plug-in '<plugin>' called exit while it was loaded`, `plug-in '<plugin>'
/// called exit` outside of both, in a thread of its own for example. The process then ends with the
/// status 1 when the graph was started, 3 before. A process that is forked later ends as it wants
/// to.
///
/// For programs alone: takes over the signals of crashes, and the alternative signal stack of the
/// calling thread.
QUORVAL_EXPORT void report_crashes();

/// For the _exit() and _Exit() of a program that has its own ones: names the plug-in code that the
/// present thread is in, as where that calls exit(). Does nothing outside of such code, before
/// report_crashes(), and in a child process.
/// @param status  becomes that with which the process is to end
/// @return whether it has named somebody
QUORVAL_EXPORT bool report_sudden_exit(int& status) noexcept;

}  // namespace Quorval
