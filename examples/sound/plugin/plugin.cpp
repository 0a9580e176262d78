// The entry point of the plug-in: the block types that it offers.
#include <quorval/pluginloader.h>
#include "blocks.h"

#include <memory>
#include <string>
#include <utility>

namespace {

template <class Type>
void offer(Quorval::IRegistry& registry, const std::string& type)
{
    registry.register_block_create_fn(
        type,
        [](std::string name, const Quorval::BlockConfiguration& config,
           const Quorval::InitTools&) -> std::unique_ptr<Quorval::Container> {
            return std::make_unique<Type>(std::move(name), config);
        });
}

}  // namespace

int lib_register_cpp(Quorval::IRegistry& registry)
{
    registry.register_block_create_fn(
        "SoundFileSource", [](std::string name, const Quorval::BlockConfiguration& config,
                              const Quorval::InitTools& tools) {
            return std::make_unique<sound::SoundFileSource>(std::move(name), config, tools);
        });
    offer<sound::Gain>(registry, "Gain");
    offer<sound::Fir>(registry, "Fir");
    offer<sound::LevelMeter>(registry, "LevelMeter");
    offer<sound::SoundFileSink>(registry, "SoundFileSink");
    return 0;
}
