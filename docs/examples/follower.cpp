// The plug-in of the page on writing a plug-in.
#include <quorval/block.h>
#include <quorval/pluginloader.h>
#include <quorval/pstore.h>
#include "tools.h"

#include <cmath>
#include <ios>
#include <memory>
#include <stdexcept>
#include <string>
#include <utility>

namespace {

using namespace Quorval;

double read_weight(const BlockConfiguration& config)
{
    const double weight = config.getDouble("weight", 0.5);
    if (!(weight > 0 && weight <= 1)) {
        throw std::runtime_error("weight must be greater than 0 and at most 1");
    }
    return weight;
}

/// Follows its input slowly: each step goes a part of the way, `weight`. The level outlives the
/// program, and the event port "restart" sets it to 0.
class Follower : public Block {
public:
    Follower(std::string name, const BlockConfiguration& config)
        : Block(std::move(name), config), weight_(read_weight(config))
    {
        auto in = std::make_unique<InPort<double>>("in", Datatype("double"));
        auto out = std::make_unique<OutPort<double>>("out", Datatype("double"));
        in_ = in.get();
        out_ = out.get();
        add_inport(std::move(in));
        add_outport(std::move(out));
        restart_ = make_eventport("restart");
    }

    void start() override
    {
        if (pstore().get_path().empty()) {
            return;
        }
        try {
            out_->value() = pstore().load("level").getDouble("level");
        } catch (const std::ios_base::failure&) {
            get_tools().report(get_name() + " starts from 0");
        }
    }

    void stop() override
    {
        if (!pstore().get_path().empty()) {
            pstore().store("level", {{"level", out_->value()}});
        }
    }

    bool run() override
    {
        if (restart_->is_triggered()) {
            out_->value() = 0;
            return true;
        }
        if (!in_->is_triggered()) {
            return false;
        }
        out_->write(out_->value() + weight_ * (in_->value() - out_->value()));
        return true;
    }

    void reconfigure(const BlockConfiguration& merged, const BlockConfiguration& override) override
    {
        // What is left out of the override keeps its value: `merged` holds it. The read of the
        // override marks its element consumed, so that a misspelt key shows.
        weight_ = read_weight(merged);
        override.getDouble("weight", weight_);
    }

private:
    double weight_;
    InPort<double>* in_;
    OutPort<double>* out_;
    FdPort* restart_;
};

}  // namespace

int lib_register_cpp(IRegistry& registry)
{
    registry.register_block_create_fn(
        "Follower", [](std::string name, const BlockConfiguration& config, const InitTools&) {
            return std::make_unique<Follower>(std::move(name), config);
        });
    return 0;
}
