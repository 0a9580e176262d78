#include <quorval/block.h>
#include <quorval/config.h>
#include <quorval/datatype.h>
#include <quorval/port.h>
#include <quorval/superblock.h>
#include "fuzz/input.h"
#include "fuzz/targets.h"

#include <algorithm>
#include <map>
#include <memory>
#include <string>
#include <tuple>
#include <unordered_map>
#include <utility>
#include <vector>

namespace quorval_fuzz {

using Quorval::Block;
using Quorval::BlockConfiguration;
using Quorval::Container;
using Quorval::Datatype;
using Quorval::InPortInternal;
using Quorval::InPortProvider;
using Quorval::OutPortInternal;
using Quorval::Superblock;
using Quorval::UniqueDlPtr;

namespace {

constexpr std::size_t kMostOperations = 80;
constexpr std::size_t kMostContainers = 12;
constexpr std::size_t kMostEntries = 12;

const std::vector<std::string> kNames = {"", "a", "b", "c", "ab", "inner", "outer"};
const std::vector<std::string> kPorts = {"", "in", "out", "x", "y", "none"};
const std::vector<std::string> kTypes = {"int32", "text", "/prefix/image/"};

std::string take(const std::vector<std::string>& texts, Input& input)
{
    return texts[input.below(texts.size())];
}

/// A block or a superblock as it should be, with the object itself, which is owned by its owner or
/// by `owned`.
struct Node {
    Container* container = nullptr;
    UniqueDlPtr<Container> owned;
    bool is_superblock = false;
    std::string name;
    Node* owner = nullptr;

    // Of a block.
    std::map<std::string, std::string> fdports;

    // Of both: the inputs and outputs under their names, with the inner ports and their blocks.
    struct Target {
        const Block* block;
        const void* port;
        std::string port_name;
        std::string type;
    };
    std::map<std::string, std::vector<Target>> inputs;
    std::map<std::string, Target> outputs;

    // Of a superblock.
    using Link = std::tuple<const Block*, std::string, const Block*, std::string>;
    std::map<std::string, Node*> members;
    std::vector<Link> links;

    Superblock& superblock() const { return static_cast<Superblock&>(*container); }
    Node& root() { return owner != nullptr ? owner->root() : *this; }
};

std::vector<const Block*> blocks_of(const Node& node)
{
    if (!node.is_superblock) {
        return {static_cast<const Block*>(node.container)};
    }
    std::vector<const Block*> blocks;
    for (const auto& [key, member] : node.members) {
        const auto inner = blocks_of(*member);
        blocks.insert(blocks.end(), inner.begin(), inner.end());
    }
    return blocks;
}

std::vector<Node::Link> links_of(const Node& node)
{
    std::vector<Node::Link> links;
    for (const auto& [key, member] : node.members) {
        const auto inner = links_of(*member);
        links.insert(links.end(), inner.begin(), inner.end());
    }
    links.insert(links.end(), node.links.begin(), node.links.end());
    return links;
}

std::map<std::string, std::string> fdports_of(const Node& node)
{
    if (!node.is_superblock) {
        return node.fdports;
    }
    std::map<std::string, std::string> ports;
    for (const auto& [key, member] : node.members) {
        for (const auto& [port, type] : fdports_of(*member)) {
            ports.emplace(node.name + "::" + port, type);
        }
    }
    return ports;
}

std::map<std::string, std::string> names_of(const std::unordered_map<std::string, Datatype>& info)
{
    std::map<std::string, std::string> names;
    for (const auto& [name, type] : info) {
        names[name] = type.get_name();
    }
    return names;
}

class Graphs {
public:
    void do_operation(Input& input)
    {
        switch (input.below(9)) {
            case 0:
                return make_block(input);
            case 1:
                return make_superblock(input);
            case 2:
            case 3:
                return add_block(input);
            case 4:
                return add_connection(input);
            case 5:
                return add_inport(input);
            case 6:
                return add_outport(input);
            case 7:
                return rename(input);
            default:
                return get_block(input);
        }
    }

    /// Looks at one container, at the next one the next time.
    void check_next()
    {
        if (!nodes_.empty()) {
            check_node(*nodes_[++checked_ % nodes_.size()]);
        }
    }

    void check_all() const
    {
        for (const auto& node : nodes_) {
            check_node(*node);
        }
    }

private:
    static void check_node(const Node& node)
    {
        Container& container = *node.container;
        require_equal(container.get_name(), node.name, "a name");

        const std::vector<Block*> blocks = container.get_blocks();
        require(std::vector<const Block*>(blocks.begin(), blocks.end()) == blocks_of(node),
                "get_blocks()");

        std::vector<Node::Link> links;
        for (const auto& [from, out, to, in] : container.get_connections()) {
            links.emplace_back(&from, out, &to, in);
        }
        require(links == links_of(node), "get_connections()");

        require(names_of(container.get_fdports_info()) == fdports_of(node), "get_fdports_info()");
        check_ports(node);
    }

