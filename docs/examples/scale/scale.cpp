#include <quorval/block.h>
#include <quorval/pluginloader.h>

#include <memory>
#include <string>
#include <utility>

using namespace Quorval;

class Scale : public Block {
public:
    Scale(std::string name, const BlockConfiguration& config)
        : Block(std::move(name), config), factor_(config.getDouble("factor"))
    {
        auto in = std::make_unique<InPort<double>>("in", Datatype("double"));
        auto out = std::make_unique<OutPort<double>>("out", Datatype("double"));
        in_ = in.get();
        out_ = out.get();
        add_inport(std::move(in));
        add_outport(std::move(out));
    }

    bool run() override
    {
        out_->write(factor_ * in_->value());
        return true;
    }

private:
    double factor_;
    InPort<double>* in_;  // owned by the block, as is the output
    OutPort<double>* out_;
};

int lib_register_cpp(IRegistry& registry)
{
    registry.register_block_create_fn(
        "Scale", [](std::string name, const BlockConfiguration& config, const InitTools&) {
            return std::make_unique<Scale>(std::move(name), config);
        });
    return 0;
}
