// Blocks with a descriptor port of a class of its own and with an object on a bus; built without
// type information, too.
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

/// Says that it has an object on a bus, which is never asked for anything.
struct OnBus : Block {
    OnBus(const std::string& name, const BlockConfiguration& config) : Block(name, config)
    {
        add_dbus("/" + name, "quorval.test.OnBus", reinterpret_cast<const sd_bus_vtable*>(this),
                 nullptr);
    }
};

struct NoSettings {};

}  // namespace

int lib_register_cpp(IRegistry& registry)
{
    register_block<OwnPort>(registry, "OwnPort", Settings<NoSettings>("Has a port."));
    register_block<OnBus>(registry, "OnBus", Settings<NoSettings>("Has an object."));
    return 0;
}
