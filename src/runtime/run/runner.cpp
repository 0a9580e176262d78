#include "run/runner.h"

#include <quorval/log.h>
#include "messages/printable.h"

#include <algorithm>
#include <stdexcept>
#include <utility>
#include <vector>

namespace Quorval::runtime {

Runner::Runner(const GraphOptions& options, LoadedGraph& graph, Loop& loop, Signals* signals,
               IOutside* outside, const std::atomic<bool>& has_stop)
    : options_(options),
      graph_(graph),
      loop_(loop),
      signals_(signals),
      outside_(outside),
      has_stop_(has_stop),
      life_(graph.network, *this, &loop.poller(), loop.waker()),
      overrides_(graph, life_),
      reload_(options, graph, overrides_, signals),
      run_{options, graph, loop, life_, overrides_, reload_, [this] { return link_statistics(); }},
      notice_(options.tells_manager, graph.blocks.size())
{
    if (options.threads > 1) {
        life_.use_threads({options.threads});
    }
}

void Runner::play(IPlayback& playback)
{
    playback_ = &playback;
}

/// @return false: a file of the link cannot be used, which is reported
bool Runner::open_link()
{
    if (options_.machine.empty() || playback_ != nullptr) {
        return true;
    }
    const LinkDescription& link = graph_.reading->description.link;
    if (link.host.empty()) {
        return true;
    }
    try {
        link_ = std::make_unique<Link>(Link::Setting{link, graph_.name, options_.machine,
                                                     graph_.reading->description.machines},
                                       graph_.network, *graph_.plugins, loop_.poller(), Loop::now);
    } catch (const std::runtime_error& error) {
        logger(LOGLEVEL_ERROR, "the link cannot be used: %s", printable(error.what()).c_str());
        return false;
    }
    link_->attach(life_.wave());
    return true;
}

/// Sends what waits, for some seconds at most. Nothing else is served then: the blocks are stopped.
void Runner::close_link()
{
    constexpr std::chrono::seconds kPatience(5);
    if (link_ == nullptr) {
        return;
    }
    loop_.close_event();
    link_->begin_end();
    const Life::Time deadline = now() + kPatience;
    for (link_->prepare(); !link_->is_finished() && now() < deadline; link_->prepare()) {
        link_->take(loop_.wait(std::min({link_->next_time().value_or(deadline),
                                         notice_.next_time().value_or(deadline), deadline})));
        notice_.keep_alive(now());
    }
    link_->end();
    check_link();
}

/// Fails where the link has to end the run.
void Runner::check_link()
{
    if (link_ != nullptr && !link_->failure().empty() && !std::exchange(has_link_failed_, true)) {
        logger(LOGLEVEL_ERROR, "%s", link_->failure().c_str());
        life_.fail();
    }
}

std::vector<LinkStatistics> Runner::link_statistics() const
{
    return link_ == nullptr ? std::vector<LinkStatistics>() : link_->statistics();
}

RunResult Runner::run()
{
    if (!open_link()) {
        return RunResult::Failed;
    }
    RunResult result = outside_ == nullptr ? RunResult::Done : outside_->open(run_);
    const bool is_open = result == RunResult::Done;
    if (is_open) {
        result = live();
    }
    if (outside_ != nullptr) {
        outside_->close();
    }
    // Last, so that nobody reaches stopped blocks while it takes its time.
    if (is_open) {
        contain([this] { close_link(); });
    }
    return life_.has_failed() && result != RunResult::WrongObjects ? RunResult::Failed : result;
}

/// Does what may throw, which ends the run.
template <class Action>
void Runner::contain(Action action)
{
    try {
        action();
    } catch (...) {
        logger(LOGLEVEL_ERROR, "the graph cannot run on: %s", text_of_present_exception().c_str());
        life_.fail();
    }
}

bool Runner::start()
{
    const bool has_work = life_.start() || playback_ != nullptr;
    if (outside_ != nullptr) {
        contain([this] { outside_->begin(); });
    }
    if (has_work && !life_.has_failed()) {
        notice_.tell_ready();
    }
    if (options_.run_for.count() > 0) {
        end_ = now() + options_.run_for;
    }
    return has_work;
}

RunResult Runner::live()
{
    const bool has_work = start();
    contain([this, has_work] {
        while (playback_ != nullptr && !life_.is_stopping() && !loop_.has_exited()) {
            play_wave();
        }
        while (has_work && !life_.is_over() && !loop_.has_exited()) {
            turn();
        }
    });
    if (!has_work && !life_.has_failed()) {
        logger(LOGLEVEL_ERROR, "the graph has no source: nothing would ever run");
    }
    notice_.tell_stopping();
    life_.stop();
    show_progress(true);
    return life_.has_failed() ? RunResult::Failed
           : has_work         ? RunResult::Done
                              : RunResult::NoSource;
}

void Runner::turn()
{
    if (link_ != nullptr) {
        link_->prepare();
    }
    const std::vector<Ready>& ready = loop_.wait(next_time());
    life_.take(ready);
    if (link_ != nullptr) {
        link_->take(ready);
        check_link();
    }
    life_.look_around();
    if (playback_ == nullptr && signals_ != nullptr && signals_->take_reload()) {
        notice_.tell_reloading(now());
        reload_.run();
        notice_.tell_ready();
    }
    if (notice_.next_time()) {
        notice_.keep_alive(now());
    }
    if (must_stop() || loop_.has_exited() || (end_ && now() >= *end_)) {
        life_.request_stop();
        return;
    }
    if (link_ != nullptr) {
        link_->feed(life_.wave());
    }
    life_.step();
    show_progress(false);
}

/// Waits for the next wave of the recording. What else became ready takes part in it.
void Runner::play_wave()
{
    const std::optional<Life::Time> next = playback_->next_time();
    if (!next) {
        life_.request_stop();
        return;
    }
    loop_.sleep(std::min(*next, notice_.next_time().value_or(*next)));
    notice_.keep_alive(Loop::now());
    if (must_stop() || loop_.has_exited()) {
        life_.request_stop();
    } else if (Loop::now() >= *next) {
        life_.take(loop_.wait(Life::Time(0)));
        life_.look_around();
        playback_->begin_wave(life_);
        life_.step();
        show_progress(false);
    }
}

std::optional<Life::Time> Runner::next_time() const
{
    std::optional<Life::Time> next = life_.next_time();
    const auto consider = [&next](Life::Time time) { next = next ? std::min(*next, time) : time; };
    if (end_) {
        consider(*end_);
    }
    if (notice_.next_time()) {
        consider(*notice_.next_time());
    }
    if (progress_.path != nullptr) {
        consider(next_progress_);
    }
    if (link_ != nullptr && link_->next_time()) {
        consider(*link_->next_time());
    }
    return next;
}

bool Runner::must_stop()
{
    return has_stop_ || (signals_ != nullptr && signals_->has_stop());
}

void Runner::progress(const std::string& path, std::uint64_t done, std::uint64_t total)
{
    if (options_.on_progress) {
        progress_ = {&path, done, total};
    }
}

void Runner::show_progress(bool is_last)
{
    constexpr std::chrono::milliseconds kPause(100);
    if (progress_.path == nullptr || (!is_last && now() < next_progress_)) {
        return;
    }
    options_.on_progress(*progress_.path, progress_.done, progress_.total);
    progress_.path = nullptr;
    next_progress_ = now() + kPause;
}

}  // namespace Quorval::runtime
