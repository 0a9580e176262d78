#include "schedule/wave.h"

#include "schedule/probes.h"

#include <algorithm>
#include <exception>
#include <unordered_map>
#include <unordered_set>

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
        wave_.takes_.reserve(network_.wires.size());
        for (const Node& node : network_.nodes) {
            add_slot(node.block, node.path.c_str(), node.skips_failures);
            add_inputs(*node.block);
            add_outputs(*node.block);
        }
        add_slot(nullptr, nullptr, false);
        wave_.first_entry_ = wave_.outputs_.size();
        for (const Entry& entry : network_.entries) {
            add_output(*entry.output);
        }
        wave_.outputs_.push_back({nullptr, 0, false, false});
        add_readers();
    }

private:
    void add_slot(Block* block, const char* path, bool skips_failures)
    {
        wave_.slots_.push_back({block, path, size_of(wave_.takes_), size_of(wave_.delayed_),
                                size_of(wave_.loose_), size_of(wave_.outputs_), false, false, false,
                                false, skips_failures, 0});
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
                InPortInternal* input = port.get_connectable();
                if (fed.insert(input).second) {
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
        wave_.outputs_.push_back({&output, 0, false, false});
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
        std::uint32_t count = 0;
        for_each_reader([&](std::uint32_t output, std::uint32_t /*reader*/) {
            ++outputs[output].first_reader;
            ++count;
        });
        wave_.readers_.resize(count);
        for (auto output = outputs.rbegin(); output != outputs.rend(); ++output) {
            output->first_reader = count -= output->first_reader;
        }
        std::vector<std::uint32_t> next;
        next.reserve(outputs.size());
        for (const Output& output : outputs) {
            next.push_back(output.first_reader);
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
    std::unordered_map<const OutPortInternal*, std::uint32_t> number_;
};

Wave::Wave(const Network& network, IDescriptorPorts& descriptors, IWaveEvents& events)
    : descriptors_(descriptors), events_(events), visits_(network.nodes.size())
{
    Builder(network, *this).build();
    failures_.resize(network.nodes.size());
    visited_.resize(network.nodes.size());
    triggered_.resize(outputs_.size());
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
    note_outputs(block);
}

void Wave::watch(std::uint32_t block, const OutPortInternal& output, ITriggerWatcher& watcher,
                 std::uint32_t tag)
{
    for (std::uint32_t at = slots_[block].first_output; at < slots_[block + 1].first_output; ++at) {
        outputs_[at].is_watched = outputs_[at].is_watched || outputs_[at].port == &output;
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
    Context& present = context();
    for (std::uint32_t block = 0; visits_.take_lowest(block);) {
        if (!slots_[block].is_done && !visit_block(block, present)) {
            drop_visits();
            return false;
        }
    }
    return true;
}

void Wave::drop_visits()
{
    for (std::uint32_t block = 0; visits_.take_lowest(block);) {
        slots_[block].is_asked = false;
    }
}

bool Wave::visit_block(std::uint32_t block, Context& present)
{
    visited_[visited_count_++] = block;
    Slot& slot = slots_[block];
    present = {slot.path, "run"};
    bool is_due = false;
    try {
        is_due = take_over(slot, *(&slot + 1), block);
        if (is_due) {
            probe_run_begin(slot.path);
            run_block(slot, block);
            probe_run_end(slot.path, 0);
        }
    } catch (...) {
        if (is_due) {
            probe_run_end(slot.path, 1);
        }
        return contain_failure(block, text_of_present_exception());
    }
    return true;
}

/// @return whether the block is due
bool Wave::take_over(const Slot& slot, const Slot& end, std::uint32_t block)
{
    bool is_due = slot.is_asked;
    const Take* const last = takes_.data() + end.first_take;
    for (const Take* take = takes_.data() + slot.first_take; take != last; ++take) {
        take->input->update(*take->output);
        is_due = is_due || take->input->is_triggered();
    }
    return slot.is_special ? take_over_rest(slot, end, block) || is_due : is_due;
}

/// What few blocks have: delayed connections, inputs that nothing feeds, descriptors.
bool Wave::take_over_rest(const Slot& slot, const Slot& end, std::uint32_t block)
{
    bool is_due = slot.has_descriptors && descriptors_.is_triggered(block);
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

void Wave::run_block(Slot& slot, std::uint32_t block)
{
    slot.is_asked = false;
    ++slot.runs;
    if (slot.has_descriptors) {
        descriptors_.before_run(block);
    }
    const bool is_done = !(probe_ == nullptr ? slot.block->run() : run_probed(slot, block));
    note_outputs(block);
    if (slot.has_descriptors) {
        descriptors_.after_run(block);
    }
    if (is_done) {
        slot.is_done = true;
        events_.block_is_done(block);
    }
}

bool Wave::run_probed(const Slot& slot, std::uint32_t block)
{
    probe_->run_begins(block);
    try {
        const bool goes_on = slot.block->run();
        probe_->run_ends(block, false);
        return goes_on;
    } catch (...) {
        probe_->run_ends(block, true);
        throw;
    }
}

bool Wave::contain_failure(std::uint32_t block, const std::string& text)
{
    Slot& slot = slots_[block];
    slot.is_asked = false;
    ++failures_[block];
    for (std::uint32_t at = slot.first_output; at < slots_[block + 1].first_output; ++at) {
        outputs_[at].port->reset(true);
    }
    const ContextScope scope(nullptr, nullptr);
    events_.block_failed(block, text);
    return slot.skips_failures;
}

void Wave::note_outputs(std::uint32_t block)
{
    const Output* const last = outputs_.data() + slots_[block + 1].first_output;
    for (Output* output = outputs_.data() + slots_[block].first_output; output != last; ++output) {
        if (!output->is_noted && output->port->is_triggered()) {
            note_output(*output);
        }
    }
}

void Wave::note_output(Output& output)
{
    output.is_noted = true;
    triggered_[triggered_count_++] = &output;
    const std::uint32_t* const last = readers_.data() + (&output + 1)->first_reader;
    for (const std::uint32_t* reader = readers_.data() + output.first_reader; reader != last;
         ++reader) {
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
    for (std::size_t at = 0; at < visited_count_; ++at) {
        const std::uint32_t block = visited_[at];
        present = {slots_[block].path, "run"};
        try {
            reset_inputs(block);
        } catch (...) {
            is_well = contain_failure(block, text_of_present_exception()) && is_well;
        }
    }
    visited_count_ = 0;
    reset_outputs();
    if (probe_ != nullptr) {
        probe_->wave_ends();
    }
    probe_wave_end();
    return is_well;
}

void Wave::tell_watchers()
{
    for (std::size_t at = 0; at < triggered_count_; ++at) {
        const OutPortInternal* port = triggered_[at]->port;
        if (!triggered_[at]->is_watched || !port->is_triggered()) {
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

void Wave::reset_inputs(std::uint32_t block)
{
    const Slot& slot = slots_[block];
    slot.block->reset_inports(false);
    if (slot.has_descriptors) {
        descriptors_.reset(block);
    }
}

void Wave::reset_outputs()
{
    for (std::size_t at = 0; at < triggered_count_; ++at) {
        triggered_[at]->port->reset(false);
        triggered_[at]->is_noted = false;
    }
    triggered_count_ = 0;
}

}  // namespace Quorval::runtime
