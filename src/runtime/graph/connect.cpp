#include "graph/connect.h"

#include "description/suggest.h"
#include "messages/context.h"
#include "plugins/plugin.h"
#include "schedule/order.h"

#include <algorithm>
#include <cstddef>
#include <exception>
#include <map>
#include <optional>
#include <stdexcept>
#include <string>
#include <tuple>
#include <unordered_map>
#include <unordered_set>
#include <utility>

namespace Quorval::runtime {

namespace {

/// A port of a plain block, null where that is elsewhere.
template <class PortType>
struct PortRef {
    std::uint32_t block = 0;
    PortType* port = nullptr;
    const std::string* name = nullptr;  // that the block keeps it under; of the description
};

using Input = PortRef<InPortInternal>;
using Output = PortRef<OutPortInternal>;

/// What stands behind the exposed ports of a superblock, without what is wrong, which is reported.
struct ExposedPorts {
    std::vector<std::vector<Input>> inputs;
    std::vector<std::optional<Output>> outputs;
};

std::vector<std::string> sorted_names(const std::unordered_map<std::string, Datatype>& ports)
{
    std::vector<std::string> names;
    names.reserve(ports.size());
    for (const auto& [name, type] : ports) {
        names.push_back(name);
    }
    std::sort(names.begin(), names.end());
    return names;
}

std::vector<std::string> names_of(const std::vector<ExposedDescription>& ports)
{
    std::vector<std::string> names;
    names.reserve(ports.size());
    for (const ExposedDescription& port : ports) {
        names.push_back(port.name);
    }
    return names;
}

/// "; did you mean '<near>'?", or "; it has <a>, <b>".
std::string advice(const std::string& name, const std::vector<std::string>& known)
{
    std::string near = suggestion(name, known);
    if (!near.empty()) {
        return near;
    }
    std::string list;
    for (const std::string& port : known) {
        list += (list.empty() ? "" : ", ") + port;
    }
    return "; it has " + (list.empty() ? "none" : list);
}

/// Where an exposed port stands in a list that is sorted by name, or the length of the list.
std::size_t find_port(const std::vector<ExposedDescription>& ports, const std::string& name)
{
    const auto at = std::lower_bound(ports.begin(), ports.end(), name,
                                     [](const ExposedDescription& port, const std::string& wanted) {
                                         return port.name < wanted;
                                     });
    const bool is_there = at != ports.end() && at->name == name;
    return static_cast<std::size_t>((is_there ? at : ports.end()) - ports.begin());
}

class Connector {
public:
    Connector(const Expansion& expansion, const Creation& made, const ConnectionRules& rules,
              Problems& problems)
        : expansion_(expansion),
          made_(made),
          rules_(rules),
          problems_(problems),
          exposed_(expansion.composites.size()),
          fed_counts_(expansion.blocks.size()),
          is_excused_(expansion.blocks.size())
    {
    }

    Network connect(std::vector<std::uint32_t>& order)
    {
        is_all_excused_ = std::any_of(
            expansion_.composites.begin(), expansion_.composites.end(),
            [](const Composite& composite) { return composite.inside->misses_connections; });
        // From the inside out: what is exposed leads to what is exposed further in.
        for (std::size_t i = expansion_.composites.size(); i-- > 0;) {
            expose(i);
        }
        const std::vector<Written> connections = connections_as_written();
        // Nearly always one wire for each.
        network_.wires.reserve(connections.size());
        places_.reserve(connections.size());
        sources_.reserve(connections.size());
        fed_by_.reserve(connections.size());
        for (const Written& written : connections) {
            connect(written);
        }
        warn_of_unfed_inputs();
        return arrange_network(order);
    }

private:
    /// A connection in its place.
    struct Written {
        const ConnectionDescription* connection;
        std::uint32_t composite;
    };

    // --- ends ---

    /// The member that an end names, nothing where there is none, which is reported.
    std::optional<MemberRef> find_member(std::size_t composite, const EndDescription& end)
    {
        const Composite& place = expansion_.composites[composite];
        if (end.member != kNoMember) {
            return place.members[end.member];
        }
        is_all_excused_ = true;
        if (!place.inside->is_broken && !end.block.empty()) {
            problems_.add_error(end.place,
                                "there is no block '" + end.block + "'" +
                                    suggester_.suggest(end.block, names_of_members(*place.inside)));
        }
        return std::nullopt;
    }

