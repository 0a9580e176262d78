#include "graph/infos.h"

#include <map>
#include <string>
#include <unordered_map>

namespace Quorval::runtime {

namespace {

std::map<std::string, std::string> type_names(
    const std::unordered_map<std::string, Datatype>& ports)
{
    std::map<std::string, std::string> names;
    for (const auto& [port, type] : ports) {
        names[port] = type.get_name();
    }
    return names;
}

}  // namespace

BlockInfo block_info(const LoadedGraph& graph, std::size_t block)
{
    const LoadedBlock& loaded = graph.blocks[block];
    const Block& made = *graph.network.nodes[block].block;
    return {loaded.place.path,
            loaded.place.member->type,
            type_names(made.get_inports_info()),
            type_names(made.get_outports_info()),
            type_names(made.get_fdports_info()),
            loaded.config,
            loaded.place.machine};
}

std::vector<ConnectionInfo> connection_infos(const LoadedGraph& graph)
{
    const Network& network = graph.network;
    std::vector<ConnectionInfo> infos;
    infos.reserve(network.wires.size());
    for (const Wire& wire : network.wires) {
        infos.push_back({network.nodes[wire.from].path, wire.output->get_name(),
                         network.nodes[wire.to].path, wire.input_name(),
                         wire.output->get_datatype().get_name(), wire.is_delayed});
    }
    return infos;
}

}  // namespace Quorval::runtime
