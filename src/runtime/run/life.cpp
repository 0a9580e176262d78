#include "run/life.h"

#include <quorval/log.h>
#include "loop/loop.h"
#include "messages/context.h"
#include "messages/left_open.h"
#include "messages/signal_mask.h"
#include "messages/turn.h"

#include <algorithm>
#include <atomic>
#include <utility>

namespace Quorval::runtime {

/// What one block gets. Outlives the life of the graph, and does nothing then. In a run on another
/// thread than that of the graph only looks at what no wave changes; the rest waits for its turn.
class Life::Services final : public RuntimeTools {
public:
    Services(Life& life, std::uint32_t block)
        : path_(life.network_.nodes[block].path),
          block_(block),
          requests_(life.requests_),
          life_(&life)
    {
    }

    const std::string& path() const override { return path_; }

    std::chrono::nanoseconds now() const override
    {
        if (life_ == nullptr) {
            return last_time_;
        }
        return life_->is_in_wave_ ? life_->wave_time_ : life_->world_.now();
    }

    void request_run() override
    {
        if (!is_closed_) {
            requests_->add(block_);
        }
    }

    void run_at(std::chrono::nanoseconds time) override
    {
        if (life_ != nullptr) {
            do_in_turn([this, time] { set_timer(time); });
        }
    }

    void progress(std::uint64_t done, std::uint64_t total) override
    {
        if (life_ != nullptr) {
            do_in_turn([this, done, total] { life_->world_.progress(path_, done, total); });
        }
    }

    void stop(const std::string& reason) override
    {
        if (life_ != nullptr) {
            logger(LOGLEVEL_INFO, "%s", reason.c_str());
            do_in_turn([this] { life_->request_stop(); });
        }
    }

    sd_event* loop() override
    {
        if (life_ == nullptr) {
            return nullptr;
        }
        take_loop();
        if (!std::exchange(uses_loop_, true)) {
            do_in_turn([this] {
                life_->loop_users_.push_back(block_);
                life_->tie(block_, Tie::Thread);
            });
        }
        return life_->world_.loop();
    }

    sd_bus* bus() override
    {
        if (life_ == nullptr) {
            return nullptr;
        }
        take_loop();
        tie(Tie::Thread);
        return life_->world_.bus();
    }

    void keep_place() override
    {
        if (life_ != nullptr) {
            tie(Tie::Place);
        }
    }

    void close()
    {
        if (life_ != nullptr) {
            last_time_ = now();
        }
        is_closed_ = true;
        life_ = nullptr;
    }

private:
    void set_timer(std::chrono::nanoseconds time)
    {
        if (life_->wave_.is_done(block_)) {
            return;
        }
        if (time.count() < 0) {
            life_->timers_.cancel(block_);
        } else {
            life_->timers_.set(block_, time);
        }
    }

    /// The block is not on the thread of the graph yet when it asks in a run first.
    void take_loop()
    {
        if (life_->crew_ != nullptr) {
            life_->crew_->take_loop(block_);
        }
    }

    void tie(Tie tie)
    {
        do_in_turn([this, tie] { life_->tie(block_, tie); });
    }

