// LevelMeter: keeps a value in its store from one run of the graph to the next.
#include <quorval/runtime/tools.h>
#include <quorval/state.h>
#include "blocks.h"
#include "samples.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <iostream>
#include <stdexcept>
#include <string>
#include <utility>

namespace sound {

using Quorval::BlockConfiguration;

namespace {

struct LevelMeterSettings {
    bool forget = false;
};

const Quorval::Settings<LevelMeterSettings>& level_meter_settings()
{
    static const auto kSettings =
        Quorval::Settings<LevelMeterSettings>(
            "Prints the peak and the root mean square of all that it saw, when the graph stops; "
            "with a state directory also the highest peak of all runs.")
            .add("forget", &LevelMeterSettings::forget, "drop the highest peak of earlier runs")
            .live();
    return kSettings;
}

/// "0.500000 (-6.02 dBFS)"; silence is "0.000000 (-inf dBFS)".
std::string to_text(double level)
{
    constexpr double kDecibelsPerDecade = 20;
    // The greatest double has 309 digits in front of the point.
    constexpr std::size_t kLongest = 400;
    std::array<char, kLongest> text{};
    // cppcheck-suppress invalidFunctionArg  // the logarithm of 0 is -inf, which is meant
    const double decibels = kDecibelsPerDecade * std::log10(level);
    static_cast<void>(std::snprintf(text.data(), text.size(), "%.6f (%.2f dBFS)", level, decibels));
    return text.data();
}

class LevelMeter : public Quorval::Block {
public:
    LevelMeter(std::string name, const BlockConfiguration& config)
        : Block(std::move(name), config), settings_(level_meter_settings().read(config))
    {
    }

    void start() override
    {
        highest_peak_ = settings_.forget ? 0 : load_highest_peak();
        if (highest_peak_ > 0) {
            print("highest peak of earlier runs " + to_text(highest_peak_));
        }
    }

    bool run() override
    {
        const SampleBlock& block = in_->value();
        for (const double sample : block.samples) {
            peak_ = std::max(peak_, std::abs(sample));
            sum_of_squares_ += sample * sample;
        }
        samples_ += static_cast<std::int64_t>(block.samples.size());
        return true;
    }

    void stop() override
    {
        const double mean = samples_ == 0 ? 0 : sum_of_squares_ / static_cast<double>(samples_);
        print("peak " + to_text(peak_) + ", RMS " + to_text(std::sqrt(mean)));
        if (has_store()) {
            highest_peak_ = std::max(highest_peak_, peak_);
            Quorval::save_state(pstore(), kStoredName, {{"peak", highest_peak_}});
            print("highest peak ever " + to_text(highest_peak_));
        }
    }

    void reconfigure(const BlockConfiguration& /*merged*/,
                     const BlockConfiguration& override) override
    {
        settings_ = level_meter_settings().apply(settings_, override);
        if (settings_.forget) {
            highest_peak_ = 0;
        }
    }

private:
    static constexpr const char* kStoredName = "level";

    bool has_store() { return !pstore().get_path().empty(); }

    double load_highest_peak()
    {
        if (!has_store()) {
            return 0;
        }
        const auto state = Quorval::load_state(pstore(), kStoredName);
        const double peak = state.has_value() ? state->getDouble("peak") : 0;
        if (!(peak >= 0)) {
            throw std::runtime_error("no level can be negative");
        }
        return peak;
    }

    void print(const std::string& finding)
    {
        std::cout << get_tools().path() << ": " << finding << std::endl;
        if (!std::cout) {
            throw std::runtime_error("cannot write to standard output");
        }
    }

    LevelMeterSettings settings_;
    Input* in_ = Quorval::add_input<SampleBlock>(*this, "in");
    double peak_ = 0;
    double highest_peak_ = 0;
    double sum_of_squares_ = 0;
    std::int64_t samples_ = 0;
};

}  // namespace

void register_level_meter(Quorval::IRegistry& registry)
{
    Quorval::register_block<LevelMeter>(registry, "LevelMeter", level_meter_settings());
}

}  // namespace sound
