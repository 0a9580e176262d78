#include "graph/creation_order.h"

#include "schedule/order.h"

#include <algorithm>
#include <string>

namespace Quorval::runtime {

namespace {

using Blocks = std::vector<std::uint32_t>;

/// Blocks that lie side by side somewhere.
class Range {
public:
    Range() = default;
    Range(const std::uint32_t* first, std::size_t count) : begin_(first), end_(first + count) {}

    const std::uint32_t* begin() const { return begin_; }
    const std::uint32_t* end() const { return end_; }

private:
    const std::uint32_t* begin_ = nullptr;
    const std::uint32_t* end_ = nullptr;
};

/// Follows names to the blocks behind them.
class Tracer {
public:
    explicit Tracer(const Expansion& expansion)
        : expansion_(expansion), exposed_(expansion.composites.size())
    {
    }

    Network trace()
    {
        network_.nodes.reserve(expansion_.blocks.size());
        for (const PlainBlock& block : expansion_.blocks) {
            network_.nodes.push_back({block.path, nullptr, false});
        }
        // From the inside out: what is exposed leads to what is exposed further in.
        for (std::size_t i = expansion_.composites.size(); i-- > 0;) {
            exposed_[i].inputs = expose(i, expansion_.composites[i].inside->inports);
            exposed_[i].outputs = expose(i, expansion_.composites[i].inside->outports);
        }
        for (std::size_t i = 0; i < expansion_.composites.size(); ++i) {
            for (const ConnectionDescription& one : expansion_.composites[i].inside->connections) {
                connect(i, one);
            }
        }
        return std::move(network_);
    }

private:
    struct Exposed {
        std::vector<Blocks> inputs;
        std::vector<Blocks> outputs;
    };
    using Ports = std::vector<ExposedDescription>;

    /// Ways to one block can multiply from superblock to superblock.
    static void keep_one_of_each(Blocks& blocks)
    {
        std::sort(blocks.begin(), blocks.end());
        blocks.erase(std::unique(blocks.begin(), blocks.end()), blocks.end());
    }

    std::vector<Blocks> expose(std::size_t composite, const Ports& ports) const
    {
        const bool is_input = &ports == &expansion_.composites[composite].inside->inports;
        std::vector<Blocks> exposed(ports.size());
        for (std::size_t port = 0; port < ports.size(); ++port) {
            std::size_t kept = 0;
            for (const EndDescription& end : ports[port].ends) {
                const Range more = find(composite, end, is_input);
                exposed[port].insert(exposed[port].end(), more.begin(), more.end());
                if (exposed[port].size() > 2 * kept) {
                    keep_one_of_each(exposed[port]);
                    kept = exposed[port].size();
                }
            }
            keep_one_of_each(exposed[port]);
        }
        return exposed;
    }

    /// The blocks behind an end, which lie in the expansion or in what is exposed.
    Range find(std::size_t composite, const EndDescription& end, bool is_input) const
    {
        const Composite& place = expansion_.composites[composite];
        if (end.member == kNoMember) {
            return {};
        }
        const MemberRef& ref = place.members[end.member];
        if (ref.kind != MemberRef::Kind::Composite) {
            return ref.kind == MemberRef::Kind::Plain ? Range(&ref.index, 1) : Range();
        }
        const CompositeDescription& inside = *expansion_.composites[ref.index].inside;
        const Ports& ports = is_input ? inside.inports : inside.outports;
        const Exposed& exposed = exposed_[ref.index];
        const auto at = std::lower_bound(ports.begin(), ports.end(), end.port,
                                         [](const ExposedDescription& port,
                                            const std::string& name) { return port.name < name; });
        if (at == ports.end() || at->name != end.port) {
            return {};
        }
        const Blocks& blocks = (is_input ? exposed.inputs : exposed.outputs)[at - ports.begin()];
        return {blocks.data(), blocks.size()};
    }

    void connect(std::size_t composite, const ConnectionDescription& connection)
    {
        // Many that feed one superblock with many inputs are wrong, and would make many wires.
        constexpr std::size_t kMostForEach = 64;
        if (network_.wires.size() > kMostForEach * network_.nodes.size()) {
            return;
        }
        for (const std::uint32_t from : find(composite, connection.from, false)) {
            for (const std::uint32_t to : find(composite, connection.to, true)) {
                network_.wires.push_back({from, to, nullptr, nullptr, connection.is_delayed});
            }
        }
    }

    const Expansion& expansion_;
    std::vector<Exposed> exposed_;  // by composite
    Network network_;
};

}  // namespace

std::vector<std::uint32_t> creation_order(const Expansion& expansion)
{
    std::vector<std::uint32_t> order = find_possible_order(Tracer(expansion).trace());
    std::vector<bool> is_there(expansion.blocks.size());
    for (const std::uint32_t block : order) {
        is_there[block] = true;
    }
    for (std::uint32_t block = 0; block < is_there.size(); ++block) {
        if (!is_there[block]) {
            order.push_back(block);
        }
    }
    return order;
}

}  // namespace Quorval::runtime