    const std::vector<std::string>& names_of_members(const CompositeDescription& inside)
    {
        const auto [names, is_new] = members_.try_emplace(&inside);
        if (is_new) {
            for (const MemberDescription& member : inside.members) {
                names->second.push_back(member.name);
            }
        }
        return names->second;
    }

    void report_no_port(const EndDescription& end, const char* kind, const std::string& path,
                        const std::vector<std::string>& known)
    {
        problems_.add_error(end.place, "block '" + path + "' has no " + kind + " '" + end.port +
                                           "'" + advice(end.port, known));
    }

    /// Not where the block may have it with the settings that are wrong.
    void report_no_plain_port(const EndDescription& end, const char* kind, std::uint32_t block,
                              const std::unordered_map<std::string, Datatype>& ports)
    {
        if (!expansion_.blocks[block].lacks_settings()) {
            report_no_port(end, kind, path_of(block), sorted_names(ports));
        }
    }

    const std::string& path_of(std::uint32_t block) const { return expansion_.blocks[block].path; }

    /// The inputs behind an end, without what is wrong, which is reported. To be used before the
    /// next call.
    const std::vector<Input>& find_inputs(std::size_t composite, const EndDescription& end)
    {
        found_.clear();
        const std::optional<MemberRef> member = find_member(composite, end);
        if (!member || member->kind == MemberRef::Kind::Nothing) {
            return found_;
        }
        if (member->kind == MemberRef::Kind::Plain) {
            find_plain_inputs(member->index, end);
            return found_;
        }
        const Composite& inner = expansion_.composites[member->index];
        const std::size_t at = find_port(inner.inside->inports, end.port);
        if (at == inner.inside->inports.size()) {
            is_all_excused_ = true;
            if (!inner.inside->is_broken) {
                report_no_port(end, "input", inner.path, names_of(inner.inside->inports));
            }
            return found_;
        }
        return exposed_[member->index].inputs[at];
    }

    void find_plain_inputs(std::uint32_t block, const EndDescription& end)
    {
        if (expansion_.blocks[block].is_elsewhere) {
            found_.push_back({block, nullptr, &end.port});
            return;
        }
        const Block* made = made_.blocks[block];
        if (made == nullptr) {
            return;
        }
        const ContextScope scope(path_of(block).c_str(), "connect");
        try {
            for (const auto& [owner, port] : made->Block::get_inport(end.port)) {
                found_.push_back({block, connectable(port), &end.port});
                if (found_.back().port == nullptr) {
                    throw std::out_of_range(end.port);
                }
            }
        } catch (const std::out_of_range&) {
            found_.clear();
            is_excused_[block] = true;
            auto ports = made->Block::get_inports_info();
            ports.erase(end.port);  // where it has one that leads nowhere
            report_no_plain_port(end, "input", block, ports);
        }
    }

    std::optional<Output> find_output(std::size_t composite, const EndDescription& end)
    {
        const std::optional<MemberRef> member = find_member(composite, end);
        if (!member || member->kind == MemberRef::Kind::Nothing) {
            return std::nullopt;
        }
        if (member->kind == MemberRef::Kind::Plain) {
            return find_plain_output(member->index, end);
        }
        const Composite& inner = expansion_.composites[member->index];
        const std::size_t at = find_port(inner.inside->outports, end.port);
        if (at == inner.inside->outports.size()) {
            if (!inner.inside->is_broken) {
                report_no_port(end, "output", inner.path, names_of(inner.inside->outports));
            }
            return std::nullopt;
        }
        return exposed_[member->index].outputs[at];
    }

    std::optional<Output> find_plain_output(std::uint32_t block, const EndDescription& end)
    {
        if (expansion_.blocks[block].is_elsewhere) {
            return Output{block, nullptr, &end.port};
        }
        const Block* made = made_.blocks[block];
        if (made == nullptr) {
            return std::nullopt;
        }
        const ContextScope scope(path_of(block).c_str(), "connect");
        try {
            return Output{block, &made->Block::get_outport(end.port).second, &end.port};
        } catch (const std::out_of_range&) {
            report_no_plain_port(end, "output", block, made->Block::get_outports_info());
            return std::nullopt;
        }
    }

