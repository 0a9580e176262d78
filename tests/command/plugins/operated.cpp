// Blocks that are used and changed while their graph runs.
#include <quorval/block.h>
#include <quorval/runtime/tools.h>
#include <quorval/settings.h>

#include <systemd/sd-bus.h>

#include <csignal>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <iostream>
#include <memory>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

using namespace Quorval;

namespace {

struct ObjectSettings {
    std::string path = "/object";
    std::string interface = "test.Object";
};

const Settings<ObjectSettings>& object_settings()
{
    static const auto settings = Settings<ObjectSettings>("Offers an object on the bus.")
                                     .add("path", &ObjectSettings::path, "of the object")
                                     .add("interface", &ObjectSettings::interface, "of the object");
    return settings;
}

/// An object with functions of every sort.
class Object : public Block {
public:
    Object(std::string name, const BlockConfiguration& config)
        : Block(std::move(name), config), out_(add_output<std::int32_t>(*this, "out"))
    {
        const ObjectSettings settings = object_settings().read(config);
        add_dbus(settings.path, settings.interface, kTable, &state_);
    }

    bool run() override
    {
        for (sd_bus_message* message : waiting_) {
            sd_bus_reply_method_return(message, "s", "late");
            sd_bus_message_unref(message);
        }
        waiting_.clear();
        return true;
    }

    void stop() override
    {
        for (sd_bus_message* message : waiting_) {
            sd_bus_message_unref(message);
        }
    }

private:
    /// What the functions get, and where the property lies.
    struct State {
        Object* self;
        std::int32_t level;
    };

    static Object& self(void* state) { return *static_cast<State*>(state)->self; }

    static int echo(sd_bus_message* message, void* /*object*/, sd_bus_error* /*error*/)
    {
        const char* text = nullptr;
        sd_bus_message_read(message, "s", &text);
        return sd_bus_reply_method_return(message, "s", text);
    }

    static int fail(sd_bus_message* /*message*/, void* /*object*/, sd_bus_error* /*error*/)
    {
        throw std::runtime_error("not today");
    }

    static int fire(sd_bus_message* message, void* object, sd_bus_error* /*error*/)
    {
        self(object).out_->write(17);
        return sd_bus_reply_method_return(message, "");
    }

    static int wait(sd_bus_message* message, void* object, sd_bus_error* /*error*/)
    {
        self(object).waiting_.push_back(sd_bus_message_ref(message));
        self(object).get_tools().request_run();
        return 1;
    }

    static int get_broken(sd_bus* /*bus*/, const char* /*path*/, const char* /*interface*/,
                          const char* /*property*/, sd_bus_message* /*reply*/, void* /*object*/,
                          sd_bus_error* /*error*/)
    {
        throw 5;
    }

    static const sd_bus_vtable kTable[];

    OutPort<std::int32_t>* out_;
    std::vector<sd_bus_message*> waiting_;
    State state_{this, 3};
};

// NOLINTBEGIN(cppcoreguidelines-avoid-c-arrays)
const sd_bus_vtable Object::kTable[] = {
    SD_BUS_VTABLE_START(0),
    SD_BUS_METHOD("Echo", "s", "s", echo, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD("Fail", "", "", fail, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD("Fire", "", "", fire, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD("Wait", "", "s", wait, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD("Nothing", "", "", nullptr, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD("Privileged", "", "", fire, 0),
    SD_BUS_WRITABLE_PROPERTY("Level", "i", nullptr, nullptr, offsetof(State, level),
                             SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_PROPERTY("Broken", "i", get_broken, 0, SD_BUS_VTABLE_PROPERTY_EXPLICIT),
    SD_BUS_VTABLE_END};
// NOLINTEND(cppcoreguidelines-avoid-c-arrays)

/// Ends the process when it is called.
class Deadly : public Block {
public:
    Deadly(std::string name, const BlockConfiguration& config) : Block(std::move(name), config)
    {
        add_dbus("/deadly", "test.Deadly", kTable, nullptr);
    }

    bool run() override { return true; }

private:
    static int crash(sd_bus_message* /*message*/, void* /*object*/, sd_bus_error* /*error*/)
    {
        return ::raise(SIGSEGV);
    }

    static int exit(sd_bus_message* /*message*/, void* /*object*/, sd_bus_error* /*error*/)
    {
        std::exit(0);
    }

    static const sd_bus_vtable kTable[];
};

// NOLINTBEGIN(cppcoreguidelines-avoid-c-arrays)
const sd_bus_vtable Deadly::kTable[] = {
    SD_BUS_VTABLE_START(0), SD_BUS_METHOD("Crash", "", "", crash, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD("Exit", "", "", exit, SD_BUS_VTABLE_UNPRIVILEGED), SD_BUS_VTABLE_END};
// NOLINTEND(cppcoreguidelines-avoid-c-arrays)

struct CarefulSettings {
    int level = 1;
    std::string label = "none";
    int fixed = 0;
};

const Settings<CarefulSettings>& careful_settings()
{
    static const auto settings = Settings<CarefulSettings>("Bears no 7.")
                                     .add("level", &CarefulSettings::level, "a number")
                                     .range(0, 10)
                                     .live()
                                     .add("label", &CarefulSettings::label, "a text")
                                     .live()
                                     .add("fixed", &CarefulSettings::fixed, "a number");
    return settings;
}

/// Never has anything to do, and tells of the changes that it gets.
class Careful : public Block {
public:
    Careful(std::string name, const BlockConfiguration& config)
        : Block(std::move(name), config), settings_(careful_settings().read(config))
    {
        make_eventport("never");
    }

    void reconfigure(const BlockConfiguration& /*merged*/,
                     const BlockConfiguration& override) override
    {
        const CarefulSettings changed = careful_settings().apply(settings_, override);
        std::cout << get_name() << " " << changed.level << " " << changed.label << std::endl;
        if (changed.level == 7) {
            throw std::runtime_error("7 is odd");
        }
        settings_ = changed;
    }

private:
    CarefulSettings settings_;
};

}  // namespace

int lib_register_cpp(IRegistry& registry)
{
    register_block<Object>(registry, "Object", object_settings());
    register_block<Careful>(registry, "Careful", careful_settings());
    registry.register_block_create_fn(
        "Deadly",
        [](const std::string& name, const BlockConfiguration& config, const InitTools& /*tools*/) {
            return std::make_unique<Deadly>(name, config);
        });
    return 0;
}
