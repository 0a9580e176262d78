// Runs the blocks of a wave side by side.
#pragma once

#include "messages/turn.h"
#include "schedule/bitset.h"
#include "schedule/pace.h"
#include "schedule/plan.h"
#include "schedule/wave.h"
#include "schedule/workers.h"

#include <atomic>
#include <chrono>
#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

namespace Quorval::runtime {

/// Does the visits of waves, on several threads where that pays. What a block leaves behind is seen
/// in its turn, in the order of the network, so that a wave comes out as on one thread: its runs
/// are counted, its messages written, its failure told, and its outputs known as triggered then.
/// When a block fails and the wave ends there, nothing is seen of those behind it; some may have
/// run all the same.
///
/// Times the first runs of each block and few of the others, to know which of them are worth a
/// thread, and which way waves with such blocks are faster.
class Crew {
public:
    using Time = std::chrono::nanoseconds;

    struct Setting {
        unsigned threads = 2;
        /// Of a task, to be given to a thread; shorter ones stay with the calling one.
        Time least = std::chrono::microseconds(1);
        /// Each wave, whether it pays or not.
        bool is_always_side_by_side = false;
    };

    /// Works for the wave from here on, and has to outlive the last one.
    /// @param wave     between two waves
    /// @param now      of a monotonic clock, for any thread
    /// @param network  as the wave has it
    Crew(Wave& wave, const Network& network, const std::vector<Tie>& ties, const Setting& setting,
         Time (*now)());
    Crew(const Crew&) = delete;
    Crew& operator=(const Crew&) = delete;

    /// Other ties, between two waves.
    void plan(const Network& network, const std::vector<Tie>& ties);

    /// After so many of its runs the block is to be looked at when its turn has come.
    std::uint64_t next_look(std::uint32_t block) const { return next_looks_[block]; }

    /// Visits a block whose turn has come, or it and all that are to be visited in the wave.
    /// @return false when a block failed that does not skip failures
    bool look(std::uint32_t block);

    /// In a run of the block: from here to its end no other block uses the event loop and the bus,
    /// which only one thread at a time may. Tied blocks have them in all of their runs.
    void take_loop(std::uint32_t block);

    /// The visits of the wave have ended.
    void end_wave();

private:
    /// A visit out of turn. Touched by one thread at a time.
    struct Visit {
        bool is_wanted = false;
        bool is_due = false;
        bool has_failed = false;
        bool goes_on = true;
        std::uint32_t thread = 0;
        Time begin{};
        Time end{};
        std::string failure;  // the text
        Deeds deeds;
        std::unique_lock<std::mutex>* loop = nullptr;  // while it lasts
    };

    bool visit_in_order(std::uint32_t block);
    static bool is_sample(std::uint64_t runs);
    void learn(std::uint32_t block, Time time);
    bool is_worth_a_thread(std::uint32_t block) const;
    Time work_of(std::uint32_t block) const;
    bool run_side_by_side();
    void want(std::uint32_t block);
    bool take_level();
    void keep_level();
    Time cost_of(std::uint32_t task) const;
    void run_level();
    void run_task(std::uint32_t task);
    void visit(std::uint32_t block);
    void run_block(Wave::Slot& slot, Visit& visit);
    void fail(Wave::Slot& slot, Visit& visit);
    void note(std::uint32_t task);
    bool settle();
    bool settle(std::uint32_t block);
    void drop(std::uint32_t block);
    template <class Use>
    void for_new_readers(std::uint32_t block, const Use& use);

    Wave& wave_;
    Setting setting_;
    Time (*now_)();
    Plan plan_;
    Workers workers_;
    Pace pace_;
    std::vector<std::uint32_t> costs_;       // by block: the time of a run in nanoseconds
    std::vector<std::uint64_t> next_looks_;  // by block
    std::vector<Visit> visits_;              // by block
    std::mutex loop_;                        // held by the block that may use the event loop
    Bitset pending_;                         // tasks that have something to do
    Bitset visited_;                         // blocks
    std::vector<std::uint32_t> own_;         // tasks of the present level: for the calling thread
    std::vector<std::uint32_t> shared_;      // and for any one
    bool is_timed_ = false;  // the present wave, from its first block that is worth a thread on
    Time begin_{};
    Time work_{};  // of such blocks, one after the other
    // Blocks behind this one are not to be run: it has failed, and the wave ends there.
    std::atomic<std::uint32_t> end_{0};
};

}  // namespace Quorval::runtime
