#include <quorval/config.h>
#include "config/impl.h"

#include <algorithm>
#include <array>
#include <optional>
#include <stdexcept>
#include <string_view>

namespace Quorval {

namespace {

[[noreturn]] void throw_invalid_key(const std::string& key)
{
    // Upper-case letters are valid too. Callers match on the text, so it stays as narrow as it is.
    // Held by BlockConfigurationSet.AcceptsUpperCaseAlthoughTheMessageNamesLowerCaseOnly.
    throw std::runtime_error("Parameter name '" + key + "' not valid (should be [a-z0-9_.-]).");
}

[[noreturn]] void throw_missing(const char* getter, const std::string& key)
{
    throw std::out_of_range(std::string("BlockConfiguration::") + getter +
                            " failed, the parameter '" + key + "' does not exist");
}

[[noreturn]] void throw_wrong_type(const char* getter, const std::string& key, const Value& value)
{
    throw std::runtime_error(std::string("BlockConfiguration::") + getter +
                             " failed, the parameter '" + key +
                             "' is type: " + to_string(type_of(value)));
}

[[noreturn]] void throw_unknown(const std::string& key)
{
    throw std::invalid_argument("No such parameter: " + key);
}

constexpr std::array<bool, 256> make_key_characters()
{
    std::array<bool, 256> allowed{};
    for (const char character :
         std::string_view("ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789_-.")) {
        allowed[static_cast<unsigned char>(character)] = true;
    }
    return allowed;
}

constexpr std::array<bool, 256> kKeyCharacters = make_key_characters();

bool is_valid_key(const std::string& key)
{
    bool is_valid = true;
    for (const char character : key) {
        is_valid &= kKeyCharacters[static_cast<unsigned char>(character)];
    }
    return is_valid;
}

/// What a getter of the type Result makes of a value, nothing if it does not accept its type.
template <class Result>
std::optional<Result> convert(const Value& value)
{
    if constexpr (std::is_floating_point_v<Result>) {
        if (const auto* content = content_if<double>(value)) {
            return static_cast<Result>(*content);
        }
        if (const auto* content = content_if<int>(value)) {
            return static_cast<Result>(*content);
        }
    } else if (const auto* content = content_if<Result>(value)) {
        return *content;
    }
    return std::nullopt;
}

template <class Item>
std::optional<std::vector<Item>> convert_floating_point_items(const Value& value)
{
    if (const auto* content = content_if<std::vector<double>>(value)) {
        return convert_items<Item>(*content);
    }
    if (const auto* content = content_if<std::vector<int>>(value)) {
        return convert_items<Item>(*content);
    }
    return std::nullopt;
}

template <>
std::optional<std::vector<double>> convert<std::vector<double>>(const Value& value)
{
    return convert_floating_point_items<double>(value);
}

template <>
std::optional<std::vector<float>> convert<std::vector<float>>(const Value& value)
{
    return convert_floating_point_items<float>(value);
}

/// The name of the getter in the message about a wrong type. A vector of floats is a vector of
/// doubles that is narrowed at the end, so it is the getter of doubles that complains, while a
/// missing element is reported by the one that was called. Callers match on the texts, so both
/// stay.
/// Held by BlockConfigurationGetters.GetFloatVectorReportsAWrongTypeAsGetDoubleVector.
template <class Result>
const char* type_getter(const char* getter)
{
    return std::is_same_v<Result, std::vector<float>> ? "getDoubleVector" : getter;
}

/// The result of a getter, nothing if there is no such element.
template <class Result>
std::optional<Result> find(const char* getter, const Entry* element, const std::string& key)
{
    if (element == nullptr) {
        return std::nullopt;
    }
    std::optional<Result> result = convert<Result>(element->value);
    if (!result) {
        throw_wrong_type(type_getter<Result>(getter), key, element->value);
    }
    // Only now: a copy that failed has read nothing.
    element->consumed = true;
    return result;
}

template <class Result>
Result get(const char* getter, const Entry* element, const std::string& key)
{
    std::optional<Result> result = find<Result>(getter, element, key);
    if (!result) {
        throw_missing(getter, key);
    }
    return std::move(*result);
}

template <class Result>
Result get_or(const char* getter, const Entry* element, const std::string& key,
              const Result& default_value)
{
    std::optional<Result> result = find<Result>(getter, element, key);
    if (!result) {
        return default_value;
    }
    return std::move(*result);
}

}  // namespace

const BlockConfiguration::Impl& BlockConfiguration::Impl::of(const BlockConfiguration& config)
{
    static const Impl kEmpty;
    return config.impl_ ? *config.impl_ : kEmpty;
}

BlockConfiguration::Impl& BlockConfiguration::Impl::of(BlockConfiguration& config)
{
    if (!config.impl_) {
        config.impl_ = std::make_unique<Impl>();
    }
    return *config.impl_;
}

void BlockConfiguration::Impl::set(const std::string& key, Value&& value)
{
    if (!is_valid_key(key)) {
        throw_invalid_key(key);
    }
    elements.put(key, std::move(value));
}

BlockConfiguration::BlockConfiguration() : impl_(std::make_unique<Impl>()) {}

BlockConfiguration::BlockConfiguration(const BlockConfiguration& other)
    : impl_(std::make_unique<Impl>(Impl::of(other)))
{
}

BlockConfiguration& BlockConfiguration::operator=(const BlockConfiguration& other)
{
    if (this != &other) {
        impl_ = std::make_unique<Impl>(Impl::of(other));
    }
    return *this;
}

BlockConfiguration::BlockConfiguration(BlockConfiguration&& other) noexcept = default;

BlockConfiguration& BlockConfiguration::operator=(BlockConfiguration&& other) noexcept = default;

BlockConfiguration::~BlockConfiguration() = default;

void BlockConfiguration::set(const std::string& key, int value)
{
    Impl::of(*this).set(key, make_value(value));
}

void BlockConfiguration::set(const std::string& key, bool value)
{
    Impl::of(*this).set(key, make_value(value));
}

void BlockConfiguration::set(const std::string& key, double value)
{
    Impl::of(*this).set(key, make_value(value));
}

void BlockConfiguration::set(const std::string& key, const std::string& value)
{
    Impl::of(*this).set(key, make_value(value));
}

void BlockConfiguration::set(const std::string& key, const char* value)
{
    set(key, std::string(value));
}

void BlockConfiguration::set(const std::string& key, const std::vector<int>& value)
{
    Impl::of(*this).set(key, make_value(value));
}

void BlockConfiguration::set(const std::string& key, const std::vector<double>& value)
{
    Impl::of(*this).set(key, make_value(value));
}

void BlockConfiguration::set(const std::string& key, const std::vector<std::string>& value)
{
    Impl::of(*this).set(key, make_value(value));
}

void BlockConfiguration::set(const std::string& key, const std::vector<bool>& value)
{
    Impl::of(*this).set(key, make_value(value));
}

int BlockConfiguration::getInt(const std::string& key) const
{
    return get<int>("getInt", Impl::get_element(*this, key), key);
}

bool BlockConfiguration::getBool(const std::string& key) const
{
    return get<bool>("getBool", Impl::get_element(*this, key), key);
}

double BlockConfiguration::getDouble(const std::string& key) const
{
    return get<double>("getDouble", Impl::get_element(*this, key), key);
}

float BlockConfiguration::getFloat(const std::string& key) const
{
    return get<float>("getFloat", Impl::get_element(*this, key), key);
}

std::string BlockConfiguration::getString(const std::string& key) const
{
    return get<std::string>("getString", Impl::get_element(*this, key), key);
}

std::vector<int> BlockConfiguration::getIntVector(const std::string& key) const
{
    return get<std::vector<int>>("getIntVector", Impl::get_element(*this, key), key);
}

std::vector<double> BlockConfiguration::getDoubleVector(const std::string& key) const
{
    return get<std::vector<double>>("getDoubleVector", Impl::get_element(*this, key), key);
}

std::vector<float> BlockConfiguration::getFloatVector(const std::string& key) const
{
    return get<std::vector<float>>("getFloatVector", Impl::get_element(*this, key), key);
}

std::vector<std::string> BlockConfiguration::getStringVector(const std::string& key) const
{
    return get<std::vector<std::string>>("getStringVector", Impl::get_element(*this, key), key);
}

std::vector<bool> BlockConfiguration::getBoolVector(const std::string& key) const
{
    return get<std::vector<bool>>("getBoolVector", Impl::get_element(*this, key), key);
}

int BlockConfiguration::getInt(const std::string& key, int default_value) const
{
    return get_or<int>("getInt", Impl::get_element(*this, key), key, default_value);
}

bool BlockConfiguration::getBool(const std::string& key, bool default_value) const
{
    return get_or<bool>("getBool", Impl::get_element(*this, key), key, default_value);
}

double BlockConfiguration::getDouble(const std::string& key, double default_value) const
{
    return get_or<double>("getDouble", Impl::get_element(*this, key), key, default_value);
}

float BlockConfiguration::getFloat(const std::string& key, float default_value) const
{
    return get_or<float>("getFloat", Impl::get_element(*this, key), key, default_value);
}

std::string BlockConfiguration::getString(const std::string& key,
                                          const std::string& default_value) const
{
    return get_or<std::string>("getString", Impl::get_element(*this, key), key, default_value);
}

std::vector<int> BlockConfiguration::getIntVector(const std::string& key,
                                                  const std::vector<int>& default_value) const
{
    return get_or<std::vector<int>>("getIntVector", Impl::get_element(*this, key), key,
                                    default_value);
}

std::vector<double> BlockConfiguration::getDoubleVector(
    const std::string& key, const std::vector<double>& default_value) const
{
    return get_or<std::vector<double>>("getDoubleVector", Impl::get_element(*this, key), key,
                                       default_value);
}

std::vector<float> BlockConfiguration::getFloatVector(const std::string& key,
                                                      const std::vector<float>& default_value) const
{
    return get_or<std::vector<float>>("getFloatVector", Impl::get_element(*this, key), key,
                                      default_value);
}

std::vector<std::string> BlockConfiguration::getStringVector(
    const std::string& key, const std::vector<std::string>& default_value) const
{
    return get_or<std::vector<std::string>>("getStringVector", Impl::get_element(*this, key), key,
                                            default_value);
}

std::vector<bool> BlockConfiguration::getBoolVector(const std::string& key,
                                                    const std::vector<bool>& default_value) const
{
    return get_or<std::vector<bool>>("getBoolVector", Impl::get_element(*this, key), key,
                                     default_value);
}

BlockConfiguration::Type BlockConfiguration::getType(const std::string& key) const
{
    const Entry* element = Impl::get_element(*this, key);
    if (element == nullptr) {
        throw_unknown(key);
    }
    return type_of(element->value);
}

std::string BlockConfiguration::getTypeName(const std::string& key) const
{
    return to_string(getType(key));
}

bool BlockConfiguration::is_consumed() const
{
    const Elements& elements = Impl::of(*this).elements;
    return std::all_of(elements.begin(), elements.end(),
                       [](const Entry& entry) { return entry.consumed; });
}

void BlockConfiguration::delete_element(const std::string& prefix)
{
    // Not only at the start of the key. Applications rely on what this removes, so it stays.
    // Held by BlockConfigurationDelete.MatchesThePrefixAnywhereInTheKey.
    // The prefix may be the key of an element that goes.
    Impl::of(*this).elements.erase_if([prefix = prefix](const std::string& key) {
        return key.size() >= prefix.size() &&
               (prefix.empty() || key.size() == prefix.size() || key[prefix.size()] == '.') &&
               key.find(prefix) != std::string::npos;
    });
}

void BlockConfiguration::load(std::ifstream& /*in*/) {}

void BlockConfiguration::save(std::ofstream& /*out*/) {}

std::string to_string(BlockConfiguration::Type type)
{
    const auto index = static_cast<std::size_t>(type);
    return std::string(index < kTypeNames.size() ? kTypeNames[index] : "??");
}

}  // namespace Quorval
