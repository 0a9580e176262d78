#include "blocks.h"
#include "settings.h"

#include <algorithm>
#include <utility>

namespace sound {

using Quorval::BlockConfiguration;

namespace {

constexpr double kMostFactor = 1000;
constexpr double kFactorAtFirst = 1;

double read_factor(const Settings& settings, double present)
{
    return settings.get_number("factor", present, -kMostFactor, kMostFactor);
}

}  // namespace

Gain::Gain(std::string name, const BlockConfiguration& config)
    : Block(std::move(name), config), in_(add_input(*this, "in")), out_(add_output(*this, "out"))
{
    const Settings settings(get_name(), config);
    factor_ = read_factor(settings, kFactorAtFirst);
    settings.warn_about_unknown_keys("factor");
}

bool Gain::run()
{
    // Changed in place: after a few runs the vector has its size and nothing is allocated.
    SampleBlock& block = out_.value();
    block = in_.value();
    std::transform(block.samples.begin(), block.samples.end(), block.samples.begin(),
                   [this](double sample) { return sample * factor_; });
    out_.trigger();
    return true;
}

// Read from the override alone: what it does not name stays as an earlier one left it.
void Gain::reconfigure(const BlockConfiguration& /*merged*/, const BlockConfiguration& override)
{
    factor_ = read_factor(Settings(get_name(), override), factor_);
}

}  // namespace sound
