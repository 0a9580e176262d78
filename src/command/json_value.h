// Values of configurations in JSON.
#pragma once

#include <quorval/config.h>

#include <nlohmann/json.hpp>

#include <string>

/// The element of a key that `config` has. Numbers that JSON does not know become null.
nlohmann::json to_json_value(const Quorval::BlockConfiguration& config, const std::string& key);
