// What report_crashes() needs where a graph has several threads.
#pragma once

namespace Quorval::runtime {

/// Gives the present thread, once and until it ends, a stack for the handlers of signals beside its
/// own one, which may have run over. One that it has already stays.
void have_crash_stack();

/// Has an exit of the process be reported, where report_crashes() was called, before what was
/// loaded until now is destroyed: the other threads still use it. The first call counts.
void report_exit_first();

}  // namespace Quorval::runtime
