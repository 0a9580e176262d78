// The life of a graph: start, waves, stop.
#pragma once

#include <quorval/runtime/tools.h>
#include "loop/descriptor_ports.h"
#include "loop/poller.h"
#include "loop/waker.h"
#include "run/failures.h"
#include "run/requests.h"
#include "schedule/crew.h"
#include "schedule/network.h"
#include "schedule/plan.h"
#include "schedule/timers.h"
#include "schedule/wave.h"

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace Quorval::runtime {

/// What a graph gets from outside while it lives.
struct IWorld {
    /// Of a monotonic clock.
    virtual std::chrono::nanoseconds now() = 0;
    /// Asked before each block that is started.
    virtual bool must_stop() = 0;
    virtual void progress(const std::string& path, std::uint64_t done, std::uint64_t total) = 0;
    /// Null where there is none.
    virtual sd_event* loop() = 0;
    virtual sd_bus* bus() = 0;

protected:
    ~IWorld() = default;
};

/// Watches what the outputs of blocks give, wave by wave.
struct IOutputWatcher {
    /// After the blocks were started.
    /// @param is_source  by block
    virtual void begin(const std::vector<bool>& is_source) = 0;
    virtual void wave_begins(std::chrono::nanoseconds time) = 0;
    /// An output that stands triggered: at the end of a wave, before the resets, and before that
    /// at its beginning where it was triggered outside of it.
    virtual void see(const OutPortInternal& output, bool is_early) = 0;
    virtual void wave_ends() = 0;

    IOutputWatcher() = default;
    IOutputWatcher(const IOutputWatcher&) = delete;
    IOutputWatcher& operator=(const IOutputWatcher&) = delete;
    virtual ~IOutputWatcher() = default;
};

/// Attaches services to the blocks of a graph, starts them, runs waves and stops them. Waits for
/// nothing: whoever owns it does, and tells what became ready. Reports what goes wrong. Used by one
/// thread, but for the requests of blocks.
class Life final : private IWaveEvents {
public:
    using Time = std::chrono::nanoseconds;

    /// Attaches the services. All that is handed in must outlive the object.
    /// @param poller  gets the descriptors of blocks; null: they are not watched
    /// @param waker   told when a block asks for a run; null: nobody is
    Life(const Network& network, IWorld& world, Poller* poller, std::shared_ptr<Waker> waker);
    Life(const Life&) = delete;
    Life& operator=(const Life&) = delete;
    /// The services do nothing from here on.
    ~Life();

    /// Has waves run on several threads where that pays. Before start().
    void use_threads(const Crew::Setting& setting) { threads_ = setting; }

    /// Starts the blocks, from the last to the first, until one fails or the graph has to stop.
    /// @return whether there is anything that would ever run
    bool start();

    /// Takes readiness to the ports of blocks.
    void take(const std::vector<Ready>& ready);

    /// Looks at the outputs of blocks whose code may have run in the event loop.
    void look_around();

    /// Looks at the outputs of a block whose code was called outside of a wave.
    void look_at(std::uint32_t block) { wave_.look_at_outputs(block); }

    /// Runs one wave, if there is anything to do.
    void step();

    /// Whether the next wave has something to do, apart from timers.
    bool has_work() const { return !wave_.is_idle() || !requests_->is_empty(); }

    /// When the next wave is due by itself; a time in the past: at once.
    std::optional<Time> next_time() const;

    /// @param watcher  told from the start on; has to be there until the last step
    void watch_outputs(IOutputWatcher& watcher) { watcher_ = &watcher; }

    /// Stops the graph after the present wave.
    void request_stop() { is_stopping_ = true; }
    bool is_stopping() const { return is_stopping_; }
    bool is_over() const;

    /// Stops the blocks that were started, from the first to the last.
    void stop();

    bool has_failed() const { return has_failed_; }
    /// For what else goes wrong with the graph.
    void fail();
    Failures& failures() { return failures_; }
    Wave& wave() { return wave_; }
    DescriptorPorts& descriptor_ports() { return ports_; }

private:
    class Services;

    void start_block(std::uint32_t block);
    void stop_block(std::uint32_t block);
    bool can_be_woken(std::uint32_t block);
    bool has_entry(std::uint32_t block) const;
    void add_source(std::uint32_t block);
    void tie(std::uint32_t block, Tie tie);
    void make_crew();
    void watch_start();
    bool run_watched(Time now);
    void take_requests();
    void take_timers(Time now);
    void check_signals();
    void block_failed(std::uint32_t block, const std::string& text) override;
    void block_is_done(std::uint32_t block) override;

    const Network& network_;
    IWorld& world_;
    Poller* poller_;
    std::shared_ptr<Requests> requests_;
    Timers timers_;
    DescriptorPorts ports_;
    Wave wave_;
    Failures failures_;
    IOutputWatcher* watcher_ = nullptr;
    std::optional<Crew::Setting> threads_;  // none: one thread
    std::unique_ptr<Crew> crew_;
    std::vector<Tie> ties_;
    bool has_new_ties_ = false;
    std::vector<std::shared_ptr<Services>> services_;
    std::vector<std::uint32_t> loop_users_;  // blocks
    std::vector<bool> is_started_;
    std::vector<bool> is_source_;
    std::size_t live_sources_ = 0;
    bool has_sources_ = false;
    Time wave_time_{};
    Time next_check_of_signals_{};
    bool is_in_wave_ = false;
    bool is_stopping_ = false;
    bool has_failed_ = false;
};

}  // namespace Quorval::runtime
