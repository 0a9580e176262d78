#include "schedule/crew.h"

#include "messages/crash_threads.h"
#include "schedule/probes.h"

#include <algorithm>
#include <limits>
#include <utility>

namespace Quorval::runtime {

namespace {

constexpr std::uint32_t kNone = UINT32_MAX;

// Of the runs of a block the first ones are timed, and one after each pause.
constexpr std::uint64_t kFirst = 4;
constexpr std::uint64_t kPause = 64;

}  // namespace

Crew::Crew(Wave& wave, const Network& network, const std::vector<Tie>& ties, const Setting& setting,
           Time (*now)())
    : wave_(wave),
      setting_(setting),
      now_(now),
      plan_(network, ties),
      workers_(setting.threads),
      costs_(network.nodes.size()),
      next_looks_(network.nodes.size()),
      visits_(network.nodes.size()),
      pending_(network.nodes.size()),
      visited_(network.nodes.size())
{
    own_.reserve(network.nodes.size());
    shared_.reserve(network.nodes.size());
    wave.crew_ = this;
    report_exit_first();
}

void Crew::plan(const Network& network, const std::vector<Tie>& ties)
{
    plan_ = Plan(network, ties);
}

bool Crew::look(std::uint32_t block)
{
    if (setting_.is_always_side_by_side) {
        wave_.visits_.insert(block);
        return run_side_by_side();
    }
    if (!is_timed_ && is_worth_a_thread(block)) {
        is_timed_ = true;
        work_ = Time(0);
        begin_ = now_();
        if (pace_.is_side_by_side()) {
            wave_.visits_.insert(block);
            return run_side_by_side();
        }
    }
    return visit_in_order(block);
}

void Crew::end_wave()
{
    if (std::exchange(is_timed_, false)) {
        pace_.ended(now_() - begin_, work_);
    }
}

/// As a wave without a crew does it.
bool Crew::visit_in_order(std::uint32_t block)
{
    Wave::Slot& slot = wave_.slots_[block];
    if (slot.is_done) {
        return true;
    }
    const std::uint64_t runs = slot.runs;
    const bool is_timed = is_sample(runs);
    const Time begin = is_timed ? now_() : Time(0);
    const bool is_well = wave_.visit(slot);
    if (slot.runs != runs) {
        if (is_timed) {
            learn(block, now_() - begin);
        }
        work_ += work_of(block);
    }
    return is_well;
}

bool Crew::is_sample(std::uint64_t runs)
{
    return runs % kPause == 0 || runs < kFirst;
}

/// A run that took long once, because its thread had to wait for a processor for example, counts
/// little.
void Crew::learn(std::uint32_t block, Time time)
{
    constexpr std::uint64_t kLongest = std::numeric_limits<std::uint32_t>::max();
    const std::uint64_t before = costs_[block];
    const auto present = static_cast<std::uint64_t>(time.count());
    const std::uint64_t cost =
        before == 0 ? present : (3 * before + std::min(present, 4 * before)) / 4;
    costs_[block] = static_cast<std::uint32_t>(std::clamp<std::uint64_t>(cost, 1, kLongest));
    const std::uint64_t runs = wave_.slots_[block].runs;
    next_looks_[block] =
        is_worth_a_thread(block) || runs < kFirst ? 0 : runs - runs % kPause + kPause;
}

bool Crew::is_worth_a_thread(std::uint32_t block) const
{
    return Time(costs_[block]) >= setting_.least;
}

/// Of blocks that do next to nothing little is known: to time them takes longer than they do.
Crew::Time Crew::work_of(std::uint32_t block) const
{
    return is_worth_a_thread(block) ? Time(costs_[block]) : Time(0);
}

/// Goes through the plan level by level, then through the blocks in their order.
bool Crew::run_side_by_side()
{
    end_ = kNone;
    for (std::uint32_t block = 0; wave_.visits_.take_lowest(block);) {
        want(block);
    }
    while (take_level()) {
        run_level();
    }
    return settle();
}

void Crew::want(std::uint32_t block)
{
    if (!wave_.slots_[block].is_done && !visits_[block].is_wanted) {
        visits_[block].is_wanted = true;
        pending_.insert(plan_.task_of(block));
    }
}

/// Takes the tasks of the lowest level that has any.
bool Crew::take_level()
{
    own_.clear();
    shared_.clear();
    std::uint32_t task = 0;
    if (!pending_.take_lowest(task)) {
        return false;
    }
    const std::uint32_t end = plan_.end_of_level(task);
    Time own_cost(0);
    do {
        if (task >= end) {
            pending_.insert(task);
            break;
        }
        const Time cost = cost_of(task);
        if (!plan_.is_tied(task) && cost >= setting_.least) {
            shared_.push_back(task);
        } else {
            own_.push_back(task);
            own_cost += cost;
        }
    } while (pending_.take_lowest(task));
    if (shared_.size() == 1 && own_cost < setting_.least) {
        own_.insert(std::upper_bound(own_.begin(), own_.end(), shared_.front()), shared_.front());
        shared_.clear();
    }
    return true;
}

/// Of all blocks that may run in it.
Crew::Time Crew::cost_of(std::uint32_t task) const
{
    const std::uint32_t* const first =
        std::find_if(plan_.begin(task), plan_.end(task),
                     [this](std::uint32_t block) { return visits_[block].is_wanted; });
    Time cost(0);
    for (const std::uint32_t* block = first; block != plan_.end(task); ++block) {
        cost += Time(costs_[*block]);
    }
    return cost;
}

void Crew::run_level()
{
    const auto run_own = [this] {
        for (const std::uint32_t task : own_) {
            run_task(task);
        }
    };
    const auto run_shared = [this](std::size_t at) {
        have_crash_stack();
        run_task(shared_[at]);
    };
    if (shared_.empty()) {
        run_own();
    } else {
        workers_.run(shared_.size(), run_shared, run_own);
    }
    for (const std::uint32_t task : own_) {
        note(task);
    }
    for (const std::uint32_t task : shared_) {
        note(task);
    }
}

/// On any thread.
void Crew::run_task(std::uint32_t task)
{
    for (const std::uint32_t* block = plan_.begin(task); block != plan_.end(task); ++block) {
        if (visits_[*block].is_wanted && *block < end_.load(std::memory_order_relaxed)) {
            visit(*block);
            for_new_readers(*block, [&](std::uint32_t reader) {
                if (plan_.task_of(reader) == task && !wave_.slots_[reader].is_done) {
                    visits_[reader].is_wanted = true;
                }
            });
        }
    }
}

/// A visit whose outcome waits for its turn.
void Crew::visit(std::uint32_t block)
{
    Wave::Slot& slot = wave_.slots_[block];
    Visit& visit = visits_[block];
    const ContextScope scope(slot.path, Wave::kOperation);
    std::unique_lock<std::mutex> loop(loop_, std::defer_lock);
    visit.loop = &loop;
    const TurnScope turn(visit.deeds);
    if (plan_.is_tied(plan_.task_of(block))) {
        loop.lock();
    }
    try {
        visit.is_due = wave_.is_due(slot);
        if (visit.is_due) {
            run_block(slot, visit);
        }
    } catch (...) {
        visit.failure = text_of_present_exception();
        fail(slot, visit);
    }
}

void Crew::take_loop(std::uint32_t block)
{
    const Visit& visit = visits_[block];
    const bool is_out_of_turn = present_deeds() == &visit.deeds;
    if (is_out_of_turn && !visit.loop->owns_lock()) {
        visit.loop->lock();
    }
}

void Crew::run_block(Wave::Slot& slot, Visit& visit)
{
    const bool is_sampled = is_sample(slot.runs);
    const bool is_timed = is_sampled || wave_.probe_ != nullptr;
    if (is_timed) {
        visit.thread = Workers::present();
        visit.begin = now_();
    }
    probe_run_begin(slot.path);
    visit.goes_on = wave_.run_uncounted(slot);
    probe_run_end(slot.path, 0);
    if (is_timed) {
        visit.end = now_();
    }
    if (is_sampled) {
        learn(wave_.number_of(slot), visit.end - visit.begin);
    }
}

void Crew::fail(Wave::Slot& slot, Visit& visit)
{
    visit.has_failed = true;
    if (visit.is_due) {
        probe_run_end(slot.path, 1);
        visit.end = now_();
    }
    Wave::drop_outputs(slot);
    const std::uint32_t block = wave_.number_of(slot);
    std::uint32_t end = end_;
    while (!slot.skips_failures && block < end && !end_.compare_exchange_weak(end, block)) {}
}

/// Calls `use` with the blocks behind what the run of a block has triggered.
template <class Use>
void Crew::for_new_readers(std::uint32_t block, const Use& use)
{
    if (!visits_[block].is_due) {
        return;
    }
    const Wave::Slot& slot = wave_.slots_[block];
    for (const Wave::Output* output = slot.outputs; output != (&slot + 1)->outputs; ++output) {
        if (!output->is_noted && output->port->is_triggered()) {
            std::for_each(output->readers, (output + 1)->readers, use);
        }
    }
}

/// Looks at what a task has done, when the others of its level have ended.
void Crew::note(std::uint32_t task)
{
    for (const std::uint32_t* block = plan_.begin(task); block != plan_.end(task); ++block) {
        if (visits_[*block].is_wanted) {
            visited_.insert(*block);
            for_new_readers(*block, [this](std::uint32_t reader) { want(reader); });
        }
    }
}

/// Brings the wave into the state in which visits in order would have left it.
bool Crew::settle()
{
    bool is_well = true;
    for (std::uint32_t block = 0; visited_.take_lowest(block);) {
        if (is_well) {
            is_well = settle(block);
        } else {
            drop(block);
        }
        visits_[block].is_wanted = false;
        visits_[block].is_due = false;
        visits_[block].has_failed = false;
        visits_[block].deeds.clear();
    }
    return is_well;
}

bool Crew::settle(std::uint32_t block)
{
    Wave::Slot& slot = wave_.slots_[block];
    Visit& visit = visits_[block];
    const ContextScope scope(slot.path, Wave::kOperation);
    *wave_.visited_end_++ = &slot;
    for (const std::function<void()>& deed : visit.deeds) {
        deed();
    }
    if (visit.is_due) {
        ++slot.runs;
        work_ += work_of(block);
        if (wave_.probe_ != nullptr) {
            wave_.probe_->ran({block, visit.thread, visit.begin, visit.end, visit.has_failed});
        }
    }
    if (visit.has_failed) {
        return wave_.tell_failure(slot, visit.failure);
    }
    if (visit.is_due) {
        wave_.list_outputs(slot);
        if (!visit.goes_on) {
            wave_.end_block(slot);
        }
    }
    return true;
}

/// A block that one thread would not have come to leaves nothing to be seen.
void Crew::drop(std::uint32_t block)
{
    Wave::Slot& slot = wave_.slots_[block];
    slot.is_asked = false;
    if (!visits_[block].is_due) {
        return;
    }
    wave_.forget_visit(slot);
}

}  // namespace Quorval::runtime
