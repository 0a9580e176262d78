// Blocks that do something when they run, and tell the log of it.
#include <quorval/block.h>
#include <quorval/log.h>
#include <quorval/pluginloader.h>
#include <quorval/runtime/tools.h>

#include <systemd/sd-bus.h>
#include <systemd/sd-event.h>

#include <array>
#include <atomic>
#include <csignal>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>

using namespace Quorval;

namespace {

void tell(const std::string& text)
{
    ilog(LOGLEVEL_INFO) << text;
}

/// Counts up to `count`, in one wave after the other.
class Count : public Block {
public:
    Count(std::string name, const BlockConfiguration& config)
        : Block(std::move(name), config), count_(config.getInt("count", 3))
    {
        auto port = std::make_unique<OutPort<int>>("out", Datatype("int"));
        out_ = port.get();
        add_outport(std::move(port));
    }

    void start() override { get_tools().request_run(); }

    bool run() override
    {
        out_->write(++done_);
        get_tools().progress(static_cast<std::uint64_t>(done_), static_cast<std::uint64_t>(count_));
        get_tools().request_run();
        return done_ < count_;
    }

private:
    int count_;
    int done_ = 0;
    OutPort<int>* out_;
};

/// A source with nothing to do that ends the event loop in the operation `at`.
class EndLoop : public Block {
public:
    EndLoop(std::string name, const BlockConfiguration& config)
        : Block(std::move(name), config), at_(config.getString("at"))
    {
        make_eventport("never");
    }

    void start() override
    {
        get_tools().request_run();
        end_at("start");
    }

    bool run() override
    {
        end_at("run");
        return true;
    }

private:
    void end_at(const std::string& operation)
    {
        if (operation == at_) {
            sd_event_exit(get_tools().loop(), 0);
        }
    }

    std::string at_;
};

/// Tells of all that is done to it. It fails in the operation `trouble`, and raises `signal` while
/// it is started; `is_idle` makes it a source that never has anything to do.
class Tell : public Block {
public:
    Tell(std::string name, const BlockConfiguration& config)
        : Block(std::move(name), config),
          trouble_(config.getString("trouble", "")),
          signal_(config.getInt("signal", 0))
    {
        config.getInt("x", 0);
        config.getInt("y", 0);
        if (config.getBool("is_idle", false)) {
            make_eventport("never");
        }
        auto port = std::make_unique<InPort<int>>("in", Datatype("int"));
        in_ = port.get();
        add_inport(std::move(port));
    }

    void start() override
    {
        tell("start " + get_name());
        fail_at("start");
        if (signal_ != 0) {
            std::raise(signal_);
        }
    }

    void stop() override
    {
        tell("stop " + get_name());
        fail_at("stop");
    }

    bool run() override
    {
        tell("run " + get_name() + " " + std::to_string(in_->value()));
        fail_at("run");
        return true;
    }

    void reconfigure(const BlockConfiguration& /*merged*/,
                     const BlockConfiguration& override) override
    {
        const int x = override.getInt("x", -1);
        tell("change " + get_name() + " " + std::to_string(x) + " " +
             std::to_string(override.getInt("y", -1)));
        if (x > 100) {
            throw std::runtime_error("x is too large");
        }
    }

private:
    void fail_at(const std::string& operation) const
    {
        if (trouble_ == operation) {
            throw std::runtime_error("trouble");
        }
    }

    std::string trouble_;
    int signal_;
    InPort<int>* in_;
};

/// A source with nothing to do that writes `x` when it is changed.
class Echo : public Block {
public:
    Echo(std::string name, const BlockConfiguration& config) : Block(std::move(name), config)
    {
        config.getInt("x", 0);
        make_eventport("never");
        auto port = std::make_unique<OutPort<int>>("out", Datatype("int"));
        out_ = port.get();
        add_outport(std::move(port));
    }

    void reconfigure(const BlockConfiguration& merged,
                     const BlockConfiguration& /*override*/) override
    {
        out_->write(merged.getInt("x"));
    }

private:
    OutPort<int>* out_;
};

// NOLINTNEXTLINE(cppcoreguidelines-avoid-c-arrays,modernize-avoid-c-arrays)
const sd_bus_vtable kOffered[] = {
    SD_BUS_VTABLE_START(0), SD_BUS_METHOD("Nothing", "", "", nullptr, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_VTABLE_END};

/// A source with nothing to do that offers an object at the path `at`.
class Offer : public Block {
public:
    Offer(std::string name, const BlockConfiguration& config) : Block(std::move(name), config)
    {
        make_eventport("never");
        add_dbus(config.getString("at"), "test.Offered", kOffered, nullptr);
    }
};

/// A thread of its own asks for a run again and again, until the block is destroyed. With `reloads`
/// it sends SIGHUP in each fiftieth of its runs.
class Threaded : public Block {
public:
    Threaded(std::string name, const BlockConfiguration& config)
        : Block(std::move(name), config), reloads_(config.getBool("reloads", false))
    {
    }
    Threaded(const Threaded&) = delete;
    Threaded& operator=(const Threaded&) = delete;
    ~Threaded() override
    {
        ends_ = true;
        if (thread_.joinable()) {
            thread_.join();
        }
    }

    void start() override
    {
        get_tools().request_run();
        thread_ = std::thread([this, &tools = get_tools()] {
            while (!ends_) {
                tools.request_run();
                std::this_thread::yield();
            }
        });
    }

    bool run() override
    {
        constexpr int kEnough = 200;
        constexpr int kPause = 50;
        if (reloads_ && runs_ % kPause == 0) {
            std::raise(SIGHUP);
        }
        if (++runs_ == kEnough) {
            get_tools().stop("enough");
        }
        return true;
    }

private:
    bool reloads_;
    std::atomic<bool> ends_{false};
    int runs_ = 0;
    std::thread thread_;
};

/// Threads of its own log, from its constructor on until it is destroyed. A run fails where they
/// lost their sink meanwhile.
class Talkative : public Block {
public:
    Talkative(std::string name, const BlockConfiguration& config) : Block(std::move(name), config)
    {
        for (std::thread& thread : threads_) {
            thread = std::thread([this] {
                while (!ends_) {
                    tell("talk");
                    std::this_thread::yield();
                }
            });
        }
    }
    Talkative(const Talkative&) = delete;
    Talkative& operator=(const Talkative&) = delete;
    ~Talkative() override
    {
        ends_ = true;
        for (std::thread& thread : threads_) {
            thread.join();
        }
    }

    void start() override { get_tools().request_run(); }

    bool run() override
    {
        if (loginstance.get() != sink_) {
            throw std::runtime_error("there is another sink");
        }
        get_tools().request_run();
        return ++runs_ < 100;
    }

private:
    const LogInstance* sink_ = loginstance.get();
    std::atomic<bool> ends_{false};
    int runs_ = 0;
    std::array<std::thread, 2> threads_;
};

template <class Kind>
void add(IRegistry& registry, const std::string& type)
{
    registry.register_block_create_fn(type,
                                      [](std::string name, const BlockConfiguration& config,
                                         const InitTools& /*tools*/) -> std::unique_ptr<Container> {
                                          return std::make_unique<Kind>(std::move(name), config);
                                      });
}

}  // namespace

int lib_register_cpp(IRegistry& registry)
{
    add<Count>(registry, "Count");
    add<Tell>(registry, "Tell");
    add<Echo>(registry, "Echo");
    add<Offer>(registry, "Offer");
    add<EndLoop>(registry, "EndLoop");
    add<Talkative>(registry, "Talkative");
    add<Threaded>(registry, "Threaded");
    return 0;
}
