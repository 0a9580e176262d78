#include <quorval/pstore.h>
#include "blocks.h"
#include "settings.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstddef>
#include <cstdio>
#include <filesystem>
#include <stdexcept>
#include <utility>

namespace sound {

using Quorval::BlockConfiguration;

namespace {

constexpr const char* kStoredName = "level";

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

bool read_forget(const Settings& settings)
{
    return settings.get_bool("forget", false);
}

}  // namespace

LevelMeter::LevelMeter(std::string name, const BlockConfiguration& config)
    : Block(std::move(name), config), in_(add_input(*this, "in"))
{
    const Settings settings(get_name(), config);
    forget_ = read_forget(settings);
    settings.warn_about_unknown_keys("forget, pstore_path");
}

bool LevelMeter::has_store()
{
    return !pstore().get_path().empty();
}

void LevelMeter::start()
{
    highest_peak_ = forget_ ? 0 : load_highest_peak();
    if (highest_peak_ > 0) {
        get_tools().report(get_name(), "highest peak of earlier runs " + to_text(highest_peak_));
    }
}

double LevelMeter::load_highest_peak()
{
    const std::string file = pstore().get_path() + kStoredName;
    if (!has_store() || !std::filesystem::exists(file)) {
        return 0;
    }
    try {
        const double peak = pstore().load(kStoredName).getDouble("peak");
        if (peak >= 0) {
            return peak;
        }
    } catch (const std::exception& error) {
        throw std::runtime_error("cannot read " + file + ": " + error.what());
    }
    throw std::runtime_error("cannot read " + file + ": no level can be negative");
}

bool LevelMeter::run()
{
    const SampleBlock& block = in_.value();
    for (const double sample : block.samples) {
        peak_ = std::max(peak_, std::abs(sample));
        sum_of_squares_ += sample * sample;
    }
    samples_ += static_cast<std::int64_t>(block.samples.size());
    return true;
}

void LevelMeter::stop()
{
    const double mean = samples_ == 0 ? 0 : sum_of_squares_ / static_cast<double>(samples_);
    get_tools().report(get_name(), "peak " + to_text(peak_) + ", RMS " + to_text(std::sqrt(mean)));
    if (has_store()) {
        highest_peak_ = std::max(highest_peak_, peak_);
        pstore().store(kStoredName, {{"peak", highest_peak_}});
        get_tools().report(get_name(), "highest peak ever " + to_text(highest_peak_));
    }
}

void LevelMeter::reconfigure(const BlockConfiguration& /*merged*/,
                             const BlockConfiguration& override)
{
    if (read_forget(Settings(get_name(), override))) {
        highest_peak_ = 0;
    }
}

}  // namespace sound
