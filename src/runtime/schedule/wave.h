// One pass through the blocks that have something to do.
#pragma once

#include "messages/context.h"
#include "schedule/bitset.h"
#include "schedule/network.h"

#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

namespace Quorval::runtime {

/// What the descriptor ports of blocks have to do with a wave. Blocks are numbered as in the
/// network; only those are asked about for which Wave::has_descriptors() was called.
struct IDescriptorPorts {
    /// Whether a descriptor port of the block is triggered.
    virtual bool is_triggered(std::uint32_t block) = 0;
    virtual void before_run(std::uint32_t block) = 0;
    virtual void after_run(std::uint32_t block) = 0;
    /// At the end of the wave.
    virtual void reset(std::uint32_t block) = 0;

protected:
    ~IDescriptorPorts() = default;
};

/// Learns what becomes of blocks in a wave. What it throws passes through the wave, which is then
/// not to be run again.
struct IWaveEvents {
    /// The block's run() threw; `text` is that of the exception.
    virtual void block_failed(std::uint32_t block, const std::string& text) = 0;
    /// The block's run() returned false; it will not be run again.
    virtual void block_is_done(std::uint32_t block) = 0;

protected:
    ~IWaveEvents() = default;
};

/// Learns of values at outputs. What it throws passes through the wave, which is then not to be run
/// again.
struct ITriggerWatcher {
    /// The output was triggered in the wave, or before it, and still is at its end, before the
    /// resets.
    virtual void has_value(std::uint32_t tag) = 0;

protected:
    ~ITriggerWatcher() = default;
};

/// A run that is told of when it has ended.
struct TimedRun {
    std::uint32_t block = 0;
    std::uint32_t thread = 0;  // that ran it; 0 is that of the graph
    std::chrono::nanoseconds begin{};
    std::chrono::nanoseconds end{};
    bool has_failed = false;
};

/// Watches waves and each run in them, to measure them.
struct IRunProbe {
    virtual void wave_begins() = 0;
    /// After the resets.
    virtual void wave_ends() = 0;
    virtual void run_begins(std::uint32_t block) = 0;
    virtual void run_ends(std::uint32_t block, bool has_failed) = 0;
    /// In place of the two before, for a block that ran side by side with others.
    virtual void ran(const TimedRun& run) = 0;

protected:
    ~IRunProbe() = default;
};

class Crew;

/// Visits, in the order of the network, the blocks that something leads to, and runs those that
/// are due. Knows no loop, no file and no clock. Between two waves it is told what the next one
/// begins with. Costs what it visits, and allocates nothing.
class Wave {
    friend class Crew;  // does the visits, where a wave has one

public:
    /// @param network  arranged, with all inputs and outputs of its blocks in place; it and the
    ///                 others must outlive the wave
    Wave(const Network& network, IDescriptorPorts& descriptors, IWaveEvents& events);
    Wave(const Wave&) = delete;
    Wave& operator=(const Wave&) = delete;

    /// The block has descriptor ports, which take part from here on.
    void has_descriptors(std::uint32_t block);

    /// Makes the block due in the next wave: it asked for a run.
    void ask(std::uint32_t block);

    /// Has the block visited in the next wave: one of its descriptors is ready.
    void visit(std::uint32_t block);

    /// Has what the block left triggered outside of a wave taken over in the next one.
    void look_at_outputs(std::uint32_t block);

    /// Has what was put into the output of an entry taken over in the next wave.
    void note_entry(std::uint32_t entry) { note_output(outputs_[first_entry_ + entry]); }

    /// Tells a watcher of the values of an output of a block; several may watch one.
    /// @param watcher  must outlive all waves to come
    void watch(std::uint32_t block, const OutPortInternal& output, ITriggerWatcher& watcher,
               std::uint32_t tag);

    /// Whether a wave would have nothing to do.
    bool is_idle() const { return visits_.is_empty() && triggered_end_ == triggered_.data(); }

    /// Visits and runs blocks. Afterwards ports are still as their blocks left them.
    /// @return false when a block failed that does not skip failures: the wave has ended there
    bool run();

