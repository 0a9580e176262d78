#include <quorval/log.h>
#include <quorval/runtime/graph.h>
#include "graph/loaded_graph.h"
#include "loop/loop.h"
#include "observe/observer.h"
#include "observe/statistics.h"
#include "record/playback.h"
#include "record/recorder.h"
#include "run/runner.h"
#include "run/signals.h"

#include <atomic>
#include <memory>
#include <optional>
#include <stdexcept>
#include <system_error>
#include <unordered_map>
#include <utility>

namespace Quorval {

namespace {

using runtime::LoadedBlock;
using runtime::LoadedGraph;
using runtime::Loop;
using runtime::Observer;
using runtime::Playback;
using runtime::Recorder;
using runtime::Runner;
using runtime::Signals;
using runtime::Trace;
using runtime::Wire;

[[noreturn]] void throw_cannot_run(const char* why)
{
    throw std::logic_error(std::string("the graph cannot be run: ") + why);
}

std::map<std::string, std::string> type_names(
    const std::unordered_map<std::string, Datatype>& ports)
{
    std::map<std::string, std::string> names;
    for (const auto& [port, type] : ports) {
        names[port] = type.get_name();
    }
    return names;
}

std::unique_ptr<Signals> take_signals(const GraphOptions& options, const Loop* loop)
{
    return options.takes_signals && loop != nullptr ? std::make_unique<Signals>(loop->waker())
                                                    : nullptr;
}

}  // namespace

struct Graph::Impl {
    GraphOptions options;
    std::unique_ptr<Loop> loop;  // null for a graph that will not run
    std::unique_ptr<Signals> signals;
    LoadedGraph graph;  // behind those two: blocks may use them until they are destroyed
    std::unique_ptr<Recorder> recorder;  // null: nothing is recorded
    std::unique_ptr<Playback> playback;  // null: nothing is replayed
    std::atomic<bool> has_stop{false};
    bool has_run = false;
    std::vector<BlockStatistics> statistics;

    explicit Impl(GraphOptions given)
        : options(std::move(given)),
          loop(options.is_dry ? nullptr : std::make_unique<Loop>()),
          signals(take_signals(options, loop.get())),
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
        const runtime::Network& network = graph.network;
        std::optional<Trace> trace;
        if (!options.trace_file.empty()) {
            trace.emplace(options.trace_file, graph.name, network);
        }
        std::optional<Observer> observer;
        Runner runner(options, graph, *loop, signals.get(), has_stop);
        if (options.times_runs || trace) {
            observer.emplace(network.nodes.size(), Loop::now, trace ? &*trace : nullptr);
            runner.life().wave().set_probe(&*observer);
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
        statistics = gather_statistics(network, runner.life().wave(),
                                       observer ? &observer->times() : nullptr);
        if (trace) {
            trace->finish();
        }
        return result;
    }
};

Graph::Graph(GraphOptions options) : impl_(std::make_unique<Impl>(std::move(options))) {}

Graph::~Graph() = default;

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
    for (std::size_t at = 0; at < impl_->graph.blocks.size(); ++at) {
        const LoadedBlock& loaded = impl_->graph.blocks[at];
        const Block& block = *impl_->graph.network.nodes[at].block;
        infos.push_back(
            {loaded.place.path, loaded.place.member->type, type_names(block.get_inports_info()),
             type_names(block.get_outports_info()), type_names(block.get_fdports_info()),
             loaded.config, loaded.place.machine});
    }
    return infos;
}

std::vector<ConnectionInfo> Graph::connections() const
{
    const runtime::Network& network = impl_->graph.network;
    std::vector<ConnectionInfo> infos;
    infos.reserve(network.wires.size());
    for (const Wire& wire : network.wires) {
        infos.push_back({network.nodes[wire.from].path, wire.output->get_name(),
                         network.nodes[wire.to].path, wire.input_name(),
                         wire.output->get_datatype().get_name(), wire.is_delayed});
    }
    return infos;
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
        logger(LOGLEVEL_ERROR, "%s", error.what());
        return RunResult::Failed;
    }
}

std::vector<BlockStatistics> Graph::statistics() const
{
    return impl_->statistics;
}

void Graph::stop() noexcept
{
    impl_->has_stop = true;
    if (impl_->loop != nullptr) {
        impl_->loop->waker()->wake();
    }
}

}  // namespace Quorval
