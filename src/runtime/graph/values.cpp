#include "graph/values.h"

#include <algorithm>
#include <stdexcept>
#include <variant>

namespace Quorval::runtime {

void set_value(BlockConfiguration& config, const std::string& key, const Value& value)
{
    std::visit([&](const auto& held) { config.set(key, held); }, value);
}

Value get_value(const BlockConfiguration& config, const std::string& key)
{
    using Type = BlockConfiguration::Type;
    switch (config.getType(key)) {
        case Type::Int:
            return config.getInt(key);
        case Type::Bool:
            return config.getBool(key);
        case Type::Double:
            return config.getDouble(key);
        case Type::String:
            return config.getString(key);
        case Type::IntVector:
            return config.getIntVector(key);
        case Type::DoubleVector:
            return config.getDoubleVector(key);
        case Type::StringVector:
            return config.getStringVector(key);
        case Type::BoolVector:
            return config.getBoolVector(key);
    }
    throw std::logic_error("'" + key + "' is of no known kind");
}

std::vector<std::string> keys_of(const BlockConfiguration& config)
{
    std::vector<std::string> keys;
    for (const auto at = config.iterate(""); !at->is_end(); at->advance()) {
        keys.push_back(at->key());
    }
    std::sort(keys.begin(), keys.end());
    return keys;
}

BlockConfiguration unread(const BlockConfiguration& config)
{
    BlockConfiguration copy;
    for (const std::string& key : keys_of(config)) {
        set_value(copy, key, get_value(config, key));
    }
    return copy;
}

}  // namespace Quorval::runtime
