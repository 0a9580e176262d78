// Plug-ins that cannot be used, each built with another REGISTER.
#include <quorval/codec.h>
#include <quorval/pluginloader.h>

#include <memory>
#include <stdexcept>

using namespace Quorval;

namespace {

[[maybe_unused]] void add_block(IRegistry& registry)
{
    registry.register_block_create_fn(
        "Gain", [](std::string name, const BlockConfiguration&, const InitTools&) {
            return std::make_unique<Block>(std::move(name));
        });
}

[[maybe_unused]] void add_codec(IRegistry& registry, const char* type)
{
    register_codec<int>(registry, type);
}

/// An exception whose code goes with the plug-in.
struct [[maybe_unused]] OwnException : std::exception {
    const char* what() const noexcept override { return "an exception of its own"; }
};

}  // namespace

int lib_register_cpp([[maybe_unused]] IRegistry& registry)
{
    REGISTER;
}
