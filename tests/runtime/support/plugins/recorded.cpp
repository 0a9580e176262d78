// Blocks of graphs that are recorded and replayed. They log all that they see.
#include <quorval/block.h>
#include <quorval/codec.h>
#include <quorval/log.h>
#include <quorval/pluginloader.h>
#include <quorval/runtime/tools.h>
#include <quorval/settings.h>

#include <chrono>
#include <csignal>
#include <cstdint>
#include <stdexcept>
#include <string>
#include <utility>

using namespace Quorval;

namespace {

struct TickerSettings {
    int count = 5;
};

const Settings<TickerSettings>& ticker_settings()
{
    static const auto settings = Settings<TickerSettings>("Counts, from 100 on.")
                                     .add("count", &TickerSettings::count, "how far");
    return settings;
}

/// Gives 100 while it is started, then one number after the other, a little time between them.
class Ticker : public Block {
public:
    Ticker(std::string name, const BlockConfiguration& config)
        : Block(std::move(name), config),
          count_(ticker_settings().read(config).count),
          out_(add_output<std::int64_t>(*this, "out")),
          odd_(add_output<std::int64_t>(*this, "odd"))
    {
    }

    void start() override
    {
        ilog(LOGLEVEL_INFO) << "start " << get_name();
        out_->write(100);
        get_tools().request_run();
    }

    bool run() override
    {
        ++done_;
        out_->write(100 + done_);
        if (done_ % 2 != 0) {
            odd_->write(done_);
        }
        get_tools().run_at(get_tools().now() + std::chrono::microseconds(100));
        return done_ < count_;
    }

private:
    int count_;
    int done_ = 0;
    OutPort<std::int64_t>* out_;
    OutPort<std::int64_t>* odd_;
};

struct Nothing {};

const Settings<Nothing>& no_settings()
{
    static const auto settings = Settings<Nothing>("Has no settings.");
    return settings;
}

/// Logs its inputs and the time; `out` depends on all that it has seen. Asks for more runs.
class Work : public Block {
public:
    Work(std::string name, const BlockConfiguration& config)
        : Block(std::move(name), config),
          in_(add_input<std::int64_t>(*this, "in")),
          late_(add_input<std::int64_t>(*this, "late")),
          out_(add_output<std::int64_t>(*this, "out"))
    {
    }

    bool run() override
    {
        ilog(LOGLEVEL_INFO) << get_name() << " in " << show(*in_) << ", late " << show(*late_)
                            << ", at " << get_tools().now().count();
        if (in_->is_triggered()) {
            sum_ = 3 * sum_ + in_->value();
            get_tools().run_at(get_tools().now() + std::chrono::microseconds(1));
            if (in_->value() % 2 == 0) {
                get_tools().request_run();
            }
            out_->write(sum_);
        }
        return true;
    }

    void stop() override { ilog(LOGLEVEL_INFO) << get_name() << " ends with " << show(*in_); }

private:
    static std::string show(const InPort<std::int64_t>& port)
    {
        return (port.get() == nullptr ? "nothing" : std::to_string(port.value())) +
               (port.is_triggered() ? "!" : "");
    }

    InPort<std::int64_t>* in_;
    InPort<std::int64_t>* late_;
    OutPort<std::int64_t>* out_;
    std::int64_t sum_ = 0;
};

/// Has an output for texts.
class Text : public Block {
public:
    Text(std::string name, const BlockConfiguration& config) : Block(std::move(name), config)
    {
        add_output<std::string>(*this, "out");
    }
};

/// A value whose codec refuses what is above 1, and crashes below 0.
struct Fussy {
    int value = 0;

    template <class Archive>
    void save(Archive& archive) const
    {
        if (value > 1) {
            throw std::runtime_error("too much");
        }
        crash_below_zero();
        archive(value);
    }
    template <class Archive>
    void load(Archive& archive)
    {
        archive(value);
        crash_below_zero();
    }

    void crash_below_zero() const
    {
        if (value < 0) {
            ::raise(SIGSEGV);
        }
    }
};

struct Opaque {};

}  // namespace

template <>
struct Quorval::PortType<Fussy> {
    static constexpr const char* name() { return "fussy"; }
};
template <>
struct Quorval::PortType<Opaque> {
    static constexpr const char* name() { return "opaque"; }
};

namespace {

/// A source whose values cannot all be recorded.
class Odd : public Block {
public:
    Odd(std::string name, const BlockConfiguration& config)
        : Block(std::move(name), config),
          fussy_(add_output<Fussy>(*this, "fussy")),
          opaque_(add_output<Opaque>(*this, "opaque"))
    {
    }

    void start() override { get_tools().request_run(); }

    bool run() override
    {
        fussy_->write({++done_});
        opaque_->trigger();
        get_tools().request_run();
        return done_ < 3;
    }

private:
    int done_ = 0;
    OutPort<Fussy>* fussy_;
    OutPort<Opaque>* opaque_;
};

}  // namespace

int lib_register_cpp(IRegistry& registry)
{
    register_block<Ticker>(registry, "Ticker", ticker_settings());
    register_block<Work>(registry, "Work", no_settings());
    register_block<Text>(registry, "Text", no_settings());
    register_block<Odd>(registry, "Odd", no_settings());
    register_codec<Fussy>(registry, "fussy");
    return 0;
}
