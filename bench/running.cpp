#include "running.h"

#include <stdexcept>

namespace quorval_bench {

Quorval::GraphOptions chain_options(const std::string& file)
{
    Quorval::GraphOptions options;
    options.files = {file};
    options.plugin_path = {QUORVAL_BENCH_PLUGIN_DIR};
    // Loaded once, not in each repetition.
    options.keeps_plugins = true;
    return options;
}

Running::Running(const std::string& file, unsigned threads) : options_(chain_options(file))
{
    if (threads > 1) {
        runner_.life().use_threads({threads});
    }
    if (!runner_.start()) {
        throw std::runtime_error("the graph has no source");
    }
}

}  // namespace quorval_bench
