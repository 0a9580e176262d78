// Blocks that do next to nothing, so that what runs them shows.

#include <quorval/block.h>
#include <quorval/pluginloader.h>
#include <quorval/runtime/tools.h>
#include <quorval/settings.h>
#include "numbered_values.h"

#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <utility>

namespace {

using namespace Quorval;

/// Counts, in every wave.
class Count : public Block {
public:
    using Block::Block;

    void start() override { get_tools().request_run(); }

    bool run() override
    {
        out_->write(out_->value() + 1);
        get_tools().request_run();
        return true;
    }

private:
    OutPort<double>* out_ = add_output<double>(*this, "out");
};

/// Adds one to what it gets.
class Add : public Block {
public:
    using Block::Block;

    bool run() override
    {
        out_->write(in_->value() + 1);
        return true;
    }

private:
    InPort<double>* in_ = add_input<double>(*this, "in");
    OutPort<double>* out_ = add_output<double>(*this, "out");
};

/// Adds one to what it gets, and takes about 20 microseconds for that.
class Work : public Block {
public:
    using Block::Block;

    bool run() override
    {
        constexpr int kSteps = 15'000;
        std::uint64_t state = 1;
        for (int step = 0; step < kSteps; ++step) {
            state = state * 6364136223846793005U + 1442695040888963407U;
        }
        // Nobody else knows that this is never 0.
        out_->write(in_->value() + (state != 0 ? 1 : 0));
        return true;
    }

private:
    InPort<double>* in_ = add_input<double>(*this, "in");
    OutPort<double>* out_ = add_output<double>(*this, "out");
};

/// Reads eight bytes whenever its descriptor is readable.
class Read : public Block {
public:
    Read(std::string name, const BlockConfiguration& config)
        : Block(std::move(name), config), fd_(config.getInt("fd"))
    {
        make_fdport("fd", fd_, {true, false});
    }

    bool run() override
    {
        double value = 0;
        if (::read(fd_, &value, sizeof value) == sizeof value) {
            out_->write(out_->value() + value);
        }
        return true;
    }

private:
    int fd_;
    OutPort<double>* out_ = add_output<double>(*this, "out");
};

/// Has two inputs and a setting.
class Sum : public Block {
public:
    Sum(std::string name, const BlockConfiguration& config)
        : Block(std::move(name), config), factor_(config.getDouble("factor", 1))
    {
        add_input<double>(*this, "a");
        add_input<double>(*this, "b");
        add_output<double>(*this, "out")->write(factor_);
    }

private:
    double factor_;
};

/// Waits for something that never comes, and takes changes of its setting.
class Idle : public Block {
public:
    Idle(std::string name, const BlockConfiguration& config) : Block(std::move(name), config)
    {
        config.getInt("value", 0);
        make_eventport("never");
    }

    void reconfigure(const BlockConfiguration& merged,
                     const BlockConfiguration& /*override*/) override
    {
        merged.getInt("value");
    }
};

std::size_t size_of(const BlockConfiguration& config)
{
    return static_cast<std::size_t>(config.getInt("size"));
}

/// Gives a numbered value in each wave, up to the number that its descriptor says last.
class Give : public Block {
public:
    Give(std::string name, const BlockConfiguration& config)
        : Block(std::move(name), config), values_(size_of(config)), fd_(config.getInt("fd"))
    {
        make_fdport("fd", fd_, {true, false});
    }

    bool run() override
    {
        if (number_ == last_ && ::read(fd_, &last_, sizeof last_) != sizeof last_) {
            return false;
        }
        out_->value() = values_.make(++number_);
        out_->trigger();
        if (number_ < last_) {
            get_tools().request_run();
        }
        return true;
    }

private:
    quorval_bench::NumberedValues values_;
    int fd_;
    std::uint64_t number_ = 0;
    std::uint64_t last_ = 0;
    OutPort<std::string>* out_ = add_output<std::string>(*this, "out");
};

/// Takes numbered values, and answers the last one of each burst.
class Take : public Block {
public:
    Take(std::string name, const BlockConfiguration& config)
        : Block(std::move(name), config),
          arrivals_(config.getInt("fd"), size_of(config),
                    static_cast<std::uint64_t>(config.getInt("burst")))
    {
    }

    bool run() override
    {
        arrivals_.take(in_->value());
        return true;
    }

private:
    quorval_bench::Arrivals arrivals_;
    InPort<std::string>* in_ = add_input<std::string>(*this, "in");
};

/// Gives so many numbered values, one in each wave, and stops the graph.
class Burst : public Block {
public:
    Burst(std::string name, const BlockConfiguration& config)
        : Block(std::move(name), config),
          values_(size_of(config)),
          count_(static_cast<std::uint64_t>(config.getInt("count")))
    {
    }

    void start() override { get_tools().request_run(); }

    bool run() override
    {
        out_->value() = values_.make(++number_);
        out_->trigger();
        if (number_ < count_) {
            get_tools().request_run();
        } else {
            get_tools().stop("all values are given");
        }
        return true;
    }

private:
    quorval_bench::NumberedValues values_;
    std::uint64_t count_;
    std::uint64_t number_ = 0;
    OutPort<std::string>* out_ = add_output<std::string>(*this, "out");
};

template <class Made>
void add_type(IRegistry& registry, const char* type)
{
    registry.register_block_create_fn(
        type, [](std::string name, const BlockConfiguration& config, const InitTools&) {
            return std::unique_ptr<Container>(new Made(std::move(name), config));
        });
}

}  // namespace

int lib_register_cpp(IRegistry& registry)
{
    add_type<Burst>(registry, "Burst");
    add_type<Count>(registry, "Count");
    add_type<Add>(registry, "Add");
    add_type<Give>(registry, "Give");
    add_type<Idle>(registry, "Idle");
    add_type<Read>(registry, "Read");
    add_type<Sum>(registry, "Sum");
    add_type<Take>(registry, "Take");
    add_type<Work>(registry, "Work");
    return 0;
}
