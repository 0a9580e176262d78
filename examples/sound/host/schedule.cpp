#include "schedule.h"

#include <algorithm>
#include <set>
#include <stdexcept>
#include <string>
#include <utility>

namespace host {

using Quorval::Block;

namespace {

std::string describe(const Block& block, const Quorval::Port& port)
{
    return block.get_name() + "." + port.get_name() + " (" + port.get_datatype().get_name() + ")";
}

}  // namespace

Schedule::Schedule(Quorval::Container& graph)
{
    for (Block* block : graph.get_blocks()) {
        Step step{block, {}, {}, block->get_fdports()};
        for (const auto& [name, type] : block->get_outports_info()) {
            step.outputs.push_back(&block->get_outport(name).second);
        }
        steps_.push_back(std::move(step));
    }
    for (const Quorval::Connection& connection : graph.get_connections()) {
        const Block* destination = &std::get<2>(connection);
        const auto step = std::find_if(steps_.begin(), steps_.end(), [&](const Step& candidate) {
            return candidate.block == destination;
        });
        if (step == steps_.end()) {
            throw std::runtime_error("a connection leads out of the graph to " +
                                     destination->get_name());
        }
        step->inputs.push_back(wire(connection));
    }
    sort();
}

Schedule::Link Schedule::wire(const Quorval::Connection& connection)
{
    const auto& [source, outport, destination, inport] = connection;
    Quorval::OutPortInternal& from = source.get_outport(outport).second;
    Quorval::InPortInternal& to = *destination.get_inport(inport).front().second.get_connectable();
    if (!to.get_datatype().is_assignable_from(from.get_datatype())) {
        throw std::runtime_error(describe(source, from) + " does not fit " +
                                 describe(destination, to));
    }
    return {&source, from, to};
}

/// Moves each step behind those that it depends on, and leaves the order alone otherwise.
void Schedule::sort()
{
    std::vector<Step> sorted;
    std::set<const Block*> done;
    while (!steps_.empty()) {
        const auto next = std::find_if(steps_.begin(), steps_.end(), [&](const Step& step) {
            return std::all_of(step.inputs.begin(), step.inputs.end(),
                               [&](const Link& link) { return done.count(link.source) > 0; });
        });
        if (next == steps_.end()) {
            throw std::runtime_error("the connections make a circle");
        }
        done.insert(next->block);
        sorted.push_back(std::move(*next));
        steps_.erase(next);
    }
    steps_ = std::move(sorted);
}

std::vector<Block*> Schedule::blocks() const
{
    std::vector<Block*> blocks;
    for (const Step& step : steps_) {
        blocks.push_back(step.block);
    }
    return blocks;
}

bool Schedule::is_due() const
{
    return std::any_of(steps_.begin(), steps_.end(), [](const Step& step) {
        return std::any_of(step.fdports.begin(), step.fdports.end(),
                           [](const auto* port) { return port->is_triggered(); });
    });
}

bool Schedule::run()
{
    bool goes_on = true;
    for (const Step& step : steps_) {
        for (const Link& link : step.inputs) {
            link.to.update(link.from);
        }
        if (is_triggered(step) && !step.block->run()) {
            goes_on = false;
        }
    }
    for (const Step& step : steps_) {
        reset(step);
    }
    return goes_on;
}

bool Schedule::is_triggered(const Step& step)
{
    return std::any_of(step.inputs.begin(), step.inputs.end(),
                       [](const Link& link) { return link.to.is_triggered(); }) ||
           std::any_of(step.fdports.begin(), step.fdports.end(),
                       [](const auto* port) { return port->is_triggered(); });
}

void Schedule::reset(const Step& step)
{
    step.block->reset_inports(false);
    step.block->reset_fdports(false);
    for (Quorval::OutPortInternal* output : step.outputs) {
        output->reset(false);
    }
}

}  // namespace host
