#include "schedule/wave.h"

#include "schedule/crew.h"
#include "schedule/probes.h"

#include <algorithm>
#include <exception>
#include <unordered_map>
#include <unordered_set>
#include <utility>

namespace Quorval::runtime {

namespace {

/// Shows the value of an output without its trigger.
class Untriggered : public OutPortInternal {
public:
    explicit Untriggered(const OutPortInternal& output)
        : OutPortInternal(std::string(), Datatype(std::string()))
    {
        data_ = output.get_data();
    }
};

std::vector<std::string> sorted_names(const std::unordered_map<std::string, Datatype>& ports)
{
    std::vector<std::string> names;
    names.reserve(ports.size());
    for (const auto& port : ports) {
        names.push_back(port.first);
    }
    std::sort(names.begin(), names.end());
    return names;
}

}  // namespace

std::string text_of_present_exception()
{
    try {
        throw;
    } catch (const std::exception& error) {
        const char* text = error.what();
        return text != nullptr && *text != '\0' ? text : "an exception without a text";
    } catch (...) {
        return "an unknown exception";
    }
}

/// Lays a network out.
class Wave::Builder {
public:
    Builder(const Network& network, Wave& wave) : network_(network), wave_(wave) {}

    void build()
    {
        wave_.slots_.reserve(network_.nodes.size() + 1);
        wave_.takes_.reserve(network_.wires.size() + network_.entry_wires.size());
        for (const Node& node : network_.nodes) {
            const ContextScope scope(node.path.c_str(), "connect");
            add_slot(node.block, node.path.c_str(), node.skips_failures);
            add_inputs(*node.block);
            add_outputs(*node.block);
        }
        add_slot(nullptr, nullptr, false);
        wave_.first_entry_ = wave_.outputs_.size();
        for (const Entry& entry : network_.entries) {
            add_output(*entry.output);
        }
        wave_.outputs_.push_back({nullptr, nullptr, false, false});
        for (std::size_t slot = 0; slot < wave_.slots_.size(); ++slot) {
            wave_.slots_[slot].takes = wave_.takes_.data() + first_take_[slot];
            wave_.slots_[slot].outputs = wave_.outputs_.data() + first_output_[slot];
        }
        add_readers();
    }

private:
    void add_slot(Block* block, const char* path, bool skips_failures)
    {
        first_take_.push_back(size_of(wave_.takes_));
        first_output_.push_back(size_of(wave_.outputs_));
        Slot& slot = wave_.slots_.emplace_back();
        slot.block = block;
        slot.path = path;
        slot.first_delayed = size_of(wave_.delayed_);
        slot.first_loose = size_of(wave_.loose_);
        slot.skips_failures = skips_failures;
    }

    void add_inputs(Block& block)
    {
        const auto reader = size_of(wave_.slots_) - 1;
        std::unordered_set<const InPortInternal*> fed;
        for (; wire_ < network_.wires.size() && network_.wires[wire_].to == reader; ++wire_) {
            const Wire& wire = network_.wires[wire_];
            (wire.is_delayed ? wave_.delayed_ : wave_.takes_).push_back({wire.input, wire.output});
            fed.insert(wire.input);
        }
        for (; entry_wire_ < network_.entry_wires.size() &&
               network_.entry_wires[entry_wire_].to == reader;
             ++entry_wire_) {
            const EntryWire& wire = network_.entry_wires[entry_wire_];
            (wire.is_delayed ? wave_.delayed_ : wave_.takes_)
                .push_back({wire.input, network_.entries[wire.entry].output.get()});
            fed.insert(wire.input);
        }
        for (const std::string& name : sorted_names(block.get_inports_info())) {
            for (const auto& [owner, port] : block.get_inport(name)) {
                InPortInternal* input = connectable(port);
                if (input != nullptr && fed.insert(input).second) {
                    wave_.loose_.push_back(input);
                }
            }
        }
        Slot& slot = wave_.slots_.back();
        slot.is_special = size_of(wave_.delayed_) > slot.first_delayed ||
                          size_of(wave_.loose_) > slot.first_loose;
    }

