// Sine: a value for each tick.
#include <quorval/settings.h>
#include "blocks.h"

#include <cmath>
#include <cstdint>
#include <string>
#include <utility>

namespace basic {

using Quorval::BlockConfiguration;

namespace {

struct SineSettings {
    double frequency = 1;
    double rate = 100;  // NOLINT(*-magic-numbers): the default
    double amplitude = 1;
};

const Quorval::Settings<SineSettings>& sine_settings()
{
    constexpr double kLowest = 1e-6;
    constexpr double kHighest = 1e9;
    static const auto kSettings =
        Quorval::Settings<SineSettings>("Gives a sine, a value for each tick, from 0 on.")
            .add("frequency", &SineSettings::frequency, "of the sine, in Hz")
            .range(0, kHighest)
            .add("rate", &SineSettings::rate, "of the values, in Hz: one is 1/rate seconds on")
            .range(kLowest, kHighest)
            .add("amplitude", &SineSettings::amplitude, "the greatest value")
            .live();
    return kSettings;
}

class Sine : public Quorval::Block {
public:
    Sine(std::string name, const BlockConfiguration& config)
        : Block(std::move(name), config), settings_(sine_settings().read(config))
    {
        Quorval::add_input<std::int64_t>(*this, "tick");
    }

    bool run() override
    {
        constexpr double kTurn = 2 * 3.14159265358979323846;
        // Whole turns are left out, so that the values stay exact however long it runs.
        const double turns =
            std::fmod(settings_.frequency * static_cast<double>(values_++) / settings_.rate, 1.0);
        out_->write(settings_.amplitude * std::sin(kTurn * turns));
        return true;
    }

    void reconfigure(const BlockConfiguration& /*merged*/,
                     const BlockConfiguration& override) override
    {
        settings_ = sine_settings().apply(settings_, override);
    }

private:
    SineSettings settings_;
    Quorval::OutPort<double>* out_ = Quorval::add_output<double>(*this, "out");
    std::int64_t values_ = 0;
};

}  // namespace

void register_sine(Quorval::IRegistry& registry)
{
    Quorval::register_block<Sine>(registry, "Sine", sine_settings());
}

}  // namespace basic
