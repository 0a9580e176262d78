// A plug-in whose block type declares its settings. It does not know what InitTools are.
#include <quorval/settings.h>

namespace {

using Quorval::BlockConfiguration;
using Quorval::Settings;

#ifndef MOST
#define MOST 1000
#endif

struct GainSettings {
    double factor = 1;
    std::string mode = "linear";
    std::vector<double> taps = {1};
};

const Settings<GainSettings>& gain_settings()
{
    static const auto settings =
        Settings<GainSettings>("Multiplies every sample.")
            .add("factor", &GainSettings::factor, "what samples are multiplied by")
            .range(-MOST, MOST)
            .live()
            .add("mode", &GainSettings::mode, "how")
            .choices({"linear", "dB"})
            .add("taps", &GainSettings::taps, "of the filter")
            .length(1, 1024);
    return settings;
}

class Gain : public Quorval::Block {
public:
    Gain(std::string name, const BlockConfiguration& config)
        : Block(std::move(name), config),
          settings_(gain_settings().read(config)),
          in_(Quorval::add_input<double>(*this, "in")),
          out_(Quorval::add_output<double>(*this, "out"))
    {
    }

    bool run() override
    {
        out_->write(in_->value() * settings_.factor);
        return true;
    }

    void reconfigure(const BlockConfiguration& /*merged*/,
                     const BlockConfiguration& override) override
    {
        settings_ = gain_settings().apply(settings_, override);
    }

private:
    GainSettings settings_;
    Quorval::InPort<double>* in_;
    Quorval::OutPort<double>* out_;
};

}  // namespace

int lib_register_cpp(Quorval::IRegistry& registry)
{
    Quorval::register_block<Gain>(registry, "Gain", gain_settings());
    return 0;
}
