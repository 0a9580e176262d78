// Blocks that count, double, print and interrupt.
#include <quorval/block.h>
#include <quorval/pluginloader.h>
#include <quorval/runtime/tools.h>

#include <csignal>
#include <iostream>
#include <memory>
#include <string>
#include <utility>

namespace {

using Quorval::Block;
using Quorval::BlockConfiguration;
using Quorval::Datatype;
using Quorval::InPort;
using Quorval::OutPort;

/// Counts from 1 to `count`, one number in each wave.
class Count : public Block {
public:
    Count(std::string name, const BlockConfiguration& config)
        : Block(std::move(name), config), count_(config.getInt("count", 3))
    {
        auto out = std::make_unique<OutPort<int>>("out", Datatype("int32"));
        out_ = out.get();
        add_outport(std::move(out));
    }

    void start() override { get_tools().request_run(); }

    bool run() override
    {
        out_->write(out_->value() + 1);
        get_tools().progress(static_cast<std::uint64_t>(out_->value()),
                             static_cast<std::uint64_t>(count_));
        get_tools().request_run();
        return out_->value() < count_;
    }

private:
    int count_;
    OutPort<int>* out_;  // owned by the block
};

class Double : public Block {
public:
    Double(std::string name, const BlockConfiguration& config) : Block(std::move(name), config)
    {
        auto in = std::make_unique<InPort<int>>("in", Datatype("int32"));
        auto out = std::make_unique<OutPort<int>>("out", Datatype("int32"));
        in_ = in.get();
        out_ = out.get();
        add_inport(std::move(in));
        add_outport(std::move(out));
    }

    bool run() override
    {
        out_->write(2 * in_->value());
        return true;
    }

private:
    InPort<int>* in_;  // owned by the block, as is the output
    OutPort<int>* out_;
};

class Print : public Block {
public:
    Print(std::string name, const BlockConfiguration& config)
        : Block(std::move(name), config),
          prefix_(config.getString("prefix", "")),
          flushes_(config.getBool("flush", false))
    {
        auto in = std::make_unique<InPort<int>>("in", Datatype("int32"));
        in_ = in.get();
        add_inport(std::move(in));
    }

    bool run() override
    {
        std::cout << prefix_ << in_->value() << '\n';
        if (flushes_) {
            std::cout << std::flush;
        }
        return true;
    }

private:
    std::string prefix_;
    bool flushes_;
    InPort<int>* in_;  // owned by the block
};

/// Asks the process to stop with its first number.
class Interrupt : public Block {
public:
    Interrupt(std::string name, const BlockConfiguration& config) : Block(std::move(name), config)
    {
        add_inport(std::make_unique<InPort<int>>("in", Datatype("int32")));
    }

    bool run() override
    {
        ::raise(SIGTERM);
        return true;
    }
};

/// Takes nothing but a type of its own.
class Odd : public Block {
public:
    Odd(std::string name, const BlockConfiguration& config) : Block(std::move(name), config)
    {
        add_inport(std::make_unique<InPort<int>>("in", Datatype("odd-type")));
    }
};

template <class T>
std::unique_ptr<Block> make(std::string name, const BlockConfiguration& config,
                            const Quorval::InitTools& /*tools*/)
{
    return std::make_unique<T>(std::move(name), config);
}

}  // namespace

int lib_register_cpp(Quorval::IRegistry& registry)
{
    registry.register_block_create_fn("Count", make<Count>);
    registry.register_block_create_fn("Double", make<Double>);
    registry.register_block_create_fn("Interrupt", make<Interrupt>);
    registry.register_block_create_fn("Odd", make<Odd>);
    registry.register_block_create_fn("Print", make<Print>);
    return 0;
}
