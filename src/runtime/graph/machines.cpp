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
    if (link.is_wrong) {
        return;
    }
    const std::vector<std::string>& wrong = link.wrong_keys;
    const auto expect = [&](bool is_missing, const char* missing) {
        if (is_missing && std::find(wrong.begin(), wrong.end(), missing) == wrong.end()) {
            problems.add_error(link.place, "missing key '" + std::string(missing) + "'");
        }
    };
    expect(link.key.empty() && !link.cert.empty(), "key");
    expect(link.cert.empty() && !link.key.empty(), "cert");
    expect(link.user.empty() && !link.password_file.empty(), "user");
}

void check_broker(const LinkDescription& link, const Network& network, Problems& problems)
{
    const bool needs_link = !network.entries.empty() || !network.exits.empty();
    if (needs_link && link.host.empty() && !problems.has_errors()) {
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
