// Gain: the smallest block. Begin here.
#include "blocks.h"
#include "samples.h"

#include <algorithm>
#include <string>
#include <utility>

namespace sound {

using Quorval::BlockConfiguration;

namespace {

struct GainSettings {
    double factor = 1;
};

const Quorval::Settings<GainSettings>& gain_settings()
{
    static const auto kSettings =
        Quorval::Settings<GainSettings>("Multiplies every sample.")
            .add("factor", &GainSettings::factor, "what samples are multiplied by")
            .range(-1000, 1000)
            .live();
    return kSettings;
}

class Gain : public Quorval::Block {
public:
    Gain(std::string name, const BlockConfiguration& config)
        : Block(std::move(name), config), settings_(gain_settings().read(config))
    {
    }

    bool run() override
    {
        // Changed in place: after a few runs the vector has its size and nothing is allocated.
        SampleBlock& block = out_->value();
        block = in_->value();
        std::transform(block.samples.begin(), block.samples.end(), block.samples.begin(),
                       [this](double sample) { return sample * settings_.factor; });
        out_->trigger();
        return true;
    }

    void reconfigure(const BlockConfiguration& /*merged*/,
                     const BlockConfiguration& override) override
    {
        settings_ = gain_settings().apply(settings_, override);
    }

private:
    GainSettings settings_;
    Input* in_ = Quorval::add_input<SampleBlock>(*this, "in");
    Output* out_ = Quorval::add_output<SampleBlock>(*this, "out");
};

}  // namespace

void register_gain(Quorval::IRegistry& registry)
{
    Quorval::register_block<Gain>(registry, "Gain", gain_settings());
}

}  // namespace sound
