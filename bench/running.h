// A graph that was started, in whose waves a benchmark steps.
#pragma once

#include "graph/loaded_graph.h"
#include "loop/loop.h"
#include "run/runner.h"

#include <atomic>
#include <string>

namespace quorval_bench {

/// What a file of blocks of the plug-in bench-chain is loaded with.
Quorval::GraphOptions chain_options(const std::string& file);

class Running {
public:
    /// @param file  of a graph that has a source
    explicit Running(const std::string& file, unsigned threads = 1);
    Running(const Running&) = delete;
    Running& operator=(const Running&) = delete;

    const Quorval::runtime::Network& network() const { return graph_.network; }

    /// Waits for something to do, and does it: one wave.
    void turn() { runner_.turn(); }

    /// @param probe  has to live as long as there are turns
    void set_probe(Quorval::runtime::IRunProbe& probe) { runner_.life().wave().set_probe(&probe); }

private:
    Quorval::GraphOptions options_;
    Quorval::runtime::LoadedGraph graph_ = Quorval::runtime::load_graph(options_);
    Quorval::runtime::Loop loop_;
    std::atomic<bool> has_stop_{false};
    Quorval::runtime::Runner runner_{options_, graph_, loop_, nullptr, nullptr, has_stop_};
};

}  // namespace quorval_bench