    void add_outputs(const Block& block)
    {
        for (const std::string& name : sorted_names(block.get_outports_info())) {
            add_output(block.get_outport(name).second);
        }
    }

    void add_output(OutPortInternal& output)
    {
        number_[&output] = size_of(wave_.outputs_);
        wave_.outputs_.push_back({&output, nullptr, false, false});
    }

    /// Calls `use` with the output and the reader of each connection that triggers.
    template <class Use>
    void for_each_reader(const Use& use)
    {
        for (const Wire& wire : network_.wires) {
            if (!wire.is_delayed) {
                use(number_.at(wire.output), wire.to);
            }
        }
        for (const EntryWire& wire : network_.entry_wires) {
            if (!wire.is_delayed) {
                use(number_.at(network_.entries[wire.entry].output.get()), wire.to);
            }
        }
    }

    /// Counts the readers of each output, then puts them where the counts say.
    void add_readers()
    {
        std::vector<Output>& outputs = wave_.outputs_;
        std::vector<std::uint32_t> next(outputs.size());
        for_each_reader([&](std::uint32_t output, std::uint32_t /*reader*/) { ++next[output]; });
        std::uint32_t count = 0;
        for (std::uint32_t& one : next) {
            count += std::exchange(one, count);
        }
        wave_.readers_.resize(count);
        for (std::size_t output = 0; output < outputs.size(); ++output) {
            outputs[output].readers = wave_.readers_.data() + next[output];
        }
        for_each_reader([&](std::uint32_t output, std::uint32_t reader) {
            wave_.readers_[next[output]++] = reader;
        });
    }

    template <class Records>
    static std::uint32_t size_of(const Records& records)
    {
        return static_cast<std::uint32_t>(records.size());
    }

