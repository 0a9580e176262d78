// A graph made from files, and run.
#pragma once

#include <quorval/config.h>
#include <quorval/export.h>
#include <quorval/runtime/bus.h>
#include <quorval/runtime/diagnostic.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace Quorval {

class Superblock;

/// What a graph is made of.
struct GraphOptions {
    std::vector<std::string> files;        ///< graph files, merged one after the other
    std::vector<std::string> assignments;  ///< `PATH.KEY=VALUE`, applied behind the files
    /// Directories that are searched for plug-ins before QUORVAL_PLUGIN_PATH and the rest.
    std::vector<std::string> plugin_path;
    /// Below it each block gets a directory for its state; empty: the first of $STATE_DIRECTORY,
    /// else none.
    std::string state_directory;
    /// The graph is made to be checked or shown and will not run: nothing is made on disk, and
    /// what blocks print goes to standard error.
    bool is_dry = false;
    /// From the constructor on SIGINT and SIGTERM stop the graph in order; one that has not begun
    /// to run is not started then. From then on these two have their default action. While the
    /// graph runs, SIGHUP makes it read its files again and apply changed and new values of
    /// `config`; any other difference is refused with a message. SIGPIPE is ignored. One graph of
    /// a process can do this at a time; the former actions come back with its end.
    /// A link to a broker has SIGPIPE ignored too, also without this, and nothing brings that back.
    bool takes_signals = false;
    /// Blocks that do not depend on each other run side by side on up to so many threads, and no
    /// more than there are processors, where that is faster; at most 256. Where the system refuses
    /// threads, run() logs a warning and uses those that it gets. What the graph computes
    /// does not depend on it, and neither does the order of what blocks log where `Messages` is
    /// the sink. Another sink in Quorval::loginstance gets each message at once, on the thread
    /// of the block.
    unsigned threads = 1;
    /// run() stops the graph in order so long after its blocks were started; zero: it does not.
    std::chrono::nanoseconds run_for{0};
    /// Called by run(), between two waves, with the latest report of a block about its work, at
    /// most ten times a second; see RuntimeTools::progress(). May be empty.
    std::function<void(const std::string& path, std::uint64_t done, std::uint64_t total)>
        on_progress;
    /// Whether the runs of blocks are timed, for statistics().
    bool times_runs = false;
    /// A file to which run() writes trace events, a slice for each run of a block and a counter for
    /// each wave: a JSON array that viewers of traces open, also where it is cut off at its end. A
    /// file that exists is emptied; one that cannot be written is logged, and the run has failed.
    /// Runs are timed then too. Empty: none.
    std::string trace_file;
    /// Whether run() tells the manager that started the process, as sd_notify(3) does, when its
    /// blocks have started, when it reads its files again and when it stops, and shows that its
    /// loop is alive where the manager waits for that.
    bool tells_manager = false;
    /// run() makes this file and records into it what outputs give; empty: it does not.
    std::string record_file;
    /// What is recorded: PATH.PORT; empty: the outputs of the sources, as far as they have codecs.
    std::vector<std::string> record_outputs;
    /// run() replays this recording, in the place of the blocks whose connected outputs are all
    /// recorded: one wave for each that was recorded, with its time. Empty: it does not.
    std::string replay_file;
    /// A replay does not wait for the time of a wave.
    bool replays_fast = false;
    /// The code of plug-ins stays loaded until the process ends, so that a thread that one left
    /// behind does no harm.
    bool keeps_plugins = false;
    /// The part of the graph that is made: the blocks of this machine. Empty: all blocks. A graph
    /// of several machines that is to run needs it, or `is_local`.
    std::string machine;
    /// All machines of the graph are this process.
    bool is_local = false;
    /// The bus on which the running graph can be looked at and changed, and on which the objects of
    /// its blocks are; see RemoteGraph.
    Bus bus = Bus::None;
};

/// A plain block of a graph.
struct BlockInfo {
    std::string path;  ///< the names from the graph down to it with "/" between
    std::string type;  ///< as the file has it, `PLUGIN:TYPE`
    std::map<std::string, std::string> inports;  ///< data types by name; likewise below
    std::map<std::string, std::string> outports;
    std::map<std::string, std::string> fdports;
    BlockConfiguration config;  ///< what the block was made with
    std::string machine;        ///< that it belongs to; empty where the graph has none
};

/// A connection between two plain blocks.
struct ConnectionInfo {
    std::string from_path;
    std::string output;
    std::string to_path;
    std::string input;
    std::string type;         ///< of the output
    bool is_delayed = false;  ///< the reader runs before its source
};