    static void check_ports(const Node& node)
    {
        std::map<std::string, std::string> inputs;
        for (const auto& [name, targets] : node.inputs) {
            inputs[name] = targets.front().type;
            std::size_t at = 0;
            for (const auto& [block, port] : node.container->get_inport(name)) {
                require(
                    at < targets.size() && &block == targets[at].block && &port == targets[at].port,
                    "get_inport()");
                ++at;
            }
            require(at == targets.size(), "all of get_inport()");
        }
        require(names_of(node.container->get_inports_info()) == inputs, "get_inports_info()");

        std::map<std::string, std::string> outputs;
        for (const auto& [name, source] : node.outputs) {
            outputs[name] = source.type;
            const auto found = node.container->get_outport(name);
            require(&found.first == source.block && &found.second == source.port, "get_outport()");
        }
        require(names_of(node.container->get_outports_info()) == outputs, "get_outports_info()");
    }

    Node* choose(Input& input)
    {
        return nodes_.empty() ? nullptr : nodes_[input.below(nodes_.size())].get();
    }

    Node* choose_superblock(Input& input)
    {
        Node* node = choose(input);
        return node != nullptr && node->is_superblock ? node : nullptr;
    }

    Node& add_node(std::unique_ptr<Container> container, const std::string& name)
    {
        nodes_.push_back(std::make_unique<Node>());
        Node& node = *nodes_.back();
        node.container = container.get();
        node.owned = UniqueDlPtr<Container>(nullptr, std::move(container));
        node.name = name;
        return node;
    }

    void make_block(Input& input)
    {
        if (nodes_.size() >= kMostContainers) {
            return;
        }
        const std::string name = take(kNames, input);
        auto made = std::make_unique<Block>(name);
        Block& block = *made;
        Node& node = add_node(std::move(made), name);
        for (std::size_t left = input.below(4); left > 0; --left) {
            const std::string port = take(kPorts, input);
            const std::string type = take(kTypes, input);
            const bool is_taken[] = {node.inputs.count(port) != 0, node.outputs.count(port) != 0,
                                     node.fdports.count(port) != 0};
            const char* const kinds[] = {"inport", "outport", "fdport"};
            const std::size_t kind = input.below(3);
            const std::string failure = failure_of([&] {
                if (kind == 0) {
                    const InPortProvider* added = block.add_inport(
                        std::make_unique<InPortInternal>(port, Datatype(type), true));
                    node.inputs[port] = {{&block, added, port, type}};
                } else if (kind == 1) {
                    const OutPortInternal* added =
                        block.add_outport(std::make_unique<OutPortInternal>(port, Datatype(type)));
                    node.outputs[port] = {&block, added, port, type};
                } else {
                    block.make_fdport(port, 0, {true, false});
                    node.fdports[port] = "extfd";
                }
            });
            require_equal(failure,
                          is_taken[kind] ? std::string("runtime_error: Failed to add ") +
                                               kinds[kind] + " '" + port + "', probably duplicate."
                                         : "",
                          "adding a port");
        }
    }

    void make_superblock(Input& input)
    {
        if (nodes_.size() < kMostContainers) {
            const std::string name = take(kNames, input);
            add_node(std::make_unique<Superblock>(name), name).is_superblock = true;
        }
    }

    /// Forgets a container and all in it.
    void forget(Node* node)
    {
        for (const auto& [key, member] : std::map<std::string, Node*>(node->members)) {
            forget(member);
        }
        nodes_.erase(std::find_if(nodes_.begin(), nodes_.end(),
                                  [node](const auto& other) { return other.get() == node; }));
    }

    void add_block(Input& input)
    {
        Node* into = choose_superblock(input);
        Node* member = choose(input);
        const bool with_config = input.below(2) == 1;
        if (into == nullptr || member == nullptr) {
            return;
        }
        if (!member->owned || &into->root() == member) {
            // It is in a superblock already, or would be inside itself.
            require_equal(
                failure_of([&] { into->superblock().add_block(UniqueDlPtr<Container>()); }),
                "runtime_error: Failed to add superblock due to nullptr input.", "adding nothing");
            return;
        }
        const bool is_taken = into->members.count(member->name) != 0;
        const std::string name = member->name;
        const std::string failure = failure_of([&] {
            Container& added = with_config ? into->superblock().add_block(std::make_tuple(
                                                 std::move(member->owned), BlockConfiguration()))
                                           : into->superblock().add_block(std::move(member->owned));
            require(&added == member->container, "what add_block() gives");
        });
        if (is_taken) {
            require_equal(failure,
                          "runtime_error: Failed to add block: a block with the same name already "
                          "exists: " +
                              name,
                          "add_block()");
            forget(member);
            return;
        }
        require_equal(failure, "", "add_block()");
        into->members[name] = member;
        member->owner = into;
    }