    const Network& network_;
    Wave& wave_;
    std::size_t wire_ = 0;
    std::size_t entry_wire_ = 0;
    std::vector<std::uint32_t> first_take_;  // by slot
    std::vector<std::uint32_t> first_output_;
    std::unordered_map<const OutPortInternal*, std::uint32_t> number_;
};

Wave::Wave(const Network& network, IDescriptorPorts& descriptors, IWaveEvents& events)
    : descriptors_(descriptors),
      events_(events),
      visits_(network.nodes.size()),
      visited_(network.nodes.size()),
      visited_end_(visited_.data())
{
    Builder(network, *this).build();
    triggered_.resize(outputs_.size());
    triggered_end_ = triggered_.data();  // NOLINT(cppcoreguidelines-prefer-member-initializer)
}

void Wave::has_descriptors(std::uint32_t block)
{
    slots_[block].has_descriptors = true;
    slots_[block].is_special = true;
}

void Wave::ask(std::uint32_t block)
{
    slots_[block].is_asked = true;
    visits_.insert(block);
}

void Wave::visit(std::uint32_t block)
{
    visits_.insert(block);
}

void Wave::look_at_outputs(std::uint32_t block)
{
    note_outputs(slots_[block]);
}

void Wave::watch(std::uint32_t block, const OutPortInternal& output, ITriggerWatcher& watcher,
                 std::uint32_t tag)
{
    for (Output* one = slots_[block].outputs; one != slots_[block + 1].outputs; ++one) {
        one->is_watched = one->is_watched || one->port == &output;
    }
    const auto place = std::upper_bound(
        watches_.begin(), watches_.end(), &output,
        [](const OutPortInternal* port, const Watch& watch) { return port < watch.output; });
    watches_.insert(place, {&output, &watcher, tag});
}

bool Wave::run()
{
    ++waves_;
    probe_wave_begin();
    if (probe_ != nullptr) {
        probe_->wave_begins();
    }
    const ContextScope scope(nullptr, nullptr);
    if (crew_ != nullptr) {
        return run_with_crew();
    }
    Context& present = context();
    for (std::uint32_t block = 0; visits_.take_lowest(block);) {
        if (!slots_[block].is_done && !visit_block(slots_[block], present)) {
            drop_visits();
            return false;
        }
    }
    return true;
}

bool Wave::run_with_crew()
{
    Context& present = context();
    bool is_well = true;
    for (std::uint32_t block = 0; is_well && visits_.take_lowest(block);) {
        Slot& slot = slots_[block];
        if (slot.runs >= crew_->next_look(block)) {
            is_well = crew_->look(block);
        } else if (!slot.is_done) {
            is_well = visit_block(slot, present);
        }
    }
    if (!is_well) {
        drop_visits();
    }
    crew_->end_wave();
    return is_well;
}

void Wave::drop_visits()
{
    for (std::uint32_t block = 0; visits_.take_lowest(block);) {
        slots_[block].is_asked = false;
    }
}

bool Wave::visit(Slot& slot)
{
    return visit_block(slot, context());
}

[[gnu::always_inline]] inline bool Wave::visit_block(Slot& slot, Context& present)
{
    *visited_end_++ = &slot;
    present.path = slot.path;
    present.operation = kOperation;
    bool is_due = false;
    try {
        is_due = take_over(slot);
        if (is_due) {
            probe_run_begin(slot.path);
            run_block(slot);
            probe_run_end(slot.path, 0);
        }
    } catch (...) {
        if (is_due) {
            probe_run_end(slot.path, 1);
        }
        return contain_failure(slot, text_of_present_exception());
    }
    return true;
}

/// Takes the inputs over.
bool Wave::is_due(const Slot& slot)
{
    return take_over(slot);
}

/// @return whether the block is due
[[gnu::always_inline]] inline bool Wave::take_over(const Slot& slot)
{
    bool is_due = slot.is_asked;
    const Take* const last = (&slot + 1)->takes;
    for (const Take* take = slot.takes; take != last; ++take) {
        take->input->update(*take->output);
        is_due = is_due || take->input->is_triggered();
    }
    return slot.is_special ? take_over_rest(slot) || is_due : is_due;
}

/// What few blocks have: delayed connections, inputs that nothing feeds, descriptors.
bool Wave::take_over_rest(const Slot& slot)
{
    const Slot& end = *(&slot + 1);
    bool is_due = slot.has_descriptors && descriptors_.is_triggered(number_of(slot));
    for (std::uint32_t at = slot.first_delayed; at < end.first_delayed; ++at) {
        const Take& take = delayed_[at];
        if (take.output->is_triggered()) {
            // Triggered outside of a wave.
            Untriggered value(*take.output);
            take.input->update(value);
        } else {
            take.input->update(*take.output);
        }
        is_due = is_due || take.input->is_triggered();
    }
    for (std::uint32_t at = slot.first_loose; at < end.first_loose; ++at) {
        is_due = is_due || loose_[at]->is_triggered();
    }
    return is_due;
}

inline void Wave::run_block(Slot& slot)
{
    slot.is_asked = false;
    ++slot.runs;
    if (slot.has_descriptors) {
        descriptors_.before_run(number_of(slot));
    }
    const bool goes_on = probe_ == nullptr ? slot.block->run() : run_probed(slot);
    note_outputs(slot);
    if (slot.has_descriptors) {
        descriptors_.after_run(number_of(slot));
    }
    if (!goes_on) {
        end_block(slot);
    }
}

bool Wave::run_probed(const Slot& slot)
{
    probe_->run_begins(number_of(slot));
    try {
        const bool goes_on = slot.block->run();
        probe_->run_ends(number_of(slot), false);
        return goes_on;
    } catch (...) {
        probe_->run_ends(number_of(slot), true);
        throw;
    }
}

/// A run of which the outcome is looked at elsewhere.
bool Wave::run_uncounted(Slot& slot)
{
    slot.is_asked = false;
    if (slot.has_descriptors) {
        descriptors_.before_run(number_of(slot));
    }
    const bool goes_on = slot.block->run();
    if (slot.has_descriptors) {
        descriptors_.after_run(number_of(slot));
    }
    return goes_on;
}

void Wave::end_block(Slot& slot)
{
    slot.is_done = true;
    events_.block_is_done(number_of(slot));
}

bool Wave::contain_failure(Slot& slot, const std::string& text)
{
    drop_outputs(slot);
    return tell_failure(slot, text);
}

void Wave::drop_outputs(Slot& slot)
{
    slot.is_asked = false;
    for (const Output* output = slot.outputs; output != (&slot + 1)->outputs; ++output) {
        output->port->reset(true);
    }
}

bool Wave::tell_failure(Slot& slot, const std::string& text)
{
    ++slot.failures;
    const ContextScope scope(nullptr, nullptr);
    events_.block_failed(number_of(slot), text);
    return slot.skips_failures;
}

inline void Wave::note_outputs(const Slot& slot)
{
    const Output* const last = (&slot + 1)->outputs;
    for (Output* output = slot.outputs; output != last; ++output) {
        if (!output->is_noted && output->port->is_triggered()) {
            note_output(*output);
        }
    }
}

/// Those that are triggered now, whose readers were visited already.
void Wave::list_outputs(const Slot& slot)
{
    for (Output* output = slot.outputs; output != (&slot + 1)->outputs; ++output) {
        if (!output->is_noted && output->port->is_triggered()) {
            output->is_noted = true;
            *triggered_end_++ = output;
        }
    }
}

void Wave::note_output(Output& output)
{
    output.is_noted = true;
    *triggered_end_++ = &output;
    const std::uint32_t* const last = (&output + 1)->readers;
    for (const std::uint32_t* reader = output.readers; reader != last; ++reader) {
        visits_.insert(*reader);
    }
}

bool Wave::reset()
{
    bool is_well = true;
    const ContextScope scope(nullptr, nullptr);
    if (!watches_.empty()) {
        tell_watchers();
    }
    Context& present = context();
    for (Slot* const* at = visited_.data(); at != visited_end_; ++at) {
        Slot& slot = **at;
        present.path = slot.path;
        present.operation = kOperation;
        try {
            reset_inputs(slot);
        } catch (...) {
            is_well = contain_failure(slot, text_of_present_exception()) && is_well;
        }
    }
    visited_end_ = visited_.data();
    reset_outputs();
    if (probe_ != nullptr) {
        probe_->wave_ends();
    }
    probe_wave_end();
    return is_well;
}

void Wave::tell_watchers()
{
    for (Output* const* at = triggered_.data(); at != triggered_end_; ++at) {
        const OutPortInternal* port = (*at)->port;
        if (!(*at)->is_watched || !port->is_triggered()) {
            continue;
        }
        auto watch = std::lower_bound(
            watches_.begin(), watches_.end(), port,
            [](const Watch& one, const OutPortInternal* wanted) { return one.output < wanted; });
        for (; watch != watches_.end() && watch->output == port; ++watch) {
            watch->watcher->has_value(watch->tag);
        }
    }
}

inline void Wave::reset_inputs(const Slot& slot)
{
    slot.block->reset_inports(false);
    if (slot.has_descriptors) {
        descriptors_.reset(number_of(slot));
    }
}

/// Leaves nothing to be seen of a visit, as far as that can be had.
void Wave::forget_visit(const Slot& slot)
{
    try {
        for (const Output* output = slot.outputs; output != (&slot + 1)->outputs; ++output) {
            if (!output->is_noted) {
                output->port->reset(true);
            }
        }
        reset_inputs(slot);
    } catch (...) {
        return;  // nobody would have heard of the block
    }
}

void Wave::reset_outputs()
{
    for (Output* const* at = triggered_.data(); at != triggered_end_; ++at) {
        (*at)->port->reset(false);
        (*at)->is_noted = false;
    }
    triggered_end_ = triggered_.data();
}

}  // namespace Quorval::runtime