/// What a block has done while the graph ran.
struct BlockStatistics {
    std::string path;            ///< the names from the graph down to it with "/" between
    std::uint64_t runs = 0;      ///< those that failed too
    std::uint64_t failures = 0;  ///< of its runs, and of its ports
    /// Of all its runs; 0 where runs were not timed, like those below.
    std::chrono::nanoseconds total{0};
    std::chrono::nanoseconds longest{0};
    std::chrono::nanoseconds percentile_99{0};  ///< at most a quarter too long
};

/// What went over a link between machines: the values of one output.
struct LinkStatistics {
    std::string output;               ///< `PATH.PORT`
    bool comes_in = false;            ///< else it is one of this machine
    std::uint64_t values = 0;         ///< handed to the broker, or to the graph
    std::uint64_t bytes = 0;          ///< of them, encoded
    std::uint64_t lost = 0;           ///< as far as this machine knows
    std::uint64_t gaps = 0;           ///< those of them that did not arrive
    std::uint64_t duplicates = 0;     ///< that came in and were dropped
    std::uint64_t longest_queue = 0;  ///< how many waited at once
};

/// How a run ended.
enum class RunResult {
    Done,  ///< the graph came to its end, or was stopped
    /// A block failed and the graph stopped for it, or a stop() failed, or the bus or the name on
    /// it was not to be had; reported.
    Failed,
    NoSource,      ///< nothing would ever run; reported
    WrongObjects,  ///< blocks offer objects that cannot be published; reported
};

/// A graph: made from files, run once. Belongs to one thread, but for stop().
class QUORVAL_EXPORT Graph {
public:
    /// Reads the files, makes the blocks and checks all of it.
    /// @throws GraphError             something is wrong with the files, or with what is to be
    ///     recorded, with all errors found; with none where a signal came while a pipe was read,
    ///     see GraphOptions::takes_signals
    /// @throws RecordingError         what is to be replayed is no recording
    /// @throws std::invalid_argument  an assignment is not of the form PATH.KEY=VALUE:
    ///     "'<text>' is not of the form PATH.KEY=VALUE"; or a machine is not one of the graph, or
    ///     one is needed: "there is no machine '<name>'", "one of the machines <a>, <b> has to be
    ///     named with --machine, or --local be given"; or there are no files: "there is no graph
    ///     file"; or GraphOptions::threads is out of its range: "the number of threads has to be
    ///     from 1 to 256, not <n>"; or greater than 1 in a build without threads: "this build has
    ///     one thread alone: it was made without QUORVAL_WITH_THREADS"
    /// @throws std::logic_error       another graph of the process takes the signals already:
    ///     "another graph takes the signals"
    /// @throws std::runtime_error     another graph that runs keeps its state there: "the state
    ///     directory '<directory>' is in use"; or GraphOptions::threads is greater than 1 and the
    ///     library that has them is not there: "<library> cannot be loaded: <text>"
    /// @throws std::system_error      there are no descriptors left for the event loop
    explicit Graph(GraphOptions options);
    Graph(const Graph&) = delete;
    Graph& operator=(const Graph&) = delete;
    /// Destroys the blocks, then closes the plug-ins.
    ~Graph();

    const std::string& name() const;

    /// What is doubtful about the graph, in the order in which it is shown.
    const std::vector<Diagnostic>& warnings() const;

    /// The plain blocks, in the order in which they run.
    std::vector<BlockInfo> blocks() const;

    /// The connections between plain blocks, in the order in which they are taken over.
    std::vector<ConnectionInfo> connections() const;

    /// The graph as the library holds it. Owned by this object.
    Superblock& superblock();

    /// Starts the blocks, runs them until the graph has come to its end, stops them. What goes
    /// wrong is logged. Once only. A file to record into that is there already makes the run fail,
    /// and so does what cannot be recorded.
    /// @throws std::logic_error  "the graph cannot be run: it has run already", or "...: it was
    ///     made to be looked at"
    RunResult run();

    /// What each block has done in run(), in the order in which they run; empty before its end.
    std::vector<BlockStatistics> statistics() const;

    /// What went out and came in over links in run(), each as the graph file has it first; empty
    /// before its end, and where there are none.
    std::vector<LinkStatistics> link_statistics() const;

    /// Makes run() stop in order, or return at once when it has not begun. From any thread, and
    /// from a signal handler.
    void stop() noexcept;

private:
    struct QUORVAL_HIDDEN Impl;
    std::unique_ptr<Impl> impl_;
};

}  // namespace Quorval
