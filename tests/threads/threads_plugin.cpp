// A plug-in whose blocks come and go on many threads.
#include <quorval/block.h>
#include <quorval/datatype.h>
#include <quorval/pluginloader.h>
#include <quorval/port.h>

#include <memory>
#include <string>
#include <utility>

namespace {

using Quorval::Block;
using Quorval::BlockConfiguration;
using Quorval::Datatype;

class Doubler : public Block {
public:
    Doubler(std::string name, const BlockConfiguration& config)
        : Block(std::move(name), config), factor_(config.getInt("factor", 2))
    {
        auto input = std::make_unique<Quorval::InPort<int>>("in", Datatype("int32"));
        input_ = input.get();
        add_inport(std::move(input));
        auto output = std::make_unique<Quorval::OutPort<int>>("out", Datatype("int32"));
        output_ = output.get();
        add_outport(std::move(output));
        make_eventport("wake");
    }

    bool run() override
    {
        output_->write(factor_ * (input_->get() != nullptr ? input_->value() : 1));
        return true;
    }

private:
    int factor_;
    Quorval::InPort<int>* input_;
    Quorval::OutPort<int>* output_;
};

}  // namespace

int lib_register_cpp(Quorval::IRegistry& registry)
{
    registry.register_block_create_fn(
        "doubler",
        [](std::string name, const BlockConfiguration& config,
           const Quorval::InitTools& /*tools*/) -> std::unique_ptr<Quorval::Container> {
            return std::make_unique<Doubler>(std::move(name), config);
        });
    return 0;
}