    /// Resets the ports of what the wave visited and triggered. Ends each wave.
    /// @return false when a port of a block threw that does not skip failures
    bool reset();

    /// Calls `see` with each output that stands triggered and that the next reset() concerns.
    template <class See>
    void for_triggered(const See& see) const
    {
        for (Output* const* at = triggered_.data(); at != triggered_end_; ++at) {
            const OutPortInternal& output = *(*at)->port;
            if (output.is_triggered()) {
                see(output);
            }
        }
    }

    void set_probe(IRunProbe* probe) { probe_ = probe; }

    std::uint64_t waves() const { return waves_; }
    /// How often the block was run; runs that failed count.
    std::uint64_t runs(std::uint32_t block) const { return slots_[block].runs; }
    std::uint64_t failures(std::uint32_t block) const { return slots_[block].failures; }
    bool is_done(std::uint32_t block) const { return slots_[block].is_done; }

private:
    /// A connection of which the reader takes trigger and value over.
    struct Take {
        InPortInternal* input;
        OutPortInternal* output;
    };
    struct Output {
        OutPortInternal* port;
        const std::uint32_t* readers;  // the first of them; the last lies before those of the next
        bool is_noted;                 // among those that are triggered
        bool is_watched;
    };
    struct Watch {
        const OutPortInternal* output;
        ITriggerWatcher* watcher;
        std::uint32_t tag;
    };
    /// A block, and where what belongs to it begins; it ends where that of the next one begins.
    /// What a visit needs lies in one line of the cache.
    struct alignas(64) Slot {
        Block* block;
        const char* path;
        const Take* takes;
        Output* outputs;
        std::uint32_t first_delayed;
        std::uint32_t first_loose;
        bool is_asked;
        bool is_done;
        bool has_descriptors;
        bool is_special;  // has more than connected inputs to look at
        bool skips_failures;
        std::uint64_t runs;
        std::uint64_t failures;
    };
    class Builder;

    std::uint32_t number_of(const Slot& slot) const
    {
        return static_cast<std::uint32_t>(&slot - slots_.data());
    }
    static constexpr const char* kOperation = "run";

    bool run_with_crew();
    bool visit(Slot& slot);
    bool visit_block(Slot& slot, Context& present);
    void drop_visits();
    bool is_due(const Slot& slot);
    bool take_over(const Slot& slot);
    bool take_over_rest(const Slot& slot);
    void run_block(Slot& slot);
    bool run_probed(const Slot& slot);
    bool run_uncounted(Slot& slot);
    void end_block(Slot& slot);
    bool contain_failure(Slot& slot, const std::string& text);
    static void drop_outputs(Slot& slot);
    bool tell_failure(Slot& slot, const std::string& text);
    void note_outputs(const Slot& slot);
    void list_outputs(const Slot& slot);
    void note_output(Output& output);
    void tell_watchers();
    void reset_inputs(const Slot& slot);
    void forget_visit(const Slot& slot);
    void reset_outputs();

    IDescriptorPorts& descriptors_;
    IWaveEvents& events_;
    IRunProbe* probe_ = nullptr;
    Crew* crew_ = nullptr;
    std::uint64_t waves_ = 0;
    Bitset visits_;
    // All in the order of the run, side by side in memory.
    std::vector<Slot> slots_;  // and one that ends the last
    std::vector<Take> takes_;
    std::vector<Take> delayed_;
    std::vector<InPortInternal*> loose_;  // inputs that nothing feeds
    std::vector<Output> outputs_;         // then those of entries, and one that ends the last
    std::size_t first_entry_ = 0;         // among the outputs
    std::vector<Watch> watches_;          // by output
    std::vector<std::uint32_t> readers_;
    // Of the present wave, with room for all, and where they end.
    std::vector<Slot*> visited_;
    Slot** visited_end_ = nullptr;
    std::vector<Output*> triggered_;
    Output** triggered_end_ = nullptr;
};

/// The text of the exception in hand: what() of a std::exception, else "an unknown exception".
std::string text_of_present_exception();

}  // namespace Quorval::runtime