    // --- exposed ports ---

    void expose(std::size_t composite)
    {
        const CompositeDescription& inside = *expansion_.composites[composite].inside;
        ExposedPorts& exposed = exposed_[composite];
        for (const ExposedDescription& port : inside.inports) {
            exposed.inputs.push_back(expose_input(composite, port));
        }
        for (const ExposedDescription& port : inside.outports) {
            exposed.outputs.push_back(
                port.ends.empty() ? std::nullopt : find_output(composite, port.ends.front()));
        }
        if (!expansion_.composites[composite].is_elsewhere) {
            record_exposed(composite);
        }
    }

    std::vector<Input> expose_input(std::size_t composite, const ExposedDescription& port)
    {
        is_all_excused_ = is_all_excused_ || port.is_broken;
        std::vector<Input> exposed;
        std::unordered_set<const InPortInternal*> known;
        for (const EndDescription& end : port.ends) {
            for (const Input& input : find_inputs(composite, end)) {
                // One that is exposed twice under one name is fed once.
                if (input.port == nullptr || known.insert(input.port).second) {
                    exposed.push_back(input);
                }
            }
        }
        return exposed;
    }

    void record_exposed(std::size_t composite)
    {
        const CompositeDescription& inside = *expansion_.composites[composite].inside;
        Superblock& superblock = *made_.superblocks[composite];
        for (std::size_t i = 0; i < inside.inports.size(); ++i) {
            for (const Input& input : exposed_[composite].inputs[i]) {
                superblock.add_inport(inside.inports[i].name, *made_.blocks[input.block],
                                      *input.name);
            }
        }
        for (std::size_t i = 0; i < inside.outports.size(); ++i) {
            if (const std::optional<Output>& output = exposed_[composite].outputs[i]) {
                superblock.add_outport(inside.outports[i].name, *made_.blocks[output->block],
                                       *output->name);
            }
        }
    }

    // --- connections ---

    /// All connections in the order in which they are written, file by file as they are merged.
    std::vector<Written> connections_as_written() const
    {
        std::vector<Written> all;
        for (std::uint32_t i = 0; i < expansion_.composites.size(); ++i) {
            for (const ConnectionDescription& connection :
                 expansion_.composites[i].inside->connections) {
                all.push_back({&connection, i});
            }
        }
        const auto is_before = [](const Written& a, const Written& b) {
            return std::tie(a.connection->rank, a.connection->place) <
                   std::tie(b.connection->rank, b.connection->place);
        };
        // Those of a graph without superblocks, in one file, come sorted.
        if (!std::is_sorted(all.begin(), all.end(), is_before)) {
            std::stable_sort(all.begin(), all.end(), is_before);
        }
        return all;
    }

    void connect(const Written& written)
    {
        const ConnectionDescription& connection = *written.connection;
        const std::optional<Output> output = find_output(written.composite, connection.from);
        for (const Input& input : find_inputs(written.composite, connection.to)) {
            if (!output) {
                claim(input, kUnknown);
            } else if (output->port == nullptr || input.port == nullptr) {
                cut(connection, *output, input);
            } else if (check_codec(connection, *output, input) &&
                       fits(connection, *output, input) && feed(connection, *output, input) &&
                       !connection.is_delay_wrong) {
                add_wire(connection, *output, input);
                made_.superblocks[written.composite]->add_connection(
                    *made_.blocks[output->block], *output->name, *made_.blocks[input.block],
                    *input.name);
            }
        }
    }

    // --- between machines ---

    static bool keeps_all(const ConnectionDescription& connection)
    {
        return connection.delivery == Delivery::All;
    }

