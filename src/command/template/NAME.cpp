// The plug-in @NAME@: its types of blocks.
#include <quorval/settings.h>

#include <string>
#include <utility>

namespace {

using namespace Quorval;

struct SmoothSettings {
    double weight = 0.25;
};

const Settings<SmoothSettings>& smooth_settings()
{
    static const auto settings =
        Settings<SmoothSettings>("Smooths a signal.")
            .add("weight", &SmoothSettings::weight, "how much of a change is followed at once")
            .range(0.001, 1)
            .live();
    return settings;
}

/// Each value of the input takes the output a part of the way, `weight`.
class Smooth : public Block {
public:
    Smooth(std::string name, const BlockConfiguration& config)
        : Block(std::move(name), config), settings_(smooth_settings().read(config))
    {
    }

    bool run() override
    {
        out_->write(out_->value() + settings_.weight * (in_->value() - out_->value()));
        return true;  // false: the block is done
    }

    void reconfigure(const BlockConfiguration& /*merged*/,
                     const BlockConfiguration& override) override
    {
        settings_ = smooth_settings().apply(settings_, override);
    }

private:
    SmoothSettings settings_;
    InPort<double>* in_ = add_input<double>(*this, "in");
    OutPort<double>* out_ = add_output<double>(*this, "out");
};

}  // namespace

int lib_register_cpp(Quorval::IRegistry& registry)
{
    register_block<Smooth>(registry, "Smooth", smooth_settings());
    return 0;
}
