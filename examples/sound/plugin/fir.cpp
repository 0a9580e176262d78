// Fir: a filter that remembers the end of the piece before.
#include "blocks.h"
#include "samples.h"

#include <cstddef>
#include <string>
#include <utility>
#include <vector>

namespace sound {

using Quorval::BlockConfiguration;

namespace {

struct FirSettings {
    std::vector<double> taps = {1};
};

const Quorval::Settings<FirSettings>& fir_settings()
{
    constexpr int kMostTaps = 1024;
    static const auto kSettings =
        Quorval::Settings<FirSettings>(
            "Filters each channel: y[n] = taps[0] x[n] + taps[1] x[n-1] + ..., with silence in "
            "front of the recording.")
            .add("taps", &FirSettings::taps, "the factors, that of the newest sample first")
            .length(1, kMostTaps)
            .live();
    return kSettings;
}

class Fir : public Quorval::Block {
public:
    Fir(std::string name, const BlockConfiguration& config)
        : Block(std::move(name), config), settings_(fir_settings().read(config))
    {
    }

    bool run() override
    {
        const std::vector<double>& taps = settings_.taps;
        const SampleBlock& in = in_->value();
        const auto channels = static_cast<std::size_t>(in.channels);
        fit_history((taps.size() - 1) * channels);

        // The piece stands behind its history, so the first tap meets the newest sample.
        const std::size_t before = history_.size();
        history_.insert(history_.end(), in.samples.begin(), in.samples.end());
        SampleBlock& out = out_->value();
        out = in;
        for (std::size_t i = 0; i < out.samples.size(); ++i) {
            double sum = 0;
            for (std::size_t tap = 0; tap < taps.size(); ++tap) {
                sum += taps[tap] * history_[before + i - tap * channels];
            }
            out.samples[i] = sum;
        }
        fit_history(before);
        out_->trigger();
        return true;
    }

    void reconfigure(const BlockConfiguration& /*merged*/,
                     const BlockConfiguration& override) override
    {
        settings_ = fir_settings().apply(settings_, override);
    }

private:
    /// Keeps the newest samples, and puts silence in front of them when there are too few.
    void fit_history(std::size_t samples)
    {
        if (history_.size() < samples) {
            history_.insert(history_.begin(), samples - history_.size(), 0.0);
        }
        history_.erase(history_.begin(), history_.end() - static_cast<std::ptrdiff_t>(samples));
    }

    FirSettings settings_;
    Input* in_ = Quorval::add_input<SampleBlock>(*this, "in");
    Output* out_ = Quorval::add_output<SampleBlock>(*this, "out");
    std::vector<double> history_;  // the frames in front of the next piece, one less than taps
};

}  // namespace

void register_fir(Quorval::IRegistry& registry)
{
    Quorval::register_block<Fir>(registry, "Fir", fir_settings());
}

}  // namespace sound
