#include <quorval/runtime/graph.h>
#include "fuzz/input.h"
#include "graph/loaded_graph.h"
#include "graph/saved.h"
#include "runtime/fuzz/targets.h"
#include "runtime/support/graph_files.h"
#include "support/allocations.h"

#include <stdexcept>
#include <string>
#include <vector>

namespace quorval_fuzz {

using Quorval::GraphError;
using Quorval::GraphOptions;
using Quorval::runtime::Assignment;

namespace {

/// A graph whose blocks take settings that are declared, settings that are not, and any at all.
class Graph {
public:
    Graph()
    {
        files_.write("g.toml", R"(format = 1
blocks.a = { type = "parts:Declared", config.needed = 2 }
blocks.b.type = "parts:Gain"
blocks.c.type = "inner"
superblocks.inner.blocks.ports.type = "parts:Ports"
)");
        files_.write("state/overrides", "");
    }

    std::string state_directory() const { return files_.path("state"); }

    GraphOptions options() const
    {
        GraphOptions options = files_.options();
        options.state_directory = state_directory();
        options.is_dry = true;
        options.keeps_plugins = true;  // the fuzzer counts in them
        return options;
    }

private:
    quorval_test::GraphFiles files_;
};

bool is_same(const std::vector<Assignment>& a, const std::vector<Assignment>& b)
{
    bool is_same = a.size() == b.size();
    for (std::size_t i = 0; is_same && i < a.size(); ++i) {
        is_same = a[i].path == b[i].path && a[i].setting.key == b[i].setting.key;
    }
    return is_same;
}

std::vector<Assignment> save_and_read(const std::string& directory,
                                      const std::vector<Assignment>& values)
{
    Quorval::runtime::write_saved(directory, values);
    return Quorval::runtime::read_saved(directory);
}

}  // namespace

void fuzz_saved(const std::uint8_t* data, std::size_t size)
{
    static const Graph graph;
    const std::string directory = graph.state_directory();
    quorval_test::write_file(Quorval::runtime::saved_file(directory),
                             std::string(reinterpret_cast<const char*>(data), size));

    std::vector<Assignment> saved;
    const std::size_t peak = quorval_test::peak_of(
        [&] { failure_of([&] { saved = Quorval::runtime::read_saved(directory); }); });
    require(peak <= 128 * 1024 + 64 * size, "the memory that reading has held");

    try {
        Quorval::runtime::load_graph(graph.options());
    } catch (const GraphError& error) {
        require(!error.diagnostics().empty(), "a reason");
    }

    if (saved.empty()) {
        return;
    }
    // Blocks and keys that are there twice become one.
    const std::vector<Assignment> once = save_and_read(directory, saved);
    require(once.size() <= saved.size(), "nothing new");
    require(is_same(save_and_read(directory, once), once), "what is saved again");
}

}  // namespace quorval_fuzz
