// Blocks and networks made by hand.
#pragma once

#include <quorval/block.h>
#include "schedule/network.h"
#include "schedule/order.h"

#include <algorithm>
#include <cstdint>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace quorval_test {

/// A block whose operations a test writes. All values are of the type int.
class FakeBlock : public Quorval::Block {
public:
    using Block::Block;

    Quorval::OutPort<int>& output(const std::string& name)
    {
        auto port = std::make_unique<Quorval::OutPort<int>>(name, Quorval::Datatype("int"));
        return static_cast<Quorval::OutPort<int>&>(*add_outport(std::move(port)));
    }

    Quorval::InPort<int>& input(const std::string& name, bool auto_reset = true)
    {
        auto port =
            std::make_unique<Quorval::InPort<int>>(name, Quorval::Datatype("int"), auto_reset);
        return static_cast<Quorval::InPort<int>&>(*add_inport(std::move(port)));
    }

    void start() override { on_start(); }
    void stop() override { on_stop(); }
    bool run() override
    {
        ++runs;
        return on_run();
    }
    void reconfigure(const Quorval::BlockConfiguration& merged,
                     const Quorval::BlockConfiguration& override) override
    {
        on_reconfigure(merged, override);
    }

    std::function<void()> on_start = [] {};
    std::function<void()> on_stop = [] {};
    std::function<bool()> on_run = [] { return true; };
    std::function<void(const Quorval::BlockConfiguration&, const Quorval::BlockConfiguration&)>
        on_reconfigure = [](const auto&, const auto&) {};
    int runs = 0;
};

/// An input that cannot be looked at while `fails` is set.
class FailingInput : public Quorval::InPort<int> {
public:
    /// @param fails  must outlive the input
    explicit FailingInput(const bool& fails)
        : InPort("failing", Quorval::Datatype("int")), fails_(fails)
    {
    }
    bool is_triggered() const override
    {
        return fails_ ? throw std::runtime_error("no input") : false;
    }

private:
    const bool& fails_;
};

/// Owns blocks and connects them.
class FakeGraph {
public:
    /// The path of the block is its name.
    FakeBlock& add(const std::string& path, bool skips_failures = false)
    {
        blocks_.push_back(std::make_unique<FakeBlock>(path));
        network_.nodes.push_back({path, blocks_.back().get(), skips_failures});
        return *blocks_.back();
    }

    void connect(FakeBlock& from, const std::string& output, FakeBlock& to,
                 const std::string& input, bool is_delayed = false)
    {
        network_.wires.push_back({number_of(from), number_of(to), &from.get_outport(output).second,
                                  to.get_inport(input).front().second.get_connectable(),
                                  is_delayed});
    }

    /// Feeds an input from another machine.
    /// @return the output there, of the entry that is numbered from 0 on
    Quorval::runtime::RemoteOutput& connect_remote(FakeBlock& to, const std::string& input,
                                                   bool is_delayed = false)
    {
        const auto entry = static_cast<std::uint32_t>(network_.entries.size());
        network_.entries.push_back(
            {"far", "out",
             std::make_shared<Quorval::runtime::RemoteOutput>("out", Quorval::Datatype("int32")),
             false});
        network_.entry_wires.push_back({entry, number_of(to),
                                        to.get_inport(input).front().second.get_connectable(),
                                        is_delayed});
        return *network_.entries.back().output;
    }

    /// A chain in which each block has an input "in" and an output "out", and each hands on what
    /// it gets, plus 1.
    void add_chain(std::size_t length)
    {
        FakeBlock* before = nullptr;
        for (std::size_t at = 0; at < length; ++at) {
            FakeBlock& block = add("block" + std::to_string(1000000 + at));
            auto& in = block.input("in");
            auto& out = block.output("out");
            block.on_run = [&in, &out] {
                out.write(in.get() == nullptr ? 1 : in.value() + 1);
                return true;
            };
            if (before != nullptr) {
                connect(*before, "out", block, "in");
            }
            before = &block;
        }
    }

    /// The network in the order of its run. Once, when all is there.
    const Quorval::runtime::Network& arrange()
    {
        Quorval::runtime::arrange(network_, Quorval::runtime::find_order(network_));
        return network_;
    }

    const Quorval::runtime::Network& network() const { return network_; }

    /// The number of a block in the network.
    std::uint32_t number_of(const FakeBlock& block) const
    {
        const auto& nodes = network_.nodes;
        const auto at = std::find_if(nodes.begin(), nodes.end(),
                                     [&block](const auto& node) { return node.block == &block; });
        return static_cast<std::uint32_t>(at - nodes.begin());
    }

private:
    std::vector<std::unique_ptr<FakeBlock>> blocks_;
    Quorval::runtime::Network network_;
};

}  // namespace quorval_test
