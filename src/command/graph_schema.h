// The form of graph files, as a JSON Schema.
#pragma once

#include <nlohmann/json.hpp>

/// A schema of the draft 2020-12 for one graph file.
/// @param plugins  whose types are known, with their settings; as Look::plugin has them
nlohmann::json make_graph_schema(const nlohmann::json& plugins);