    /// Takes a connection apart of which one end at least is elsewhere.
    void cut(const ConnectionDescription& connection, const Output& output, const Input& input)
    {
        if (output.port != nullptr) {
            if (check_codec(connection, output.port->get_datatype().get_name())) {
                add_exit(connection, output);
            }
        } else if (input.port != nullptr) {
            const Datatype& type = input.port->get_datatype();
            if (!type.is_generic() && !check_codec(connection, type.get_name())) {
                claim(input, kUnknown);
            } else if (feed(connection, output, input)) {
                add_entry_wire(connection, output, input);
            }
        }
    }

    /// Reports a type that cannot leave its machine, of a connection whose ends are both here.
    bool check_codec(const ConnectionDescription& connection, const Output& output,
                     const Input& input)
    {
        const std::string& from = expansion_.blocks[output.block].machine;
        const std::string& to = expansion_.blocks[input.block].machine;
        const bool is_fine = from == to || from.empty() || to.empty() || rules_.is_local ||
                             check_codec(connection, output.port->get_datatype().get_name());
        if (!is_fine) {
            claim(input, kUnknown);
        }
        return is_fine;
    }

    bool check_codec(const ConnectionDescription& connection, const std::string& type)
    {
        const bool has_codec = rules_.plugins.find_codec(type) != nullptr;
        if (!has_codec) {
            problems_.add_error(connection.place, "there is no codec for " + type);
        }
        return has_codec;
    }

    void add_exit(const ConnectionDescription& connection, const Output& output)
    {
        const auto [exit, is_new] =
            exits_.try_emplace(output.port, static_cast<std::uint32_t>(network_.exits.size()));
        if (is_new) {
            network_.exits.push_back({output.block, *output.name, output.port, false});
        }
        Exit& made = network_.exits[exit->second];
        made.keeps_all = made.keeps_all || keeps_all(connection);
    }

    void add_entry_wire(const ConnectionDescription& connection, const Output& output,
                        const Input& input)
    {
        const auto [found, is_new] = entries_.try_emplace(
            std::pair(output.block, *output.name), static_cast<std::uint32_t>(entries_.size()));
        if (is_new) {
            const Datatype& type = input.port->get_datatype();
            network_.entries.push_back({path_of(output.block), *output.name,
                                        std::make_shared<RemoteOutput>(*output.name, type), false});
        }
        Entry& entry = network_.entries[found->second];
        entry.keeps_all = entry.keeps_all || keeps_all(connection);
        network_.entry_wires.push_back(
            {found->second, input.block, input.port, connection.is_delayed});
    }

    template <class PortType>
    std::string name_of(const PortRef<PortType>& ref) const
    {
        return path_of(ref.block) + "." + *ref.name;
    }

    bool fits(const ConnectionDescription& connection, const Output& output, const Input& input)
    {
        const Datatype& from = output.port->get_datatype();
        const Datatype& to = input.port->get_datatype();
        if (to.is_assignable_from(from)) {
            return true;
        }
        claim(input, kUnknown);
        // With the settings that are wrong the types may be others.
        if (!expansion_.blocks[output.block].lacks_settings() &&
            !expansion_.blocks[input.block].lacks_settings()) {
            problems_.add_error(connection.place, name_of(output) + " (" + from.get_name() +
                                                      ") does not fit " + name_of(input) + " (" +
                                                      to.get_name() + ")");
        }
        return false;
    }

    /// Whether the input is free for the output.
    bool feed(const ConnectionDescription& connection, const Output& output, const Input& input)
    {
        const auto wire = static_cast<std::uint32_t>(sources_.size());
        std::uint32_t& fed_by = claim(input, wire);
        if (fed_by != wire && fed_by != kUnknown) {
            report_fed_twice(connection, input, sources_[fed_by]);
            return false;
        }
        fed_by = wire;
        sources_.push_back(output);
        return true;
    }

    /// Notes the source of an input that has none so far, an unknown one too.
    /// @return what the source is
    std::uint32_t& claim(const Input& input, std::uint32_t source)
    {
        const auto [fed, is_new] = fed_by_.try_emplace(input.port, source);
        fed_counts_[input.block] += is_new ? 1 : 0;
        return fed->second;
    }

    void add_wire(const ConnectionDescription& connection, const Output& output, const Input& input)
    {
        network_.wires.push_back({output.block, input.block, output.port, input.port,
                                  connection.is_delayed, input.name});
        places_.push_back(connection.place);
    }

