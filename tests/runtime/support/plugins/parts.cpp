// The blocks that the tests make graphs of, the awkward ones too.
#include <quorval/block.h>
#include <quorval/codec.h>
#include <quorval/config.h>
#include <quorval/log.h>
#include <quorval/pluginloader.h>
#include <quorval/port.h>
#include <quorval/pstore.h>
#include <quorval/runtime/tools.h>
#include <quorval/settings.h>
#include <quorval/superblock.h>

#include <cstdio>
#include <filesystem>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

using namespace Quorval;

namespace {

/// `in` to `out`; reads "factor" and tells that it was made.
struct Gain : Block {
    Gain(const std::string& name, const BlockConfiguration& config) : Block(name, config)
    {
        ilog(LOGLEVEL_DEBUG) << "made " << name;
        config.getDouble("factor", 1.0);
        add_inport(std::make_unique<InPort<double>>("in", Datatype("double")));
        add_outport(std::make_unique<OutPort<double>>("out", Datatype("double")));
    }
};

/// Has an input "in" that leads to one of another name, or nowhere.
struct Leads : Block {
    struct Lead : InPortProvider {
        explicit Lead(bool leads_nowhere)
            : InPortProvider("in", Datatype("double"), true), is_dead(leads_nowhere)
        {
        }
        InPortInternal* get_connectable() override { return is_dead ? nullptr : &end; }
        bool is_dead;
        InPort<double> end{"end", Datatype("double")};
    };

    Leads(const std::string& name, const BlockConfiguration& config) : Block(name, config)
    {
        add_inport(std::make_unique<Lead>(config.getBool("nowhere", false)));
    }
};

/// Has the ports that its configuration lists, as "name:type"; reads everything.
struct Ports : Block {
    Ports(const std::string& name, const BlockConfiguration& config) : Block(name, config)
    {
        for (const std::string& port : config.getStringVector("inputs", {})) {
            add_inport(std::make_unique<InPort<double>>(name_of(port), Datatype(type_of(port))));
        }
        for (const std::string& port : config.getStringVector("outputs", {})) {
            add_outport(std::make_unique<OutPort<double>>(name_of(port), Datatype(type_of(port))));
        }
    }

    static std::string name_of(const std::string& port) { return port.substr(0, port.find(':')); }
    static std::string type_of(const std::string& port) { return port.substr(port.find(':') + 1); }
};

/// An exception whose code goes with the plug-in.
struct OwnException : std::exception {
    const char* what() const noexcept override { return "an exception of its own"; }
};

/// Cannot be made twice on the same store, and throws what goes with the plug-in.
struct Once : Block {
    Once(const std::string& name, const BlockConfiguration& config) : Block(name, config)
    {
        if (std::filesystem::exists(pstore().get_path() + "once")) {
            throw OwnException();
        }
        pstore().store("once", {});
    }
    bool run() override { throw OwnException(); }
};

/// Reads its keys in setup().
struct Late : Block {
    explicit Late(const std::string& name) : Block(name) {}
    BlockConfiguration setup(const BlockConfiguration& config) override
    {
        config.getInt("late", 0);
        return {};
    }
};

struct ThrowsInSetup : Block {
    explicit ThrowsInSetup(const std::string& name) : Block(name) {}
    BlockConfiguration setup(const BlockConfiguration& /*config*/) override
    {
        throw std::runtime_error("no setup\ntoday");
    }
};

/// Tells what it was given by throwing it.
struct Tells : Block {
    Tells(const std::string& name, const InitTools& tools) : Block(name)
    {
        throw std::runtime_error(name + " in " + tools.graph + (tools.is_dry ? ", dry" : ""));
    }
};

struct DeclaredSettings {
    int needed = 1;
    std::vector<double> taps = {0, 1};
    std::string mode = "up";
};

const Settings<DeclaredSettings>& declared_settings()
{
    static const auto settings = Settings<DeclaredSettings>("Declares its settings.")
                                     .add("needed", &DeclaredSettings::needed, "an int")
                                     .range(1, 9)
                                     .required()
                                     .add("taps", &DeclaredSettings::taps, "a list")
                                     .range(0, 1)
                                     .length(2, 3)
                                     .add("mode", &DeclaredSettings::mode, "a word")
                                     .choices({"up", "down"});
    return settings;
}

struct Declared : Block {
    Declared(const std::string& name, const BlockConfiguration& config) : Block(name, config)
    {
        declared_settings().read(config);
    }
};

/// A data type of the plug-in's own.
struct Label {
    std::string text;

    template <class Archive>
    void serialize(Archive& archive)
    {
        archive(text);
    }
};

struct Prints : Block {
    explicit Prints(const std::string& name) : Block(name) { std::puts("printed by a block"); }
    ~Prints() override { std::puts("printed at the end"); }
};

template <class Make>
void add(IRegistry& registry, const std::string& type, Make make)
{
    registry.register_block_create_fn(type,
                                      [make](std::string name, const BlockConfiguration& config,
                                             const InitTools& tools) -> std::unique_ptr<Container> {
                                          return make(name, config, tools);
                                      });
}

using Name = const std::string&;
using Config = const BlockConfiguration&;
using Tools = const InitTools&;
using Made = std::unique_ptr<Container>;

void add_awkward(IRegistry& registry)
{
    add(registry, "ThrowsInSetup",
        [](Name name, Config, Tools) { return std::make_unique<ThrowsInSetup>(name); });
    add(registry, "Throws",
        [](Name, Config, Tools) -> Made { throw std::runtime_error("no\x1b[31m block"); });
    add(registry, "ThrowsItsOwn", [](Name, Config, Tools) -> Made { throw OwnException(); });
    add(registry, "ThrowsANumber", [](Name, Config, Tools) -> Made { throw 42; });
    add(registry, "Null", [](Name, Config, Tools) -> Made { return nullptr; });
    add(registry, "Tells",
        [](Name name, Config, Tools tools) { return std::make_unique<Tells>(name, tools); });
    add(registry, "Composite",
        [](Name name, Config, Tools) { return std::make_unique<Superblock>(name); });
    add(registry, "Renamed",
        [](Name, Config, Tools) { return std::make_unique<Block>("another"); });
    registry.register_block_create_fn("Empty", nullptr);
}

}  // namespace

int lib_register_cpp(IRegistry& registry)
{
    add(registry, "Gain",
        [](Name name, Config config, Tools) { return std::make_unique<Gain>(name, config); });
    add(registry, "Ports",
        [](Name name, Config config, Tools) { return std::make_unique<Ports>(name, config); });
    add(registry, "Leads",
        [](Name name, Config config, Tools) { return std::make_unique<Leads>(name, config); });
    add(registry, "Once",
        [](Name name, Config config, Tools) { return std::make_unique<Once>(name, config); });
    add(registry, "Late", [](Name name, Config, Tools) { return std::make_unique<Late>(name); });
    add(registry, "Prints",
        [](Name name, Config, Tools) { return std::make_unique<Prints>(name); });
    add(registry, "Stores",
        [](Name name, Config config, Tools) { return std::make_unique<Block>(name, config); });
    register_block<Declared>(registry, "Declared", declared_settings());
    register_codec<Label>(registry, "label");
    add_awkward(registry);
    return 0;
}
