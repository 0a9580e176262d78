// Repeats what a process does that runs graphs, and looks whether anything grows.
//
//     graph_soak [DIVISOR]
//
// runs 100,000 starts and stops of a graph, a million waves and 10,000 reloads, or a DIVISOR-th of
// each.
#include <quorval/runtime/graph.h>
#include <quorval/runtime/messages.h>
#include "soak/holdings.h"
#include "support/support.h"

#include <exception>
#include <iostream>
#include <stdexcept>
#include <string>

namespace {

using Quorval::Graph;
using Quorval::GraphOptions;
using Quorval::RunResult;

/// Graphs of one block that runs so many times.
class Cycles {
public:
    void run(int waves, bool reloads)
    {
        std::string text = "format = 1\n";
        if (reloads) {
            quorval_test::write_file(file("step.toml"), "format = 1\n");
            text += "include = ['step.toml']\nblocks.a.config.file = '" + file("step.toml") + "'\n";
        }
        quorval_test::write_file(file("g.toml"), text +
                                                     "blocks.a.type = 'graph_soak_plugin:Cycle'\n"
                                                     "blocks.a.config.count = " +
                                                     std::to_string(waves) + "\n");
        GraphOptions options;
        options.files = {file("g.toml")};
        options.plugin_path = {QUORVAL_SOAK_PLUGIN_DIR};
        options.takes_signals = true;
        options.times_runs = true;
        Graph graph(options);
        if (graph.run() != RunResult::Done) {
            throw std::runtime_error("the run has failed");
        }
    }

private:
    std::string file(const std::string& name) const { return directory_.path() / name; }

    quorval_test::TemporaryDirectory directory_;
};

bool is_flat(long divisor)
{
    constexpr int kWaves = 1000;
    constexpr int kReloads = 10;
    const Quorval::Messages messages(LOGLEVEL_ERROR);
    Cycles cycles;
    return run_flat("starts", 100'000 / divisor, [&](long) { cycles.run(1, false); }) &&
           run_flat("thousands of waves", 1'000 / divisor,
                    [&](long) { cycles.run(kWaves, false); }) &&
           run_flat("tens of reloads", 1'000 / divisor, [&](long) { cycles.run(kReloads, true); });
}

}  // namespace

int main(int argc, char** argv)
{
    try {
        const long divisor = read_divisor(argc, argv);
        return divisor == 0 ? 2 : tell_result(is_flat(divisor));
    } catch (const std::exception& error) {
        std::cerr << "graph_soak: " << error.what() << '\n';
        return 1;
    }
}
