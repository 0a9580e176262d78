#include "schedule/order.h"

#include <algorithm>
#include <functional>
#include <numeric>
#include <queue>
#include <tuple>
#include <utility>

namespace Quorval::runtime {

namespace {

/// `from` has to run before `to`.
struct Edge {
    std::uint32_t from;
    std::uint32_t to;
    std::uint32_t wire;
};

/// Nodes that are numbered from 0, and edges in the order of their wires.
struct Subgraph {
    std::vector<std::uint32_t> nodes;  // what their numbers are in the network
    std::vector<Edge> edges;           // between numbers of this subgraph
};

/// The targets of the edges that leave a node, side by side in memory.
class Successors {
public:
    /// Of the first `count` of the edges.
    Successors(std::size_t nodes, const std::vector<Edge>& edges, std::size_t count)
        : begin_(nodes + 1), to_(count)
    {
        for (std::size_t edge = 0; edge < count; ++edge) {
            ++begin_[edges[edge].from + 1];
        }
        std::partial_sum(begin_.begin(), begin_.end(), begin_.begin());
        std::vector<std::size_t> next(begin_.begin(), begin_.end() - 1);
        for (std::size_t edge = 0; edge < count; ++edge) {
            to_[next[edges[edge].from]++] = edges[edge].to;
        }
    }

    std::size_t begin(std::uint32_t node) const { return begin_[node]; }
    std::size_t end(std::uint32_t node) const { return begin_[node + 1]; }
    std::uint32_t at(std::size_t position) const { return to_[position]; }

private:
    std::vector<std::size_t> begin_;
    std::vector<std::uint32_t> to_;
};

/// Takes the nodes in the order of the edges, with the lowest number first among those that are
/// free. Those that wait for a cycle are left out.
std::vector<std::uint32_t> sort_nodes(std::size_t nodes, const std::vector<Edge>& edges,
                                      std::size_t count)
{
    const Successors successors(nodes, edges, count);
    std::vector<std::uint32_t> waits_for(nodes);
    for (std::size_t edge = 0; edge < count; ++edge) {
        ++waits_for[edges[edge].to];
    }
    std::priority_queue<std::uint32_t, std::vector<std::uint32_t>, std::greater<>> free;
    for (std::uint32_t node = 0; node < nodes; ++node) {
        if (waits_for[node] == 0) {
            free.push(node);
        }
    }
    std::vector<std::uint32_t> sorted;
    sorted.reserve(nodes);
    while (!free.empty()) {
        const std::uint32_t node = free.top();
        free.pop();
        sorted.push_back(node);
        for (std::size_t at = successors.begin(node); at < successors.end(node); ++at) {
            if (--waits_for[successors.at(at)] == 0) {
                free.push(successors.at(at));
            }
        }
    }
    return sorted;
}

/// Numbers the groups of nodes that all reach each other, after Tarjan, without recursion.
class Groups {
public:
    explicit Groups(const Subgraph& graph)
        : successors_(graph.nodes.size(), graph.edges, graph.edges.size()),
          group_(graph.nodes.size(), kNone),
          index_(graph.nodes.size(), kNone),
          low_(graph.nodes.size())
    {
        for (std::uint32_t node = 0; node < graph.nodes.size(); ++node) {
            if (index_[node] == kNone) {
                visit(node);
            }
        }
    }

    std::uint32_t count() const { return count_; }
    std::uint32_t of(std::uint32_t node) const { return group_[node]; }

private:
    static constexpr std::uint32_t kNone = UINT32_MAX;

    struct Frame {
        std::uint32_t node;
        std::size_t next;  // of its successors
    };

    void enter(std::uint32_t node)
    {
        index_[node] = low_[node] = visited_++;
        open_.push_back(node);
        frames_.push_back({node, successors_.begin(node)});
    }

    void visit(std::uint32_t root)
    {
        enter(root);
        while (!frames_.empty()) {
            Frame& frame = frames_.back();
            if (frame.next == successors_.end(frame.node)) {
                leave();
                continue;
            }
            const std::uint32_t to = successors_.at(frame.next++);
            if (index_[to] == kNone) {
                enter(to);
            } else if (group_[to] == kNone) {
                low_[frame.node] = std::min(low_[frame.node], index_[to]);
            }
        }
    }

