#include "blocks.h"
#include "settings.h"

#include <algorithm>
#include <utility>

namespace sound {

using Quorval::BlockConfiguration;

namespace {

constexpr std::size_t kMostTaps = 1024;

std::vector<double> read_taps(const Settings& settings, const std::vector<double>& present)
{
    return settings.get_numbers("taps", present, kMostTaps);
}

}  // namespace

Fir::Fir(std::string name, const BlockConfiguration& config)
    : Block(std::move(name), config), in_(add_input(*this, "in")), out_(add_output(*this, "out"))
{
    const Settings settings(get_name(), config);
    taps_ = read_taps(settings, {1.0});
    settings.warn_about_unknown_keys("taps");
}

bool Fir::run()
{
    const SampleBlock& in = in_.value();
    const auto channels = static_cast<std::size_t>(in.channels);
    fit_history((taps_.size() - 1) * channels);

    // The piece stands behind its history, so the first tap meets the newest sample.
    const std::size_t before = history_.size();
    history_.insert(history_.end(), in.samples.begin(), in.samples.end());
    SampleBlock& out = out_.value();
    out = in;
    for (std::size_t i = 0; i < out.samples.size(); ++i) {
        double sum = 0;
        for (std::size_t tap = 0; tap < taps_.size(); ++tap) {
            sum += taps_[tap] * history_[before + i - tap * channels];
        }
        out.samples[i] = sum;
    }
    fit_history(before);
    out_.trigger();
    return true;
}

/// Keeps the newest samples, and puts silence in front of them when there are too few.
void Fir::fit_history(std::size_t samples)
{
    if (history_.size() < samples) {
        history_.insert(history_.begin(), samples - history_.size(), 0.0);
    }
    history_.erase(history_.begin(), history_.end() - static_cast<std::ptrdiff_t>(samples));
}

void Fir::reconfigure(const BlockConfiguration& /*merged*/, const BlockConfiguration& override)
{
    taps_ = read_taps(Settings(get_name(), override), taps_);
}

}  // namespace sound
