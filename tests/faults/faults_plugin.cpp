// A plug-in of which the tests let the allocations fail.
#include <quorval/block.h>
#include <quorval/datatype.h>
#include <quorval/pluginloader.h>
#include <quorval/port.h>

#include <memory>
#include <stdexcept>
#include <string>

namespace {

using Quorval::Block;
using Quorval::BlockConfiguration;

class PlainBlock : public Block {
public:
    PlainBlock(std::string name, const BlockConfiguration& config) : Block(std::move(name), config)
    {
        add_inport(std::make_unique<Quorval::InPortInternal>(
            "an-input-with-a-long-port-name", Quorval::Datatype("a-type-with-a-long-name"), true));
    }

    BlockConfiguration setup(const BlockConfiguration& config) override
    {
        return config.getSubtree("returned");
    }
};

template <class Type>
std::unique_ptr<Quorval::Container> create(std::string name, const BlockConfiguration& config,
                                           const Quorval::InitTools& /*tools*/)
{
    return std::make_unique<Type>(std::move(name), config);
}

}  // namespace

int lib_register_cpp(Quorval::IRegistry& registry)
{
    registry.register_block_create_fn("a-plain-block-with-a-long-type-name", create<PlainBlock>);
    registry.register_block_create_fn("t", create<PlainBlock>);
    return 0;
}
