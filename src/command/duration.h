// Lengths of time on the command line.
#pragma once

#include <chrono>
#include <optional>
#include <string>

/// Reads a number of milliseconds, seconds, minutes or hours: `500ms`, `10s`, `5m`, `1h`; digits
/// and a unit, nothing else.
/// @return nothing for another text, and for more than 100 years
std::optional<std::chrono::nanoseconds> parse_duration(const std::string& text);
