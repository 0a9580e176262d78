#include "json_value.h"

using Quorval::BlockConfiguration;

nlohmann::json to_json_value(const BlockConfiguration& config, const std::string& key)
{
    switch (config.getType(key)) {
        case BlockConfiguration::Type::Int:
            return config.getInt(key);
        case BlockConfiguration::Type::Bool:
            return config.getBool(key);
        case BlockConfiguration::Type::Double:
            return config.getDouble(key);
        case BlockConfiguration::Type::String:
            return config.getString(key);
        case BlockConfiguration::Type::IntVector:
            return config.getIntVector(key);
        case BlockConfiguration::Type::DoubleVector:
            return config.getDoubleVector(key);
        case BlockConfiguration::Type::StringVector:
            return config.getStringVector(key);
        case BlockConfiguration::Type::BoolVector:
            break;
    }
    return config.getBoolVector(key);
}