    void report_fed_twice(const ConnectionDescription& connection, const Input& input,
                          const Output& other)
    {
        // A superblock with many inputs can be fed by many, which would make a message for each
        // pair of them.
        if (conflicts_ < kMostConflicts || last_conflict_ != &connection) {
            problems_.add_error(connection.place,
                                name_of(input) + " is already fed by " + name_of(other));
        }
        ++conflicts_;
        last_conflict_ = &connection;
    }

    /// Not of those that would be fed if another error were not there.
    void warn_of_unfed_inputs()
    {
        for (std::uint32_t i = 0; i < made_.blocks.size() && !is_all_excused_; ++i) {
            if (made_.blocks[i] != nullptr && !is_excused_[i] &&
                fed_counts_[i] != made_.input_counts[i]) {
                warn_of_unfed_inputs(i);
            }
        }
    }

    void warn_of_unfed_inputs(std::uint32_t index)
    {
        const ContextScope scope(path_of(index).c_str(), "connect");
        const Block& block = *made_.blocks[index];
        for (const std::string& name : sorted_names(block.Block::get_inports_info())) {
            for (const auto& [owner, port] : block.Block::get_inport(name)) {
                if (fed_by_.count(connectable(port)) == 0) {
                    problems_.add_warning(expansion_.blocks[index].member->name_place,
                                          path_of(index) + "." + name + " is not connected");
                }
            }
        }
    }

    // --- order ---

    Network arrange_network(std::vector<std::uint32_t>& positions)
    {
        network_.nodes.reserve(expansion_.blocks.size());
        for (std::uint32_t i = 0; i < expansion_.blocks.size(); ++i) {
            const PlainBlock& block = expansion_.blocks[i];
            network_.nodes.push_back(
                {block.path, made_.blocks[i], block.on_error == OnError::Skip});
        }
        Order order = find_order(network_);
        for (const Cycle& cycle : order.cycles) {
            problems_.add_error(places_[cycle.wire],
                                "the connections make a cycle: " + to_string(cycle, network_));
        }
        const auto end = std::remove_if(
            order.nodes.begin(), order.nodes.end(),
            [this](std::uint32_t block) { return expansion_.blocks[block].is_elsewhere; });
        order.nodes.erase(end, order.nodes.end());
        if (order.cycles.empty()) {
            arrange(network_, order);
        }
        positions = std::move(order.nodes);
        return std::move(network_);
    }

    static constexpr std::uint32_t kUnknown = 0xFFFFFFFF;
    static constexpr std::size_t kMostConflicts = 10'000;

    const Expansion& expansion_;
    const Creation& made_;
    const ConnectionRules& rules_;
    Problems& problems_;
    std::vector<ExposedPorts> exposed_;  // by composite
    std::vector<Input> found_;           // see find_inputs()
    Network network_;
    std::vector<Place> places_;  // of the wires
    // What feeds inputs, in the order in which that was written.
    std::vector<Output> sources_;
    std::unordered_map<const OutPortInternal*, std::uint32_t> exits_;
    std::map<std::pair<std::uint32_t, std::string>, std::uint32_t> entries_;  // by block and port
    // The source of each input; unknown where the connection to it is wrong.
    std::unordered_map<const InPortInternal*, std::uint32_t> fed_by_;
    std::vector<std::size_t> fed_counts_;  // how many inputs of each block have one
    // What misses a connection may do so because of an error that was reported.
    std::vector<bool> is_excused_;
    bool is_all_excused_ = false;
    std::size_t conflicts_ = 0;
    // Names of members, for those who look for them in vain.
    std::unordered_map<const CompositeDescription*, std::vector<std::string>> members_;
    Suggester suggester_;
    const ConnectionDescription* last_conflict_ = nullptr;
};

}  // namespace

Network connect_blocks(const Expansion& expansion, const Creation& made,
                       const ConnectionRules& rules, Problems& problems,
                       std::vector<std::uint32_t>& order)
{
    return Connector(expansion, made, rules, problems).connect(order);
}

}  // namespace Quorval::runtime
