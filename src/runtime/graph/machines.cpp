#include "graph/machines.h"

#include "description/suggest.h"

#include <algorithm>
#include <stdexcept>
#include <vector>

namespace Quorval::runtime {

namespace {

[[noreturn]] void throw_no_machine(const std::string& name, const std::vector<std::string>& known)
{
    throw std::invalid_argument("there is no machine '" + name + "'" + suggestion(name, known));
}

[[noreturn]] void throw_needs_machine(const std::vector<std::string>& machines)
{
    std::string list;
    for (const std::string& machine : machines) {
        list += (list.empty() ? "" : ", ") + machine;
    }
    throw std::invalid_argument("one of the machines " + list +
                                " has to be named with --machine, or --local be given");
}

/// Whether a key of the link is missing because of what is reported.
bool is_excused(const LinkDescription& link, const char* key)
{
    const std::vector<std::string>& wrong = link.wrong_keys;
    return link.is_wrong || std::find(wrong.begin(), wrong.end(), key) != wrong.end();
}

/// The machine of the block at an end; empty where it has none, or a wrong one, which is reported.
std::string machine_at(const EndDescription& end, const GraphDescription& description)
{
    if (end.member == kNoMember) {
        return "";
    }
    const std::vector<std::string>& known = description.machines;
    const std::string& machine = description.graph.members[end.member].machine;
    const bool is_known =
        description.has_broken_machines || std::binary_search(known.begin(), known.end(), machine);
    return is_known ? machine : "";
}

/// Whether a connection leads from one machine to another.
/// @param machine  that it has to begin or end at; empty: any
bool is_linked(const GraphDescription& description, const std::string& machine)
{
    if (description.machines.empty() && !description.has_broken_machines) {
        return false;
    }
    const std::vector<ConnectionDescription>& connections = description.graph.connections;
    return std::any_of(connections.begin(), connections.end(), [&](const auto& connection) {
        const std::string from = machine_at(connection.from, description);
        const std::string to = machine_at(connection.to, description);
        return !from.empty() && !to.empty() && from != to &&
               (machine.empty() || machine == from || machine == to);
    });
}

}  // namespace

void check_machine(const GraphOptions& options, const GraphDescription& description)
{
    const std::vector<std::string>& machines = description.machines;
    if (description.has_broken_machines) {
        return;
    }
    if (options.machine.empty()) {
        if (!options.is_dry && !options.is_local && !machines.empty()) {
            throw_needs_machine(machines);
        }
    } else if (!std::binary_search(machines.begin(), machines.end(), options.machine)) {
        throw_no_machine(options.machine, machines);
    }
}

void check_link(const LinkDescription& link, Problems& problems)
{
    const auto expect = [&](bool is_missing, const char* missing) {
        if (is_missing && !is_excused(link, missing)) {
            problems.add_error(link.place, "missing key '" + std::string(missing) + "'");
        }
    };
    expect(link.key.empty() && !link.cert.empty(), "key");
    expect(link.cert.empty() && !link.key.empty(), "cert");
    expect(link.user.empty() && !link.password_file.empty(), "user");
}

void check_broker(const GraphOptions& options, const GraphDescription& description,
                  Problems& problems)
{
    const LinkDescription& link = description.link;
    if (options.is_local || !link.host.empty() || is_excused(link, "broker") ||
        !is_linked(description, options.machine)) {
        return;
    }
    if (link.place.line > 0) {
        problems.add_error(link.place, "missing key 'broker'");
    } else {
        problems.add_error({0, 1, 1}, "missing key 'link.broker'");
    }
}

void mark_elsewhere(Expansion& expansion, const std::string& machine)
{
    if (machine.empty()) {
        return;
    }
    for (std::size_t at = 1; at < expansion.composites.size(); ++at) {
        Composite& composite = expansion.composites[at];
        composite.is_elsewhere = composite.machine != machine;
    }
    for (PlainBlock& block : expansion.blocks) {
        block.is_elsewhere = block.machine != machine;
    }
}

}  // namespace Quorval::runtime
