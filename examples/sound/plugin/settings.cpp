#include "settings.h"

#include <quorval/log.h>

#include <algorithm>
#include <cmath>
#include <sstream>
#include <stdexcept>
#include <utility>

namespace sound {

using Quorval::BlockConfiguration;

namespace {

/// The element as the text form shows it: "<key> (<type>) = <value>"; the key alone when there is
/// none.
std::string describe(const BlockConfiguration& config, const std::string& key)
{
    std::stringstream text;
    text << config;
    const std::string head = key + " (";
    for (std::string line; std::getline(text, line);) {
        if (line.compare(0, head.size(), head) == 0) {
            return line;
        }
    }
    return key;
}

std::string to_text(double number)
{
    std::ostringstream text;
    text << number;
    return text.str();
}

}  // namespace

Settings::Settings(std::string block, const BlockConfiguration& config)
    : block_(std::move(block)), config_(config)
{
}

void Settings::refuse(const std::string& key, const std::string& allowed) const
{
    throw std::invalid_argument(block_ + ": " + describe(config_, key) +
                                " is refused, allowed is " + allowed);
}

bool Settings::get_bool(const std::string& key, bool present) const
{
    try {
        return config_.getBool(key, present);
    } catch (const std::runtime_error&) {  // it has another type
        refuse(key, "true or false");
    }
}

int Settings::get_int(const std::string& key, int present, int least, int most) const
{
    const std::string allowed =
        "a whole number from " + std::to_string(least) + " to " + std::to_string(most);
    try {
        const int value = config_.getInt(key, present);
        if (value >= least && value <= most) {
            return value;
        }
    } catch (const std::runtime_error&) {
        refuse(key, allowed);
    }
    refuse(key, allowed);
}

double Settings::get_number(const std::string& key, double present, double least, double most) const
{
    const std::string allowed = "a number from " + to_text(least) + " to " + to_text(most);
    try {
        const double value = config_.getDouble(key, present);
        if (value >= least && value <= most) {  // which a NaN is not
            return value;
        }
    } catch (const std::runtime_error&) {
        refuse(key, allowed);
    }
    refuse(key, allowed);
}

std::vector<double> Settings::get_numbers(const std::string& key,
                                          const std::vector<double>& present,
                                          std::size_t most) const
{
    const std::string allowed = "a list of 1 to " + std::to_string(most) + " finite numbers";
    try {
        std::vector<double> values = config_.getDoubleVector(key, present);
        const bool finite = std::all_of(values.begin(), values.end(),
                                        [](double value) { return std::isfinite(value); });
        if (finite && !values.empty() && values.size() <= most) {
            return values;
        }
    } catch (const std::runtime_error&) {
        refuse(key, allowed);
    }
    refuse(key, allowed);
}

std::string Settings::get_choice(const std::string& key, const std::string& present,
                                 const std::vector<std::string>& choices) const
{
    std::string allowed = "one of";
    for (const std::string& choice : choices) {
        allowed += " " + choice;
    }
    try {
        std::string value = config_.getString(key, present);
        if (std::find(choices.begin(), choices.end(), value) != choices.end()) {
            return value;
        }
    } catch (const std::runtime_error&) {
        refuse(key, allowed);
    }
    refuse(key, allowed);
}

std::string Settings::get_path(const std::string& key) const
{
    try {
        std::string value = config_.getString(key, "");
        if (!value.empty()) {
            return value;
        }
    } catch (const std::runtime_error&) {
        refuse(key, "the name of a file");
    }
    refuse(key, "the name of a file");
}

void Settings::refuse_change(const std::string& key) const
{
    for (auto element = config_.iterate(key); !element->is_end(); element->advance()) {
        if (element->key() == key) {
            refuse(key, "no change while the graph runs");
        }
    }
}

void Settings::warn_about_unknown_keys(const std::string& known) const
{
    if (!config_.is_consumed()) {
        Quorval::ilog(LOGLEVEL_WARNING)
            << block_ << ": the configuration holds an unknown key, known are " << known;
    }
}

}  // namespace sound
