// Signals that plug-ins block.
#pragma once

namespace Quorval::runtime {

/// Has give_back_signals() watch over SIGINT, SIGTERM and SIGHUP where the calling thread, which
/// runs a graph, does not block them.
void watch_signals();

/// Watches over none.
void forget_signals();

/// Unblocks those signals, and logs who blocked them: the block or plug-in of the present context.
void give_back_signals();

}  // namespace Quorval::runtime