    void leave()
    {
        const std::uint32_t node = frames_.back().node;
        frames_.pop_back();
        if (!frames_.empty()) {
            std::uint32_t& low = low_[frames_.back().node];
            low = std::min(low, low_[node]);
        }
        if (low_[node] != index_[node]) {
            return;
        }
        while (group_[node] == kNone) {
            group_[open_.back()] = count_;
            open_.pop_back();
        }
        ++count_;
    }

    Successors successors_;
    std::vector<std::uint32_t> group_;
    std::vector<std::uint32_t> index_;
    std::vector<std::uint32_t> low_;
    std::vector<std::uint32_t> open_;
    std::vector<Frame> frames_;
    std::uint32_t visited_ = 0;
    std::uint32_t count_ = 0;
};

/// Appends the parts of `graph` of which every edge lies on a cycle.
void split(const Subgraph& graph, std::vector<Subgraph>& parts)
{
    const Groups groups(graph);
    std::vector<Subgraph> found(groups.count());
    std::vector<std::uint32_t> number(graph.nodes.size());
    for (std::uint32_t node = 0; node < graph.nodes.size(); ++node) {
        std::vector<std::uint32_t>& nodes = found[groups.of(node)].nodes;
        number[node] = static_cast<std::uint32_t>(nodes.size());
        nodes.push_back(graph.nodes[node]);
    }
    for (const Edge& edge : graph.edges) {
        if (groups.of(edge.from) == groups.of(edge.to)) {
            found[groups.of(edge.from)].edges.push_back(
                {number[edge.from], number[edge.to], edge.wire});
        }
    }
    for (Subgraph& part : found) {
        if (!part.edges.empty()) {
            parts.push_back(std::move(part));
        }
    }
}

/// So many times find_closing_edge() takes the edges in hand, at most.
constexpr std::size_t kSearchSteps = 32;

/// The first edge that closes a cycle with those before it. There is one.
std::size_t find_closing_edge(const Subgraph& graph)
{
    std::size_t possible = 0;                     // so many edges have no cycle
    std::size_t impossible = graph.edges.size();  // so many have one
    while (impossible - possible > 1) {
        const std::size_t middle = possible + (impossible - possible) / 2;
        const std::size_t nodes = graph.nodes.size();
        if (sort_nodes(nodes, graph.edges, middle).size() == nodes) {
            possible = middle;
        } else {
            impossible = middle;
        }
    }
    return possible;
}

/// The nodes of a shortest way to the source of the edge `closing` from its target, along the
/// edges before it; the source first.
std::vector<std::uint32_t> find_way_back(const Subgraph& graph, std::size_t closing)
{
    const auto [from, to, wire] = graph.edges[closing];
    const Successors successors(graph.nodes.size(), graph.edges, closing);
    std::vector<std::uint32_t> came_from(graph.nodes.size(), UINT32_MAX);
    std::vector<std::uint32_t> reached = {to};
    came_from[to] = to;
    for (std::size_t next = 0; came_from[from] == UINT32_MAX; ++next) {
        const std::uint32_t node = reached[next];
        for (std::size_t at = successors.begin(node); at < successors.end(node); ++at) {
            if (came_from[successors.at(at)] == UINT32_MAX) {
                came_from[successors.at(at)] = node;
                reached.push_back(successors.at(at));
            }
        }
    }
    std::vector<std::uint32_t> way;
    for (std::uint32_t node = from; node != to; node = came_from[node]) {
        way.push_back(node);
    }
    way.push_back(to);
    // Backwards from the source: what lies between goes the other way round.
    std::reverse(way.begin() + 1, way.end());
    return way;
}

Cycle make_cycle(const Subgraph& graph, std::size_t closing)
{
    Cycle cycle{graph.edges[closing].wire, find_way_back(graph, closing)};
    for (std::uint32_t& node : cycle.nodes) {
        node = graph.nodes[node];
    }
    return cycle;
}

/// Finds the first cycle of each part of `graph`, then those that are left when the edges that
/// closed them are gone, as long as it is cheap to look for more and to show them.
std::vector<Cycle> find_cycles(const Subgraph& graph)
{
    constexpr std::size_t kMostEdges = 20000000;
    std::size_t may_look_at = kMostEdges;
    std::size_t may_show = 4 * graph.edges.size() + 4;  // blocks
    std::vector<Subgraph> parts;
    split(graph, parts);
    std::vector<Cycle> cycles;
    while (!parts.empty()) {
        std::vector<Subgraph> rest;
        for (Subgraph& part : parts) {
            const std::size_t closing = find_closing_edge(part);
            cycles.push_back(make_cycle(part, closing));
            const std::size_t looked_at = part.edges.size() * kSearchSteps;
            const std::size_t shown = cycles.back().nodes.size();
            if (looked_at > may_look_at || shown > may_show) {
                continue;
            }
            may_look_at -= looked_at;
            may_show -= shown;
            part.edges.erase(part.edges.begin() + static_cast<std::ptrdiff_t>(closing));
            split(part, rest);
        }
        parts = std::move(rest);
    }
    std::sort(cycles.begin(), cycles.end(),
              [](const Cycle& a, const Cycle& b) { return a.wire < b.wire; });
    return cycles;
}

/// The nodes of the network by path.
std::vector<std::uint32_t> sort_by_path(const std::vector<Node>& nodes)
{
    std::vector<std::uint32_t> by_path(nodes.size());
    std::iota(by_path.begin(), by_path.end(), 0);
    const auto is_less = [&nodes](std::uint32_t a, std::uint32_t b) {
        return nodes[a].path < nodes[b].path;
    };
    // A graph without superblocks comes sorted.
    if (!std::is_sorted(by_path.begin(), by_path.end(), is_less)) {
        std::sort(by_path.begin(), by_path.end(), is_less);
    }
    return by_path;
}

/// Where each index stands in a list that holds each index once.
std::vector<std::uint32_t> invert(const std::vector<std::uint32_t>& indices)
{
    std::vector<std::uint32_t> positions(indices.size());
    for (std::uint32_t position = 0; position < indices.size(); ++position) {
        positions[indices[position]] = position;
    }
    return positions;
}

/// What the wires ask for, between nodes that are numbered by path.
Subgraph make_subgraph(const Network& network)
{
    Subgraph graph{sort_by_path(network.nodes), {}};
    const std::vector<std::uint32_t> number = invert(graph.nodes);
    graph.edges.reserve(network.wires.size());
    for (std::uint32_t index = 0; index < network.wires.size(); ++index) {
        const Wire& wire = network.wires[index];
        const std::uint32_t from = number[wire.from];
        const std::uint32_t to = number[wire.to];
        if (!wire.is_delayed) {
            graph.edges.push_back({from, to, index});
        } else if (from != to) {
            graph.edges.push_back({to, from, index});
        }
    }
    return graph;
}

/// All that can be taken, in numbers of the network.
std::vector<std::uint32_t> sort_nodes(const Subgraph& graph)
{
    std::vector<std::uint32_t> sorted =
        sort_nodes(graph.nodes.size(), graph.edges, graph.edges.size());
    for (std::uint32_t& node : sorted) {
        node = graph.nodes[node];
    }
    return sorted;
}

}  // namespace

Order find_order(const Network& network)
{
    const Subgraph graph = make_subgraph(network);
    Order order{sort_nodes(graph), {}};
    if (order.nodes.size() < graph.nodes.size()) {
        order.cycles = find_cycles(graph);
    }
    return order;
}

std::vector<std::uint32_t> find_possible_order(const Network& network)
{
    return sort_nodes(make_subgraph(network));
}

std::string to_string(const Cycle& cycle, const Network& network)
{
    std::string text;
    for (const std::uint32_t node : cycle.nodes) {
        text += network.nodes[node].path + " -> ";
    }
    return text + network.nodes[cycle.nodes.front()].path;
}

void arrange(Network& network, const Order& order)
{
    std::vector<Node> nodes;
    nodes.reserve(order.nodes.size());
    std::vector<std::uint32_t> position(network.nodes.size());
    for (const std::uint32_t node : order.nodes) {
        position[node] = static_cast<std::uint32_t>(nodes.size());
        nodes.push_back(std::move(network.nodes[node]));
    }
    network.nodes = std::move(nodes);
    for (Wire& wire : network.wires) {
        wire.from = position[wire.from];
        wire.to = position[wire.to];
    }
    std::sort(network.wires.begin(), network.wires.end(), [](const Wire& a, const Wire& b) {
        return std::forward_as_tuple(a.to, a.input_name()) <
               std::forward_as_tuple(b.to, b.input_name());
    });
    for (EntryWire& wire : network.entry_wires) {
        wire.to = position[wire.to];
    }
    std::stable_sort(network.entry_wires.begin(), network.entry_wires.end(),
                     [](const EntryWire& a, const EntryWire& b) { return a.to < b.to; });
    for (Exit& exit : network.exits) {
        exit.from = position[exit.from];
    }
}

}  // namespace Quorval::runtime
