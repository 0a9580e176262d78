// A graph in operation as texts.
#pragma once

#include "run/outside.h"

#include <cstdint>
#include <string>

namespace Quorval::runtime {

/// JSON: `{"format": 1, "name", "blocks": [...], "connections": [...]}`, with the present
/// configurations.
std::string describe(const Run& run);

/// TOML: the present configuration of a block. Comments say where values come from, and what the
/// defaults of other settings are.
std::string show_config(const Run& run, std::uint32_t block);

}  // namespace Quorval::runtime
