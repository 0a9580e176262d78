// The plug-in that the soak loads and unloads.
#include <quorval/block.h>
#include <quorval/pluginloader.h>

#include <memory>
#include <string>
#include <utility>

namespace {

using Quorval::Block;
using Quorval::BlockConfiguration;

class Counter : public Block {
public:
    using Block::Block;

    BlockConfiguration setup(const BlockConfiguration& config) override
    {
        make_eventport("tick");
        return {{"counted", config.getInt("from", 0) + 1}};
    }
};

}  // namespace

int lib_register_cpp(Quorval::IRegistry& registry)
{
    registry.register_block_create_fn(
        "counter",
        [](std::string name, const BlockConfiguration& config,
           const Quorval::InitTools& /*tools*/) -> std::unique_ptr<Quorval::Container> {
            return std::make_unique<Counter>(std::move(name), config);
        });
    return 0;
}
