// Types that look different when they are inspected.
#include <quorval/block.h>
#include <quorval/pluginloader.h>
#include <quorval/settings.h>
#include <quorval/superblock.h>

#include <systemd/sd-bus.h>

#include <csignal>
#include <cstdlib>
#include <memory>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace {

using namespace Quorval;

struct FullSettings {
    double factor = 1;
    int count = 0;
    std::string mode = "linear";
    std::vector<float> taps = {0.1F, 0.5F};
};

Settings<FullSettings> full_settings()
{
    Settings<FullSettings> settings("Has a bit of everything.");
    settings.add("factor", &FullSettings::factor, "what samples are multiplied by")
        .range(-1000, 1000)
        .live();
    settings.add("count", &FullSettings::count, "how many").required();
    settings.add("mode", &FullSettings::mode, "how").choices({"linear", "dB"});
    settings.add("taps", &FullSettings::taps, "of the filter").length(1, 4);
    return settings;
}

const sd_bus_vtable kTable[] = {SD_BUS_VTABLE_START(0), SD_BUS_VTABLE_END};

class Full : public Block {
public:
    Full(std::string name, const BlockConfiguration& config) : Block(std::move(name), config)
    {
        full_settings().read(config);
        add_input<double>(*this, "in");
        add_output<std::string>(*this, "out");
        make_eventport("event");
        add_dbus("/full", "org.example.Full", kTable, nullptr);
    }
};

std::unique_ptr<Container> crash(const std::string& /*name*/, const BlockConfiguration& /*config*/,
                                 const InitTools& /*tools*/)
{
    ::raise(SIGSEGV);
    return nullptr;
}

std::unique_ptr<Container> leave(const std::string& /*name*/, const BlockConfiguration& /*config*/,
                                 const InitTools& /*tools*/)
{
    std::exit(0);
}

/// Needs "path", which nothing declares.
std::unique_ptr<Container> make_plain(std::string name, const BlockConfiguration& config,
                                      const InitTools& /*tools*/)
{
    config.getString("path");
    return std::make_unique<Block>(std::move(name));
}

std::unique_ptr<Container> make_superblock(std::string name, const BlockConfiguration& /*config*/,
                                           const InitTools& /*tools*/)
{
    return std::make_unique<Superblock>(std::move(name));
}

}  // namespace

int lib_register_cpp(IRegistry& registry)
{
    registry.register_block_create_fn("Crash", crash);
    registry.register_block_create_fn("Exit", leave);
    register_block<Full>(registry, "Full", full_settings());
    registry.register_block_create_fn("Plain", make_plain);
    registry.register_block_create_fn("Super", make_superblock);
    return 0;
}