    /// Two containers of one tree, so that what refers to them goes when they go.
    static bool belong_together(Node* a, Node* b)
    {
        return a != nullptr && b != nullptr && &a->root() == &b->root();
    }

    void add_connection(Input& input)
    {
        Node* at = choose_superblock(input);
        Node* from = choose(input);
        Node* to = choose(input);
        const std::string out = take(kPorts, input);
        const std::string in = take(kPorts, input);
        if (!belong_together(at, from) || !belong_together(at, to) ||
            at->links.size() > kMostEntries) {
            return;
        }
        const auto source = from->outputs.find(out);
        const auto targets = to->inputs.find(in);
        std::string expected;
        if (source == from->outputs.end()) {
            expected =
                "runtime_error: Failed to add connection due to missing outport: " + from->name +
                "::" + out;
        } else if (targets == to->inputs.end()) {
            expected =
                "runtime_error: Failed to add connection due to missing inport: " + to->name +
                "::" + in;
        } else {
            for (const Node::Target& target : targets->second) {
                at->links.emplace_back(source->second.block, source->second.port_name, target.block,
                                       target.port_name);
            }
        }

        require_equal(failure_of([&] {
                          at->superblock().add_connection(*from->container, out, *to->container,
                                                          in);
                      }),
                      expected, "add_connection()");
    }

    static std::string refusal_of_port(const Node& node, const std::string& kind,
                                       const std::string& shown_kind, const std::string& port)
    {
        if (node.is_superblock) {
            return "out_of_range: Get for unknown " + kind + " \"" + port + "\" on superblock \"" +
                   node.name + "\"";
        }
        return "out_of_range: The " + shown_kind + " " + port + " does not exist in block " +
               node.name;
    }

    void add_inport(Input& input)
    {
        Node* at = choose_superblock(input);
        Node* of = choose(input);
        const std::string name = take(kPorts, input);
        const std::string port = take(kPorts, input);
        if (!belong_together(at, of)) {
            return;
        }
        const auto found = of->inputs.find(port);
        std::string expected;
        if (name.empty()) {
            expected = "runtime_error: Failed to add inport due to empty string input.";
        } else if (found == of->inputs.end()) {
            expected = refusal_of_port(*of, "inport", "InPort", port);
        } else {
            const auto targets = found->second;
            auto& exposed = at->inputs[name];
            if (exposed.size() + targets.size() > kMostEntries) {
                return;
            }
            exposed.insert(exposed.end(), targets.begin(), targets.end());
        }

        require_equal(failure_of([&] { at->superblock().add_inport(name, *of->container, port); }),
                      expected, "add_inport()");
    }

    void add_outport(Input& input)
    {
        Node* at = choose_superblock(input);
        Node* of = choose(input);
        const std::string name = take(kPorts, input);
        const std::string port = take(kPorts, input);
        if (!belong_together(at, of)) {
            return;
        }
        const auto found = of->outputs.find(port);
        std::string expected;
        if (name.empty()) {
            expected = "runtime_error: Failed to add outport due to empty string input.";
        } else if (found == of->outputs.end()) {
            expected = refusal_of_port(*of, "outport", "OutPort", port);
        } else if (!at->outputs.emplace(name, Node::Target(found->second)).second) {
            expected = "runtime_error: Failed to add outport '" + name + "', probably duplicate.";
        }

        require_equal(failure_of([&] { at->superblock().add_outport(name, *of->container, port); }),
                      expected, "add_outport()");
    }

    void rename(Input& input)
    {
        if (Node* node = choose(input)) {
            node->name = take(kNames, input);
            node->container->set_name(node->name);
        }
    }

    void get_block(Input& input)
    {
        Node* at = choose_superblock(input);
        const std::string name = take(kNames, input);
        if (at == nullptr) {
            return;
        }
        const auto found = at->members.find(name);
        const std::string failure = failure_of([&] {
            const Container& block = at->superblock().get_block(name);
            require(found != at->members.end() && &block == found->second->container,
                    "what get_block() gives");
        });
        require_equal(failure,
                      found != at->members.end() ? ""
                                                 : "invalid_argument: Superblock " + at->name +
                                                       " does not contain block of name " + name,
                      "get_block()");
    }

    std::vector<std::unique_ptr<Node>> nodes_;
    std::size_t checked_ = 0;
};

}  // namespace

void fuzz_superblock(const std::uint8_t* data, std::size_t size)
{
    Graphs graphs;
    Input input(data, size);
    for (std::size_t done = 0; !input.is_empty() && done < kMostOperations; ++done) {
        graphs.do_operation(input);
        graphs.check_next();
    }
    graphs.check_all();
}

}  // namespace quorval_fuzz
