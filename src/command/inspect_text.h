// What plug-ins offer, for people.
#pragma once

#include "page.h"

#include <nlohmann/json.hpp>

/// The plug-ins with their types, a line each.
/// @param plugins  as Look::plugin has them
void show_plugins(const nlohmann::json& plugins, Page& page);

/// A plug-in that has a file, and all of its types. The problem of the plug-in is left to a
/// message.
void show_plugin(const nlohmann::json& plugin, Page& page);
