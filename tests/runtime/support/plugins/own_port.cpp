// A block with a descriptor port of a class of its own; built without type information, too.
#include <quorval/pluginloader.h>
#include <quorval/settings.h>

#include <memory>
#include <string>

using namespace Quorval;

namespace {

struct StandardInput : FdPort {
    StandardInput() : FdPort("input", Datatype("extfd"), 0, {false, false}, true) {}
};

struct OwnPort : Block {
    OwnPort(const std::string& name, const BlockConfiguration& config) : Block(name, config)
    {
        add_fdport(std::make_unique<StandardInput>());
    }
};

struct NoSettings {};

}  // namespace

int lib_register_cpp(IRegistry& registry)
{
    register_block<OwnPort>(registry, "OwnPort", Settings<NoSettings>("Has a port."));
    return 0;
}
