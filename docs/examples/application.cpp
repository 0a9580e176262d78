// The application of the page on writing an application: `application STORE_DIRECTORY`.
#include <quorval/fdevent.h>
#include <quorval/log.h>
#include <quorval/pluginloader.h>
#include <quorval/superblock.h>
#include "tools.h"

#include <poll.h>

#include <algorithm>
#include <exception>
#include <iostream>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

using namespace Quorval;

class StandardErrorSink : public LogInstance {
public:
    void emit(loglevel level, const char* text, int length) override
    {
        std::cerr << '<' << level << "> ";
        std::cerr.write(text, length);
        if (length == 0 || text[length - 1] != '\n') {
            std::cerr << '\n';
        }
    }
};

/// An event loop around poll(2).
class Loop final : public FDEvent::IFDEventUpdater {
public:
    void watch(FdPort& port)
    {
        const auto trigger = [&port](bool readable, bool writable) {
            port.trigger(readable, writable);
        };
        port.set_event(
            std::make_unique<FDEvent>(port.get_fd(), port.get_eventmask(), trigger, *this));
        events_.push_back(port.get_event());
    }

    /// Looks at all descriptors once.
    void dispatch()
    {
        std::vector<pollfd> descriptors;
        for (const FDEvent* event : events_) {
            const FDEvent::EventMask mask = event->get_mask();
            const int interest = (mask.readable ? POLLIN : 0) | (mask.writable ? POLLOUT : 0);
            descriptors.push_back({event->get_fd(), static_cast<short>(interest), 0});
        }
        ::poll(descriptors.data(), descriptors.size(), 0);
        for (std::size_t i = 0; i < descriptors.size(); ++i) {
            const int seen = descriptors[i].revents;
            if (seen != 0) {
                events_[i]->get_callback()((seen & POLLIN) != 0, (seen & POLLOUT) != 0);
            }
        }
    }

    // Nothing is kept that a change could make wrong: dispatch() asks the events each time.
    void update_fd(FDEvent& /*event*/, int /*new_fd*/) override {}
    void update_mask(FDEvent& /*event*/, FDEvent::EventMask /*new_mask*/) override {}

    void remove(FDEvent& event) override
    {
        events_.erase(std::find(events_.begin(), events_.end(), &event));
    }

private:
    std::vector<FDEvent*> events_;
};

void connect(Superblock& graph, const Container& from, const std::string& outport,
             const Container& to, const std::string& inport)
{
    const Datatype& given = from.get_outport(outport).second.get_datatype();
    for (const auto& [block, port] : to.get_inport(inport)) {
        if (!port.get_datatype().is_assignable_from(given)) {
            throw std::runtime_error("cannot connect " + outport + " to " + inport);
        }
    }
    graph.add_connection(from, outport, to, inport);
}

/// The blocks, each behind those that it gets data from.
std::vector<Block*> sort_by_flow(std::vector<Block*> blocks,
                                 const std::vector<Connection>& connections)
{
    std::vector<Block*> sorted;
    while (!blocks.empty()) {
        const auto is_waiting = [&](Block* block) {
            return std::any_of(
                connections.begin(), connections.end(), [&](const Connection& connection) {
                    return &std::get<2>(connection) == block &&
                           std::find(blocks.begin(), blocks.end(), &std::get<0>(connection)) !=
                               blocks.end();
                });
        };
        const auto next = std::find_if_not(blocks.begin(), blocks.end(), is_waiting);
        if (next == blocks.end()) {
            throw std::runtime_error("the graph has a cycle");
        }
        sorted.push_back(*next);
        blocks.erase(next);
    }
    return sorted;
}

/// A connection with its look-ups done.
struct Wire {
    const Block* from;
    OutPortInternal* source;
    InPortInternal* destination;
};

std::vector<Wire> find_wires(const std::vector<Connection>& connections)
{
    std::vector<Wire> wires;
    wires.reserve(connections.size());
    for (const auto& [from, outport, to, inport] : connections) {
        wires.push_back({&from, &from.get_outport(outport).second,
                         to.get_inport(inport).front().second.get_connectable()});
    }
    return wires;
}

/// One step of the whole graph.
void run_once(const std::vector<Block*>& blocks, const std::vector<Wire>& wires)
{
    for (Block* block : blocks) {
        block->run();
        for (const Wire& wire : wires) {
            if (wire.from == block) {
                wire.destination->update(*wire.source);
            }
        }
    }
    for (Block* block : blocks) {
        block->reset_inports(false);
        block->reset_fdports(false);
        for (const auto& [name, type] : block->get_outports_info()) {
            block->get_outport(name).second.reset(false);
        }
    }
}

void run(const std::string& store)
{
    loginstance = std::make_unique<StandardErrorSink>();
    const InitTools init_tools{};
    const auto runtime_tools = std::make_shared<RuntimeTools>();
    runtime_tools->report = [](const std::string& text) { std::cout << text << '\n'; };

    const PluginLoader loader("follower.so", init_tools);
    Loop loop;  // before the blocks, whose registrations it has to outlive
    Superblock graph("graph");
    Container& quick =
        graph.add_block(loader.create("Follower", {{"pstore_path", store + "/quick/"}}, "quick"));
    Container& slow = graph.add_block(loader.create("Follower", {{"weight", 0.25}}, "slow"));
    connect(graph, quick, "out", slow, "in");
    graph.add_inport("in", quick, "in");
    graph.add_outport("out", slow, "out");

    const std::vector<Connection> connections = graph.get_connections();
    const std::vector<Block*> blocks = sort_by_flow(graph.get_blocks(), connections);
    const std::vector<Wire> wires = find_wires(connections);
    for (Block* block : blocks) {
        block->set_tools(runtime_tools);
        for (FdPort* port : block->get_fdports()) {
            loop.watch(*port);
        }
        block->start();
    }

    OutPort<double> source("source", Datatype("double"));
    const OutPortInternal& out = graph.get_outport("out").second;
    for (const double sample : {8.0, 8.0, 8.0}) {
        source.write(sample);
        for (const auto& [block, port] : graph.get_inport("in")) {
            port.get_connectable()->update(source);
        }
        loop.dispatch();
        run_once(blocks, wires);
        std::cout << "out " << *static_cast<const double*>(out.get_data()) << '\n';
    }

    blocks.back()->override_config({{"weight", 1.0}});
    static_cast<EventPort*>(blocks.back()->get_fdport("restart"))->fire();
    loop.dispatch();
    run_once(blocks, wires);
    std::cout << "after the restart " << *static_cast<const double*>(out.get_data()) << '\n';

    for (Block* block : blocks) {
        block->stop();
    }
}

}  // namespace

int main(int argc, char** argv)
{
    if (argc != 2) {
        std::cerr << "usage: application STORE_DIRECTORY\n";
        return 2;
    }
    try {
        run(argv[1]);
        return 0;
    } catch (const std::exception& error) {
        std::cerr << error.what() << '\n';
        return 1;
    }
}
