// A plug-in with the least block that can stand in a chain.

#include <quorval/block.h>
#include <quorval/pluginloader.h>

#include <memory>
#include <string>
#include <utility>

namespace {

using namespace Quorval;

class Relay : public Block {
public:
    Relay(std::string name, const BlockConfiguration& config) : Block(std::move(name), config)
    {
        add_inport(std::make_unique<InPort<double>>("in", Datatype("double")));
        add_outport(std::make_unique<OutPort<double>>("out", Datatype("double")));
    }
};

}  // namespace

int lib_register_cpp(IRegistry& registry)
{
    registry.register_block_create_fn(
        "relay", [](std::string name, const BlockConfiguration& config, const InitTools&) {
            return std::unique_ptr<Container>(new Relay(std::move(name), config));
        });
    return 0;
}
