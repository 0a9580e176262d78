#include <quorval/log.h>
#include <quorval/runtime/graph.h>
#include "control/control.h"
#include "graph/infos.h"
#include "graph/loaded_graph.h"
#include "graph/standard_output.h"
#include "graph/state.h"
#include "loop/loop.h"
#include "messages/left_open.h"
#include "messages/printable.h"
#include "observe/observer.h"
#include "observe/statistics.h"
#include "record/playback.h"
#include "record/recorder.h"
#include "run/runner.h"
#include "run/signals.h"
#include "schedule/workers.h"

#include <algorithm>
#include <atomic>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <system_error>
#include <utility>

namespace Quorval {

namespace {

using runtime::Control;
using runtime::LeftOpen;
using runtime::LoadedGraph;
using runtime::Loop;
using runtime::Network;
using runtime::Observer;
using runtime::Playback;
using runtime::Recorder;
using runtime::Run;
using runtime::Runner;
using runtime::Signals;
using runtime::StateLock;
using runtime::Trace;
using runtime::Wave;
using runtime::Workers;

[[noreturn]] void throw_cannot_run(const char* why)
{
    throw std::logic_error(std::string("the graph cannot be run: ") + why);
}

/// With as many threads as are of use.
GraphOptions check_threads(GraphOptions options)
{
    constexpr unsigned kMost = 256;
    if (options.threads == 0 || options.threads > kMost) {
        throw std::invalid_argument("the number of threads has to be from 1 to 256, not " +
                                    std::to_string(options.threads));
    }
    if (options.threads == 1) {
        return options;
    }
    if (!Workers::are_there()) {
        throw std::invalid_argument(
            "this build has one thread alone: it was made without QUORVAL_WITH_THREADS");
    }
    options.threads = std::min(options.threads, Workers::processors());
    return options;
}

std::unique_ptr<Loop> make_loop(const GraphOptions& options, LeftOpen& left_open)
{
    if (options.is_dry) {
        return nullptr;
    }
    auto loop = std::make_unique<Loop>();
    left_open.guard(loop->waker()->fd());
    return loop;
}

std::unique_ptr<Signals> take_signals(const GraphOptions& options, const Loop* loop)
{
    return options.takes_signals && loop != nullptr ? std::make_unique<Signals>(loop->waker())
                                                    : nullptr;
}

}  // namespace

struct Graph::Impl {
    GraphOptions options;
    LeftOpen left_open;          // looks when all the others have closed theirs
    std::unique_ptr<Loop> loop;  // null for a graph that will not run
    std::unique_ptr<Signals> signals;
    StateLock state;
    LoadedGraph graph;  // behind all those: blocks may use them until they are destroyed
    std::unique_ptr<Recorder> recorder;  // null: nothing is recorded
    std::unique_ptr<Playback> playback;  // null: nothing is replayed
    std::atomic<bool> has_stop{false};
    bool has_run = false;
    std::vector<BlockStatistics> statistics;
    std::vector<LinkStatistics> link_statistics;

    explicit Impl(GraphOptions given)
        : options(check_threads(std::move(given))),
          // A process that gives its signals away does nothing else.
          left_open(options.takes_signals && !options.is_dry),
          loop(make_loop(options, left_open)),
          signals(take_signals(options, loop.get())),
          state(options.is_dry ? "" : runtime::find_state_directory(options.state_directory)),
          graph(runtime::load_graph(options, signals.get()))
    {
        if (!options.record_file.empty()) {
            recorder = std::make_unique<Recorder>(graph, options.record_outputs);
        }
        if (!options.replay_file.empty()) {
            playback = std::make_unique<Playback>(options.replay_file, graph, options.replays_fast);
        }
    }

    /// @throws std::system_error  the trace or the recording cannot be written
    RunResult run()
    {
        const Network& network = graph.network;
        std::optional<Trace> trace;
        if (!options.trace_file.empty()) {
            trace.emplace(options.trace_file, graph.name, network);
        }
        std::optional<Observer> observer;
        const auto begin_timing = [&](Wave& wave) {
            if (!observer) {
                observer.emplace(network.nodes.size(), Loop::now, trace ? &*trace : nullptr);
                wave.set_probe(&*observer);
            }
        };
        const auto gather = [&](const Wave& wave) {
            return gather_statistics(network, wave, observer ? &observer->times() : nullptr);
        };
        std::optional<Control> control;
        if (options.bus != Bus::None) {
            control.emplace(options.bus, [&](Run& present) {
                begin_timing(present.life.wave());  // whoever asks wants times from then on
                return gather(present.life.wave());
            });
        }
        Runner runner(options, graph, *loop, signals.get(), control ? &*control : nullptr,
                      has_stop);
        if (options.times_runs || trace) {
            begin_timing(runner.life().wave());
        }
        if (recorder != nullptr) {
            recorder->open(options.record_file);
            runner.life().watch_outputs(*recorder);
        }
        if (playback != nullptr) {
            runner.play(*playback);
        }
        RunResult result = runner.run();
        if (recorder != nullptr && !recorder->finish() && result == RunResult::Done) {
            result = RunResult::Failed;
        }
        statistics = gather(runner.life().wave());
        link_statistics = runner.link_statistics();
        if (trace) {
            trace->finish();
        }
        return result;
    }
};

Graph::Graph(GraphOptions options) : impl_(std::make_unique<Impl>(std::move(options))) {}

Graph::~Graph()
{
    // What was only to be looked at prints nothing there while it is destroyed, either.
    std::optional<runtime::StandardOutputScope> scope;
    if (impl_->options.is_dry) {
        scope.emplace();
    }
    impl_.reset();
}

const std::string& Graph::name() const
{
    return impl_->graph.name;
}

const std::vector<Diagnostic>& Graph::warnings() const
{
    return impl_->graph.warnings;
}

std::vector<BlockInfo> Graph::blocks() const
{
    std::vector<BlockInfo> infos;
    infos.reserve(impl_->graph.blocks.size());
    for (std::size_t block = 0; block < impl_->graph.blocks.size(); ++block) {
        infos.push_back(runtime::block_info(impl_->graph, block));
    }
    return infos;
}

std::vector<ConnectionInfo> Graph::connections() const
{
    return runtime::connection_infos(impl_->graph);
}

Superblock& Graph::superblock()
{
    return *impl_->graph.superblock;
}

RunResult Graph::run()
{
    if (impl_->loop == nullptr) {
        throw_cannot_run("it was made to be looked at");
    }
    if (std::exchange(impl_->has_run, true)) {
        throw_cannot_run("it has run already");
    }
    try {
        return impl_->run();
    } catch (const std::system_error& error) {
        logger(LOGLEVEL_ERROR, "%s", runtime::printable(error.what()).c_str());
        return RunResult::Failed;
    }
}

std::vector<BlockStatistics> Graph::statistics() const
{
    return impl_->statistics;
}

std::vector<LinkStatistics> Graph::link_statistics() const
{
    return impl_->link_statistics;
}

void Graph::stop() noexcept
{
    impl_->has_stop = true;
    if (impl_->loop != nullptr) {
        impl_->loop->waker()->wake();
    }
}

}  // namespace Quorval
