// Graph files become graphs, against the parser alone.

#include <quorval/runtime/graph.h>
#include "graph/loaded_graph.h"
#include "harness.h"
#include "running.h"

#include <toml++/toml.h>

#include <algorithm>
#include <cstddef>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <utility>

namespace quorval_bench {

namespace {

using Quorval::GraphOptions;
using Quorval::runtime::load_graph;
using Quorval::runtime::LoadedGraph;

constexpr std::size_t kSmall = 100;
constexpr std::size_t kMiddle = 10'000;
constexpr std::size_t kLarge = 100'000;

/// A file of blocks with a setting each, every one fed by the two before it.
std::string write_graph(std::size_t count)
{
    const std::string path = scratch_directory() + "graph" + std::to_string(count) + ".toml";
    std::ofstream file(path);
    file << "format = 1\nconnections = [\n";
    for (std::size_t at = 1; at < count; ++at) {
        file << "\"block" << at - 1 << ".out -> block" << at << ".a\",\n";
        file << "\"block" << (at > 1 ? at - 2 : 0) << ".out -> block" << at << ".b\",\n";
    }
    file << "]\n";
    for (std::size_t at = 0; at < count; ++at) {
        file << "blocks.block" << at << " = { type = \"bench-chain:Sum\", config.factor = 0.5 }\n";
    }
    return path;
}

void add_load(std::size_t count)
{
    const std::string name = "load_graph/" + std::to_string(count);
    add_time(name + "/quorval", count, [count] {
        const GraphOptions options = chain_options(write_graph(count));
        auto graph = std::make_shared<std::unique_ptr<LoadedGraph>>();
        return Side{[=] { *graph = std::make_unique<LoadedGraph>(load_graph(options)); },
                    [=] {
                        return (*graph)->network.nodes.size() == count &&
                               (*graph)->network.wires.size() == 2 * (count - 1);
                    },
                    [=] { graph->reset(); }};
    });
    add_time(name + "/tomlplusplus", count, [count] {
        const std::string file = write_graph(count);
        auto table = std::make_shared<toml::table>();
        return Side{[=] { *table = toml::parse_file(file); },
                    [=] {
                        return (*table)["blocks"].as_table()->size() == count &&
                               (*table)["connections"].as_array()->size() == 2 * (count - 1);
                    },
                    [=] { table->clear(); }};
    });
}

void add_bytes_of_graph()
{
    const auto per_block = [](double bytes) { return bytes / kMiddle; };
    add_bytes("heap_loaded_graph/quorval", [per_block] {
        const GraphOptions options = chain_options(write_graph(kMiddle));
        return per_block(heap_bytes_of([&options] { return load_graph(options); }));
    });
    add_known_bytes(
        "heap_loaded_graph/file",
        per_block(static_cast<double>(std::filesystem::file_size(write_graph(kMiddle)))));
}

const bool is_registered = [] {
    for (const std::size_t count : {kSmall, kMiddle, kLarge}) {
        add_load(count);
    }
    add_bytes_of_graph();
    return true;
}();

}  // namespace

}  // namespace quorval_bench