    std::string path_;
    std::uint32_t block_;
    std::shared_ptr<Requests> requests_;
    Life* life_;  // null when it is over
    std::chrono::nanoseconds last_time_{};
    bool uses_loop_ = false;
    std::atomic<bool> is_closed_{false};
};

Life::Life(const Network& network, IWorld& world, Poller* poller, std::shared_ptr<Waker> waker)
    : network_(network),
      world_(world),
      poller_(poller),
      requests_(std::make_shared<Requests>(network.nodes.size(), std::move(waker))),
      timers_(network.nodes.size()),
      ports_(network),
      wave_(network, ports_, *this),
      failures_(network),
      ties_(network.nodes.size()),
      is_started_(network.nodes.size()),
      is_source_(network.nodes.size())
{
    services_.reserve(network.nodes.size());
    for (std::uint32_t block = 0; block < network.nodes.size(); ++block) {
        services_.push_back(std::make_shared<Services>(*this, block));
        network.nodes[block].block->set_tools(services_.back());
    }
}

Life::~Life()
{
    for (std::uint32_t block = 0; block < services_.size(); ++block) {
        services_[block]->close();
        ports_.unwatch(block);
    }
}

bool Life::start()
{
    was_started() = true;
    for (std::size_t block = network_.nodes.size(); block-- > 0;) {
        if (is_stopping_ || world_.must_stop()) {
            request_stop();
            watch_start();
            return true;
        }
        start_block(static_cast<std::uint32_t>(block));
    }
    take_requests();
    for (std::uint32_t block = 0; block < network_.nodes.size(); ++block) {
        if (can_be_woken(block)) {
            add_source(block);
        }
        if (network_.nodes[block].block->has_external_trigger()) {
            tie(block, Tie::Thread);
        }
        wave_.look_at_outputs(block);
    }
    watch_start();
    make_crew();
    if (world_.must_stop()) {
        request_stop();
    }
    return is_stopping_ || has_sources_ || !wave_.is_idle();
}

/// Where there may be several threads. Behind the start of the blocks and of the watcher, which may
/// have some too.
void Life::make_crew()
{
    if (!threads_) {
        return;
    }
    const unsigned wanted = threads_->threads;
    threads_->threads = Workers::count_available(wanted);
    if (threads_->threads < wanted) {
        logger(LOGLEVEL_WARNING, "the graph has %u of %u threads: the system refuses more",
               threads_->threads, wanted);
    }
    if (threads_->threads > 1) {
        crew_ = std::make_unique<Crew>(wave_, network_, ties_, *threads_, Loop::now);
        has_new_ties_ = false;
    }
}

void Life::start_block(std::uint32_t block)
{
    const Node& node = network_.nodes[block];
    try {
        const ContextScope scope(node.path.c_str(), "start");
        try {
            node.block->start();
        } catch (...) {
            note_left_open_of_failure();
            throw;
        }
        give_back_signals();
        is_started_[block] = true;
        note_left_open();
        if (ports_.collect(block)) {
            wave_.has_descriptors(block);
            if (poller_ != nullptr) {
                ports_.watch(block, *poller_);
            }
        }
    } catch (...) {
        failures_.report(block, "start", text_of_present_exception());
        fail();
    }
}

/// Whether the block can become due from outside, apart from a request.
bool Life::can_be_woken(std::uint32_t block)
{
    Block& plain = *network_.nodes[block].block;
    return plain.has_external_port() || timers_.is_set(block) || has_entry(block) ||
           (world_.bus() != nullptr && plain.has_external_trigger());
}

/// Whether values from other machines trigger the block.
bool Life::has_entry(std::uint32_t block) const
{
    const auto end = network_.entry_wires.end();
    auto wire = std::lower_bound(
        network_.entry_wires.begin(), end, block,
        [](const EntryWire& one, std::uint32_t wanted) { return one.to < wanted; });
    while (wire != end && wire->to == block && wire->is_delayed) {
        ++wire;
    }
    return wire != end && wire->to == block;
}

void Life::tie(std::uint32_t block, Tie tie)
{
    if (ties_[block] < tie) {
        ties_[block] = tie;
        has_new_ties_ = true;
    }
}

void Life::add_source(std::uint32_t block)
{
    if (!is_source_[block]) {
        is_source_[block] = true;
        has_sources_ = true;
        ++live_sources_;
    }
}

void Life::take(const std::vector<Ready>& ready)
{
    for (const Ready& one : ready) {
        if (one.tag < kFirstReservedTag) {
            wave_.visit(ports_.make_ready(one));
        }
    }
}

void Life::look_around()
{
    for (const std::uint32_t block : loop_users_) {
        wave_.look_at_outputs(block);
    }
}

void Life::step()
{
    const Time now = world_.now();
    take_requests();
    take_timers(now);
    if (wave_.is_idle()) {
        return;
    }
    if (crew_ != nullptr && std::exchange(has_new_ties_, false)) {
        crew_->plan(network_, ties_);
    }
    wave_time_ = now;
    is_in_wave_ = true;
    ports_.begin_wave();
    const bool is_well = watcher_ == nullptr ? wave_.run() : run_watched(now);
    if (!wave_.reset() || !is_well) {
        fail();
    }
    is_in_wave_ = false;
    check_signals();
}

/// A block may have blocked signals; to ask costs a system call, so not behind each wave.
void Life::check_signals()
{
    constexpr std::chrono::seconds kPause(1);
    if (wave_time_ >= next_check_of_signals_) {
        next_check_of_signals_ = wave_time_ + kPause;
        give_back_signals();
    }
}

void Life::watch_start()
{
    if (watcher_ != nullptr) {
        watcher_->begin(is_source_);
    }
}

bool Life::run_watched(Time now)
{
    watcher_->wave_begins(now);
    wave_.for_triggered([this](const OutPortInternal& output) { watcher_->see(output, true); });
    const bool is_well = wave_.run();
    wave_.for_triggered([this](const OutPortInternal& output) { watcher_->see(output, false); });
    watcher_->wave_ends();
    return is_well;
}

void Life::take_requests()
{
    requests_->take_all([this](std::uint32_t block) {
        if (wave_.is_done(block)) {
            return;
        }
        if (wave_.waves() == 0) {
            add_source(block);
        }
        wave_.ask(block);
    });
}

void Life::take_timers(Time now)
{
    while (!timers_.is_empty() && timers_.earliest() <= now) {
        wave_.ask(timers_.take_earliest());
    }
}

std::optional<Life::Time> Life::next_time() const
{
    if (has_work()) {
        return Time(0);
    }
    return timers_.is_empty() ? std::nullopt : std::optional<Time>(timers_.earliest());
}

bool Life::is_over() const
{
    return is_stopping_ || (has_sources_ ? live_sources_ == 0 : !next_time().has_value());
}

void Life::stop()
{
    note_open_before_end();
    for (std::uint32_t block = 0; block < network_.nodes.size(); ++block) {
        if (is_started_[block]) {
            stop_block(block);
        }
    }
    failures_.report_rest();
}

void Life::stop_block(std::uint32_t block)
{
    const Node& node = network_.nodes[block];
    try {
        const ContextScope scope(node.path.c_str(), "stop");
        node.block->stop();
    } catch (...) {
        failures_.report(block, "stop", text_of_present_exception());
        has_failed_ = true;
    }
    note_left_open_at_end(node.path.c_str());
    services_[block]->close();
    ports_.unwatch(block);
}

void Life::fail()
{
    has_failed_ = true;
    is_stopping_ = true;
}

void Life::block_failed(std::uint32_t block, const std::string& text)
{
    failures_.report_run(block, text, wave_time_);
}

void Life::block_is_done(std::uint32_t block)
{
    if (is_source_[block]) {
        --live_sources_;
    }
    timers_.cancel(block);
    ports_.unwatch(block);
}

}  // namespace Quorval::runtime
