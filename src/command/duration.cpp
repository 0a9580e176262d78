#include "duration.h"

#include <array>
#include <charconv>
#include <cstdint>
#include <ratio>
#include <utility>

std::optional<std::chrono::nanoseconds> parse_duration(const std::string& text)
{
    using std::chrono::nanoseconds;
    constexpr std::array<std::pair<const char*, nanoseconds>, 4> kUnits = {{
        {"ms", std::chrono::milliseconds(1)},
        {"s", std::chrono::seconds(1)},
        {"m", std::chrono::minutes(1)},
        {"h", std::chrono::hours(1)},
    }};
    constexpr nanoseconds kMost = std::chrono::hours(24 * 36525L);

    std::uint64_t number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    if (error != std::errc()) {
        return std::nullopt;
    }
    for (const auto& [name, unit] : kUnits) {
        if (name == std::string(end)) {
            const bool is_too_long = number > static_cast<std::uint64_t>(kMost / unit);
            return is_too_long ? std::nullopt
                               : std::optional(static_cast<std::int64_t>(number) * unit);
        }
    }
    return std::nullopt;
}
