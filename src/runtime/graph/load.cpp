#include "graph/connect.h"
#include "graph/create.h"
#include "graph/diagnostics.h"
#include "graph/loaded_graph.h"
#include "graph/machines.h"
#include "graph/saved.h"
#include "graph/standard_output.h"
#include "graph/state.h"
#include "messages/context.h"
#include "plugins/search.h"

#include <cstddef>
#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>

namespace Quorval::runtime {

namespace {

Reading read_files(const GraphOptions& options, IPatience* patience)
{
    try {
        return read_graph(options.files, options.assignments, patience);
    } catch (const Interrupted&) {
        throw GraphError({});
    }
}

LoadedGraph read(const GraphOptions& options, IPatience* patience)
{
    LoadedGraph graph;
    graph.reading = std::make_unique<Reading>(read_files(options, patience));
    graph.name = graph.reading->description.name;
    graph.init_tools = std::make_unique<InitTools>();
    graph.init_tools->graph = graph.name;
    graph.init_tools->is_dry = options.is_dry;
    graph.plugins = std::make_unique<PluginSet>(plugin_directories(options.plugin_path),
                                                *graph.init_tools, options.keeps_plugins);
    graph.destruction = std::make_unique<Destruction>();
    graph.begin_of_destruction.reset(graph.destruction.get());
    graph.superblock = std::make_unique<Superblock>(graph.name);
    graph.state_directory = find_state_directory(options.state_directory);
    return graph;
}

/// Adds what was saved to the reading.
void take_saved(LoadedGraph& graph)
{
    graph.saved_file = saved_file(graph.state_directory);
    try {
        graph.saved = read_saved(graph.state_directory);
    } catch (const std::runtime_error& error) {
        const auto source = static_cast<std::uint32_t>(graph.reading->sources.size());
        graph.reading->sources.push_back({graph.saved_file, "", true});
        graph.reading->problems.add_error({source, 0, 0}, error.what());
    }
    insert_saved(*graph.reading, graph.saved_file, graph.saved);
}

void build(LoadedGraph& graph, const GraphOptions& options)
{
    Problems& problems = graph.reading->problems;
    Expansion expansion = expand(graph.reading->description, problems);
    check_link(graph.reading->description.link, problems);
    check_broker(options, graph.reading->description, problems);
    if (expansion.composites.empty()) {
        return;
    }
    mark_elsewhere(expansion, options.machine);
    Creation made = create_blocks(expansion, {graph.state_directory, options.is_dry},
                                  *graph.plugins, *graph.superblock, *graph.destruction, problems);
    std::vector<std::uint32_t> order;
    graph.network = connect_blocks(expansion, made,
                                   {graph.reading->description, *graph.plugins, options.is_local},
                                   problems, order);
    graph.blocks.reserve(order.size());
    for (const std::uint32_t i : order) {
        graph.blocks.push_back({std::move(made.records[i]), std::move(expansion.blocks[i])});
    }
}

/// While it lives, what the thread logs is about the graph of this name.
class LoadingScope {
public:
    /// @param name  must outlive the scope
    explicit LoadingScope(const std::string& name) { loading_graph() = name.c_str(); }
    LoadingScope(const LoadingScope&) = delete;
    LoadingScope& operator=(const LoadingScope&) = delete;
    ~LoadingScope() { loading_graph() = nullptr; }
};

}  // namespace

LoadedGraph load_graph(const GraphOptions& options, IPatience* patience)
{
    // Before the graph, so that blocks may also print while they are destroyed.
    const std::optional<StandardOutputScope> scope =
        options.is_dry ? std::optional<StandardOutputScope>(std::in_place) : std::nullopt;
    LoadedGraph graph = read(options, patience);
    const LoadingScope loading(graph.init_tools->graph);  // which stays where it is
    if (!options.is_dry && !graph.state_directory.empty()) {
        take_saved(graph);
    }
    if (graph.reading->is_whole) {
        check_machine(options, graph.reading->description);
        build(graph, options);
    }
    std::vector<Diagnostic> diagnostics =
        to_diagnostics(graph.reading->problems, graph.reading->sources);
    if (graph.reading->problems.has_errors()) {
        throw GraphError(std::move(diagnostics));
    }
    // cppcheck-suppress accessMoved  // what was moved from went with the exception
    graph.warnings = std::move(diagnostics);
    return graph;
}

}  // namespace Quorval::runtime
