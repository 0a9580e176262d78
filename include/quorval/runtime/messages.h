// Where the messages of a process go that runs graphs.
#pragma once

#include <quorval/export.h>
#include <quorval/log.h>

#include <memory>
#include <string>

namespace Quorval {

/// While it lives, messages go to standard error, as `quorval: <level>: <path>: <text>` with the
/// path of the block in whose operation they were written, and each line of a message in a line
/// of its own. Where standard error is the journal, they become entries with the fields
/// PRIORITY, QUORVAL_GRAPH and QUORVAL_BLOCK. Threads may log at any time; it must outlive
/// everything that does. Where a graph has several threads, messages of its blocks come in the
/// order of the blocks, as on one.
class QUORVAL_EXPORT Messages {
public:
    /// Takes the place of the sink in Quorval::loginstance.
    /// @param threshold  the most verbose level that is shown
    explicit Messages(loglevel threshold = LOGLEVEL_WARNING);
    Messages(const Messages&) = delete;
    Messages& operator=(const Messages&) = delete;
    /// Puts the former sink back.
    ~Messages();

    /// The name of the graph that the entries in the journal carry; empty, as it is at first, for
    /// none.
    void set_graph(const std::string& name);

private:
    struct QUORVAL_HIDDEN Impl;
    std::unique_ptr<Impl> impl_;
};

}  // namespace Quorval
