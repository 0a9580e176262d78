// Containers that record what is asked of them.
#pragma once

#include <quorval/block.h>

#include <functional>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

namespace quorval_test {

/// A block that tells of its destruction.
class ToldBlock : public Quorval::Block {
public:
    ToldBlock(const std::string& name, std::vector<std::string>& events)
        : Block(name), first_name_(name), events_(events)
    {
    }
    ~ToldBlock() override { events_.push_back("destroy " + first_name_); }

private:
    std::string first_name_;
    std::vector<std::string>& events_;
};

/// A container that is neither a block nor a superblock, answers by functions of the test, and
/// records each call of a virtual operation.
class FakeContainer : public Quorval::Container {
public:
    using Inputs = std::vector<std::pair<Quorval::Block const&, Quorval::InPortProvider&>>;
    using Output = std::pair<Quorval::Block const&, Quorval::OutPortInternal&>;
    using Info = std::unordered_map<std::string, Quorval::Datatype>;

    FakeContainer(std::string name, std::vector<std::string>& calls)
        : name_(std::move(name)), calls_(calls)
    {
    }

    Quorval::BlockConfiguration setup(const Quorval::BlockConfiguration& /*config*/) override
    {
        calls_.push_back(name_ + ".setup");
        return {};
    }

    const std::string& get_name() const override
    {
        calls_.push_back(name_ + ".get_name");
        return name_;
    }

    void set_name(std::string name) override
    {
        calls_.push_back(name_ + ".set_name");
        name_ = std::move(name);
    }

    Inputs get_inport(const std::string& name) const override
    {
        calls_.push_back(name_ + ".get_inport " + name);
        return inport(name);
    }

    Output get_outport(const std::string& name) const override
    {
        calls_.push_back(name_ + ".get_outport " + name);
        return outport(name);
    }

    std::vector<Quorval::Block*> get_blocks() override
    {
        calls_.push_back(name_ + ".get_blocks");
        return blocks;
    }

    std::vector<Quorval::Connection> get_connections() override
    {
        calls_.push_back(name_ + ".get_connections");
        return connections;
    }

    Info get_inports_info() const override
    {
        calls_.push_back(name_ + ".get_inports_info");
        return {};
    }

    Info get_outports_info() const override
    {
        calls_.push_back(name_ + ".get_outports_info");
        return {};
    }

    Info get_fdports_info() const override
    {
        calls_.push_back(name_ + ".get_fdports_info");
        return fdports;
    }

    std::function<Inputs(const std::string&)> inport;
    std::function<Output(const std::string&)> outport;
    std::vector<Quorval::Block*> blocks;
    std::vector<Quorval::Connection> connections;
    Info fdports;

private:
    std::string name_;
    std::vector<std::string>& calls_;
};

}  // namespace quorval_test
