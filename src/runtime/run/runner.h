// Runs a loaded graph in an event loop.
#pragma once

#include <quorval/runtime/graph.h>
#include "graph/loaded_graph.h"
#include "link/link.h"
#include "loop/loop.h"
#include "run/life.h"
#include "run/outside.h"
#include "run/overrides.h"
#include "run/reload.h"
#include "run/service_notice.h"
#include "run/signals.h"

#include <atomic>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace Quorval::runtime {

/// Gives the waves of a run in place of the world.
struct IPlayback {
    /// The time that blocks see.
    virtual std::chrono::nanoseconds now() = 0;
    /// When the next wave is to run, by the clock of the loop; none: there is none.
    virtual std::optional<std::chrono::nanoseconds> next_time() = 0;
    /// Makes due what has values in this wave. The time is then that of the wave.
    virtual void begin_wave(Life& life) = 0;

    IPlayback() = default;
    IPlayback(const IPlayback&) = delete;
    IPlayback& operator=(const IPlayback&) = delete;
    virtual ~IPlayback() = default;
};

/// One run of a graph, from start to stop.
class Runner final : private IWorld {
public:
    /// All must outlive the object.
    /// @param signals   null: none are taken
    /// @param outside   null: nobody reaches the run from outside
    /// @param has_stop  set from outside to stop the run; whoever does wakes the loop then
    Runner(const GraphOptions& options, LoadedGraph& graph, Loop& loop, Signals* signals,
           IOutside* outside, const std::atomic<bool>& has_stop);
    Runner(const Runner&) = delete;
    Runner& operator=(const Runner&) = delete;

    /// Once.
    RunResult run();

    /// The steps of run(), for whoever measures them: starts the blocks and tells whether anything
    /// would ever run; then waits for something to do, and does it.
    bool start();
    void turn();

    Life& life() { return life_; }

    /// What went over links; empty where there are none.
    std::vector<LinkStatistics> link_statistics() const;

    /// From the start on waves come from there alone, and the files are not read again.
    /// @param playback  must outlive the object
    void play(IPlayback& playback);

private:
    struct Progress {
        const std::string* path = nullptr;  // null: told already
        std::uint64_t done = 0;
        std::uint64_t total = 0;
    };

    RunResult live();
    bool open_link();
    void close_link();
    template <class Action>
    void contain(Action action);
    void check_link();
    void play_wave();
    std::optional<Life::Time> next_time() const;
    void show_progress(bool is_last);

    std::chrono::nanoseconds now() override
    {
        return playback_ == nullptr ? Loop::now() : playback_->now();
    }
    bool must_stop() override;
    void progress(const std::string& path, std::uint64_t done, std::uint64_t total) override;
    sd_event* loop() override { return loop_.event(); }
    sd_bus* bus() override { return outside_ == nullptr ? nullptr : outside_->bus(); }

    const GraphOptions& options_;
    LoadedGraph& graph_;
    Loop& loop_;
    Signals* signals_;
    IOutside* outside_;
    const std::atomic<bool>& has_stop_;
    Life life_;
    Overrides overrides_;
    Reload reload_;
    Run run_;
    ServiceNotice notice_;
    IPlayback* playback_ = nullptr;
    std::unique_ptr<Link> link_;    // null where the graph is on one machine
    bool has_link_failed_ = false;  // and it was told
    std::optional<Life::Time> end_;
    Progress progress_;
    Life::Time next_progress_{};
};

}  // namespace Quorval::runtime
